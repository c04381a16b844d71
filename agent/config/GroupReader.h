// The groups of an interface in the configuration file. For example
//
//     [interface.up0.group]
//     "239.1.1.0/24" = {}                                     # each group of the range
//     "239.1.1.2" = { include = ["10.0.0.1"] }                # but this one from there only
//
// Where entries overlap, the one with the longest prefix decides.
#pragma once

#include "agent/config/Configuration.h"

namespace Agent {

class TomlSection;

/// Reads the groups of the interface whose section that is into `interface`, whose version and
/// whether it allows large ranges are known. Leaves out entries with errors, and all prefixes where
/// they select too many groups.
void readGroups(TomlSection const& section, InterfaceConfiguration& interface,
                Diagnostics& diagnostics);

/// Whether the ranges under `key` may select so many groups; reported if not.
bool checkGroupCount(TomlSection const& section, std::string_view key, std::uint64_t groups,
                     InterfaceConfiguration const& interface, Diagnostics& diagnostics);

} // namespace Agent
