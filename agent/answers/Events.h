// The last lines of the log.
#pragma once

#include "agent/answers/View.h"

#include <cstdint>
#include <memory>

namespace Agent {

/// Those with a number above `after`, `most` of them at most, the oldest in front.
std::unique_ptr<JsonElements> eventsAnswer(std::uint64_t after, std::uint64_t most);

} // namespace Agent
