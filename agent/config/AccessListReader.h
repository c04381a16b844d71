// Access lists in the configuration file. For example
//
//     [[access-list.iptv]]
//     sequence = 10
//     action = "permit"
//     source = "10.1.1.1"
//     destination = "239.1.1.0/30"
#pragma once

#include "agent/config/AccessList.h"
#include "agent/config/Diagnostic.h"

#include <vector>

namespace Agent {

class TomlSection;

/// Reads the rules of a list, and reports how many groups each selects where the list is attached.
/// Leaves out rules with errors.
AccessListConfiguration readAccessList(std::vector<TomlSection> const& rules, bool attached,
                                       Diagnostics& diagnostics);

} // namespace Agent
