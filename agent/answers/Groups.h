// The groups that are announced, or would be if their interface could be used, and who wants them.
#pragma once

#include "Igmp/IgmpHost.h"
#include "Lox/IpAddr.h"
#include "agent/answers/View.h"

#include <array>
#include <utility>

namespace Agent {

/// A place in the groups of one host entity, which may come and go meanwhile.
struct GroupPlace {
    explicit GroupPlace(Igmp::IgmpHost const& host) : groups(host.v3group()), at(groups.begin()) {}
    decltype(std::declval<Igmp::IgmpHost const&>().v3group()) groups;
    decltype(groups.begin()) at;
};

/// Which groups to show.
struct GroupFilter {
    std::string interface;          ///< empty for all
    std::string vrf;                ///< empty for all
    std::string origin;             ///< empty for all, or one of originNames
    Lox::IpAddrWithFullMask groups; ///< mask 0 for all

    /// From the parameters "interface", "vrf", "origin" and "groups". Throws an RpcError.
    static GroupFilter fromJson(nlohmann::json const& params);
};

inline constexpr std::array originNames{"configuration", "list", "route"};

/// Which of these want the group on that interface.
std::array<bool, originNames.size()> originsOf(AgentView const& view, std::string const& interface,
                                               Lox::IpAddr group);

/// In whose name a configuration has a group there: "configuration", "list NAME", or, where neither
/// asks for it, "route".
std::string originText(Configuration const& configuration, std::string const& interface,
                       Lox::IpAddr group);

/// Whether the group is there for nothing but the forwarding table.
bool isRouteOnly(AgentView const& view, std::string const& interface, Lox::IpAddr group);

/// One group after the other, those of an interface in the order in which they came. `view`
/// outlives the answer.
std::unique_ptr<JsonElements> groupsAnswer(AgentView const& view, GroupFilter filter);

} // namespace Agent
