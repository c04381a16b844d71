// The agent's configuration file (TOML) as a plain value. For example
//
//     [interface.up0]
//     igmp-version = 3
//     unsolicited-report-interval = 1.0
//     robustness = 2
//     packets-per-100-ms = 100
//     require-router-alert = false
//     ssm-only = false
//     [interface.up0.group]
//     "239.1.1.1" = {}                                        # from any source
//     "239.1.1.2" = { include = ["10.0.0.1", "10.0.0.2"] }
//     "239.1.1.3" = { exclude = ["10.0.0.9"] }
//     "239.1.2.0/24" = {}                                     # each of these (GroupReader.h)
//
// A name may be a pattern, for all interfaces that match and have no section of their own:
//
//     [interface."ppp*"]                                      # "*", "?", "[...]"
//
// Access lists (AccessListReader.h) add the groups that their rules select:
//
//     [interface.up1]
//     access-lists = ["iptv"]
//     large-ranges = true                                     # allow more than 65,536 groups
//
// Interfaces in other network namespaces belong to VRFs:
//
//     [vrf.red]
//     namespace = "red"                                       # as in `ip netns`, or a path (not
//                                                             # in /proc: `ip netns attach`)
//     [interface.up2]
//     vrf = "red"
//
// or, where the VRF is a VRF device, are its ports:
//
//     [vrf.blue]
//     device = "vrf-blue"
//
// And which routes of the multicast forwarding table make groups:
//
//     [forwarding-table]
//     require-output = true
//     incoming = "proxy-interface"                            # or "any"
//
// Some of it may stand in other files (FilesReader.h). Reading is separate from applying: two
// values can be compared to find what a new file changes.
#pragma once

#include "Lox/IpAddr.h"
#include "agent/config/AccessList.h"
#include "agent/config/Diagnostic.h"

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Agent {

/// The VRF of the agent's own network namespace.
inline constexpr char defaultVrf[] = "default";

/// The entry of the file that a group comes from. That is no part of what it means, so all compare
/// equal.
struct FileEntry {
    Line line;
    unsigned prefixLength = 32;
    friend bool operator==(FileEntry const&, FileEntry const&) { return true; }
};

/// From where one group is wanted. Both lists are ascending, and name each source once.
struct GroupConfiguration {
    using Sources = std::vector<Lox::IpAddr>;

    /// Unicast sources.
    Sources include;
    /// Unicast sources; or 0.0.0.0 alone, with nothing included: wanted from any source.
    Sources exclude;
    FileEntry entry = {};

    bool anySource() const { return !exclude.empty() && exclude.front().isZero(); }
    friend bool operator==(GroupConfiguration const&, GroupConfiguration const&) = default;
};

/// The groups of an interface, ascending. There may be a million: they stand in one array.
class GroupConfigurations {
  public:
    using Item = std::pair<Lox::IpAddr, GroupConfiguration>;

    /// Above those that are there.
    void add(Lox::IpAddr group, GroupConfiguration wanted) {
        items_.emplace_back(group, std::move(wanted));
    }
    void reserve(std::size_t groups) { items_.reserve(groups); }
    std::size_t size() const { return items_.size(); }
    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }
    /// The first one from `group` on.
    auto lowerBound(Lox::IpAddr group) const {
        return std::ranges::lower_bound(items_, group, {}, &Item::first);
    }
    /// Null for one that is not there.
    GroupConfiguration const* find(Lox::IpAddr group) const {
        auto const at = lowerBound(group);
        return at == end() || at->first != group ? nullptr : &at->second;
    }
    friend bool operator==(GroupConfigurations const&, GroupConfigurations const&) = default;

  private:
    std::vector<Item> items_;
};

/// One upstream interface.
struct InterfaceConfiguration {
    /// 1, 2 or 3.
    int igmpVersion = 3;
    /// Seconds within which a state change report is repeated; 0 for the default of the version
    /// spoken: 1 s in version 3 (RFC 3376, 8.11), 10 s before (RFC 2236, 8.10).
    double unsolicitedReportInterval = 0;
    /// How often a change is told, 2 to 7, until a querier says otherwise.
    unsigned robustness = 2;
    /// The most packets that leave within any 100 ms.
    unsigned packetsPer100ms = 100;
    /// Whether version 2 and 3 queries without that option are ignored.
    bool requireRouterAlert = false;
    /// Whether, in version 3, queriers of older versions are ignored.
    bool ssmOnly = false;
    GroupConfigurations groups;
    /// Names of attached lists, which need not exist.
    std::vector<std::string> accessLists;
    /// Whether these, and the prefixes among the groups, may each select more than 65,536 groups.
    bool largeRanges = false;
    /// The default VRF, or a key of Configuration::vrfs.
    std::string vrf = defaultVrf;
    /// The pattern by which the interface is in the configuration; empty for its own name.
    std::string pattern = {};

    friend bool operator==(InterfaceConfiguration const&, InterfaceConfiguration const&) = default;
};

/// Which routes of the multicast forwarding table make their groups wanted.
struct ForwardingTableConfiguration {
    enum class Incoming { proxyInterface, any };

    /// Only those with an outgoing interface.
    bool requireOutput = true;
    /// Those that come in on a proxy interface, or on any.
    Incoming incoming = Incoming::proxyInterface;

    friend bool operator==(ForwardingTableConfiguration const&,
                           ForwardingTableConfiguration const&) = default;
};

/// What holds for the interfaces whose names match InterfaceConfiguration::pattern.
using InterfacePatterns = std::vector<InterfaceConfiguration>;

/// Where the interfaces and the routes of a VRF are.
struct VrfConfiguration {
    /// As namespaceOpen() takes it; empty for the agent's own.
    std::string namespaceName;
    /// The VRF device there whose ports the interfaces are, and whose routing table has the routes;
    /// empty for all interfaces, and the default table.
    std::string device;

    friend bool operator==(VrfConfiguration const&, VrfConfiguration const&) = default;
};

struct Configuration {
    /// By kernel name. The file's own; whoever puts it in force adds those that match a pattern.
    std::map<std::string, InterfaceConfiguration> interfaces;
    /// In the order of the file.
    InterfacePatterns patterns;
    std::map<std::string, AccessListConfiguration> accessLists;
    /// Without the default one.
    std::map<std::string, VrfConfiguration> vrfs;
    ForwardingTableConfiguration forwardingTable;
    /// Where the figures for monitoring are served, ADDRESS:PORT; empty for nowhere.
    std::string metricsListen;
    /// Whether it may be taken over though it has every group left.
    bool allowEmpty = false;
    /// Whether an agent that ends leaves its groups to the next one.
    bool keepGroups = false;
    /// The group of users who may use the control socket; empty for the agent's own.
    std::string controlGroup;

    /// Of a VRF; empty for the agent's own, which the default one is in.
    std::string namespaceOf(std::string const& vrf) const {
        auto const found = vrfs.find(vrf);
        return found == vrfs.end() ? "" : found->second.namespaceName;
    }
    /// Null for a list that is not there.
    AccessListConfiguration const* list(std::string const& name) const {
        auto const found = accessLists.find(name);
        return found == accessLists.end() ? nullptr : &found->second;
    }
    /// What holds for an interface of that name, if there is one: its own section, failing that the
    /// first pattern that matches. Null for nothing.
    InterfaceConfiguration const* entryFor(std::string const& name) const;
    /// How many groups the sections ask for. One that several lists, lines or ranges select counts
    /// for each.
    std::uint64_t selectedGroups() const;
    /// The same of one of them.
    std::uint64_t selectedGroups(InterfaceConfiguration const& interface) const;

    friend bool operator==(Configuration const&, Configuration const&) = default;
};

struct ConfigurationReading {
    /// Holds what could be read; to be used only if `valid()`.
    Configuration configuration;
    /// In the order of their places in the file.
    std::vector<Diagnostic> diagnostics;

    /// No errors.
    bool valid() const { return count(Diagnostic::Level::error) == 0; }
    /// Of all findings, those that are not shown included.
    std::size_t count(Diagnostic::Level level) const;
};

/// Reads `text`, and no files that it includes; `file` is the name for the diagnostics. Reports all
/// errors of meaning, or the first of syntax. Never throws, whatever the text.
ConfigurationReading configurationParse(std::string_view text, std::string const& file);

/// The same from a file, with those that it includes. One that cannot be read is an error among the
/// diagnostics.
ConfigurationReading configurationRead(std::string const& file);

} // namespace Agent
