// Access lists in the configuration file. For example
//
//     [[access-list.iptv]]
//     sequence = 10
//     action = "permit"
//     source = "10.1.1.1"
//     destination = "239.1.1.0/30"
#pragma once

#include "agent/config/Diagnostic.h"

#include "Acl/AclConfig.h"

#include <cstdint>
#include <map>
#include <vector>

namespace Agent {

class TomlSection;

/// The rules of one list, by sequence number.
using AccessListConfiguration = std::map<std::uint32_t, Acl::IpRuleConfig>;

/// How many groups a valid rule asks for. None for the rule "deny any any", which instead shuts out
/// the groups of the forwarding table.
std::uint64_t groupCount(Acl::IpRuleConfig const& rule);

/// Where they stand.
using AccessListLines = std::map<std::uint32_t, Line>;

/// Reads the rules of a list, and reports how many groups each selects where the list is attached.
/// Leaves out rules with errors.
AccessListConfiguration readAccessList(std::vector<TomlSection> const& rules, bool attached,
                                       AccessListLines& lines, Diagnostics& diagnostics);

} // namespace Agent
