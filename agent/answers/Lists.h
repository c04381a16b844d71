// The access lists of the configuration, and the routes of the forwarding tables that are
// announced.
#pragma once

#include "Lox/IpAddr.h"
#include "agent/answers/View.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Agent {

/// "239.1.1.0/30", "239.0.0.1/255.0.0.255", "10.0.0.1" or "any".
std::string rangeText(Lox::IpAddrWithFullMask range);

/// Adds to what stands in the configuration its file and line.
void addPlace(nlohmann::json& json, Line const& line);

/// One rule, with its list, sequence number and line.
nlohmann::json ruleJson(std::string const& list, std::uint32_t sequence,
                        AccessListRule const& rule);

/// Every rule of every list, or of the list of that name. `view` outlives the answer.
std::unique_ptr<JsonElements> listsAnswer(AgentView const& view, std::string const& name);

/// The source of the VRF's first announced route to a group, or of the next one behind that source:
/// 0.0.0.0 for any. Nothing at the end.
std::optional<Lox::IpAddr> nextRouteSource(AgentView const& view, std::string const& vrf,
                                           Lox::IpAddr group,
                                           std::optional<Lox::IpAddr> after = {});

/// All announced routes of all VRFs, or of one.
std::unique_ptr<JsonElements> routesAnswer(AgentView const& view, std::string const& vrf);

} // namespace Agent
