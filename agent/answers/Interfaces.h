// The interfaces of the configuration, and how they fare.
#pragma once

#include "agent/answers/View.h"

namespace Agent {

/// One of them; `configured` is its part of the configuration.
nlohmann::json interfaceJson(AgentView const& view, std::string const& name,
                             InterfaceConfiguration const& configured);

/// All of them, in the order of their names, then the patterns that match none. `view` outlives the
/// answer.
std::unique_ptr<JsonElements> interfacesAnswer(AgentView const& view);

/// What the ports of these interfaces have counted; an empty name stands for all.
std::unique_ptr<JsonElements> countersAnswer(AgentView const& view, std::string const& interface);

} // namespace Agent
