// What a host engine counts, as JSON.
#pragma once

#include "agent/igmp/HostEngine.h"

#include <nlohmann/json_fwd.hpp>

namespace Agent {

/// Packets received and not used are in "receivedDropped", by the reason.
nlohmann::json toJson(HostCounters const& counters);

} // namespace Agent
