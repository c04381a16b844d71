// What a configuration has changed for the groups that are announced.
#pragma once

#include "agent/loop/FileDescriptor.h"
#include "agent/ports/PortRegistry.h"

#include <cstddef>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace Agent {

/// Calls `visit(interface, group, before, after)` for each group whose state is another one than
/// when the registry began to remember, interfaces and groups in their order.
template <class Visit>
void forChanges(PortRegistry const& ports, Visit visit) {
    for (auto const& [interface, states] : ports.changes().before()) {
        IgmpHostPort const* const port = ports.port(interface);
        for (Lox::IpAddr const group : Nex::sortedKeys(states.template walk<Nex::Nothing>())) {
            HostEngine::GroupState const& before = *states.find(group);
            HostEngine::GroupState const after =
                port ? port->engine().state(group) : HostEngine::GroupState();
            if (before != after) visit(interface, group, before, after);
        }
    }
}

struct ChangeCounts {
    std::size_t joined = 0, left = 0, changed = 0;
};

ChangeCounts changeCounts(PortRegistry const& ports);

/// One change as a line of JSON: "interface", "group", "before" and "after": "mode" and
/// "sources", or null where the group is not announced.
std::string changeText(std::string const& interface, Lox::IpAddr group,
                       HostEngine::GroupState const& before, HostEngine::GroupState const& after);

/// The members of `answer`, and in the array "changes" the lines of a file. Throws
/// std::system_error.
std::unique_ptr<JsonPart> changesPart(nlohmann::json answer, FileDescriptor rows);

} // namespace Agent
