#include "agent/records/StatusJson.h"

#include "agent/loop/Json.h"

namespace Agent {

nlohmann::json toJson(HostCounters const& counters) {
    nlohmann::json json;
#define AGENT_SHOW(type, name, Name) json[#name] = counters.name;
    AGENT_HOST_COUNTERS(AGENT_SHOW)
#undef AGENT_SHOW
#define AGENT_SHOW(name)                                                                           \
    json["receivedDropped"][#name] = counters.dropped[std::size_t(DropReason::name)];
    AGENT_DROP_REASONS(AGENT_SHOW)
#undef AGENT_SHOW
    return json;
}

} // namespace Agent
