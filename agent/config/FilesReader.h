// The configuration file and those that it includes, as one. For example
//
//     include = ["conf.d/*.toml", "/etc/groups.toml"]
//
// Tables whose names the operator chooses come together from all files; anything else stands in one
// of them.
#pragma once

#include "agent/config/Diagnostic.h"

#include <optional>
#include <string>
#include <string_view>
#include <toml++/toml.h>

namespace Agent {

/// Reads `file` and what it includes, regular files of up to 64 MiB together, once more where one
/// of them changes meanwhile. What is wrong with a file is reported, and nothing returned.
std::optional<toml::table> filesRead(std::string const& file, Diagnostics& diagnostics);

/// Whether a name of a file or an interface stands for all that match it.
bool isPattern(std::string_view name);

} // namespace Agent
