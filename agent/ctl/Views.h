// The agent's answers as text for people, one function for each question.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace Ctl {

std::string statusText(nlohmann::json const& answer);
std::string interfacesText(nlohmann::json const& answer);
std::string groupsText(nlohmann::json answer);
std::string countersText(nlohmann::json const& answer);
std::string metricsText(nlohmann::json const& answer);
std::string eventsText(nlohmann::json const& answer);
std::string listsText(nlohmann::json const& answer);
std::string routesText(nlohmann::json const& answer);
std::string whyText(nlohmann::json const& answer);
std::string traceText(nlohmann::json const& answer);
std::string diffText(nlohmann::json const& answer);
std::string stopText(nlohmann::json const& answer);
std::string reloadText(nlohmann::json const& answer);
/// FILE:LINE:COLUMN: LEVEL: TEXT, a line each.
std::string diagnosticsText(nlohmann::json const& diagnostics);

} // namespace Ctl
