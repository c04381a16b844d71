// A configuration as the text of its file, always the same for the same meaning: sections and keys
// in a fixed order, groups by their numbers, nothing that holds anyway. What is in force and what a
// file holds can so be compared line by line.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace Ctl {

/// Of the agent's answer to "config".
std::string tomlText(nlohmann::json const& answer);

} // namespace Ctl
