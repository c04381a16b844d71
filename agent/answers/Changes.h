// What a configuration has changed for the groups that are announced.
#pragma once

#include "agent/PortRegistry.h"

#include <cstddef>

namespace Agent {

/// Calls `visit(interface, group, before, after)` for each group whose state is another one than
/// when the registry began to remember, interfaces and groups in their order.
template <class Visit>
void forChanges(PortRegistry const& ports, Visit visit) {
    for (auto const& [interface, states] : ports.changes().before()) {
        IgmpHostPort const* const port = ports.port(interface);
        for (auto const& [group, before] : states) {
            HostEngine::GroupState const after =
                port ? port->engine().state(group) : HostEngine::GroupState();
            if (before != after) visit(interface, group, before, after);
        }
    }
}

struct ChangeCounts {
    std::size_t joined = 0, left = 0, changed = 0;
};

inline ChangeCounts changeCounts(PortRegistry const& ports) {
    ChangeCounts counts;
    forChanges(ports, [&](auto const&, auto, auto const& before, auto const& after) {
        if (!before.member())
            ++counts.joined;
        else if (!after.member())
            ++counts.left;
        else
            ++counts.changed;
    });
    return counts;
}

} // namespace Agent
