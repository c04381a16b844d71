// What the tests of access lists and forwarding tables share: ways to write lists and routes, and
// to look at what an interface announces.
#pragma once

#include "Library.h"

namespace IgmpHostProxy {

inline constexpr std::uint32_t oneAddress = ~std::uint32_t(0);

/// A rule whose source is one address, or any.
inline Acl::IpRuleConfig rule(Acl::Action action, Lox::IpAddr source, Lox::IpAddr destination,
                              std::uint32_t destinationMask = oneAddress) {
    std::uint32_t const sourceMask = source == anySource ? 0 : oneAddress;
    return {action, {{source, sourceMask}, {destination, destinationMask}}};
}
inline Acl::IpRuleConfig permit(Lox::IpAddr source, Lox::IpAddr destination,
                                std::uint32_t destinationMask = oneAddress) {
    return rule(Acl::Action::permit, source, destination, destinationMask);
}
inline Acl::IpRuleConfig deny(Lox::IpAddr source, Lox::IpAddr destination,
                              std::uint32_t destinationMask = oneAddress) {
    return rule(Acl::Action::deny, source, destination, destinationMask);
}
inline Acl::IpRuleConfig const denyAll = deny(anySource, Lox::IpAddr(), 0);

/// The sources of a group in ascending order: "include S T exclude U", or "absent".
inline std::string sourcesOf(GroupSource const* groupSource) {
    if (!groupSource) return "absent";
    std::string text = "include";
    for (auto const source : Nex::sortedKeys(groupSource->includeSourceList()))
        text += " " + source.stringValue();
    text += " exclude";
    for (auto const source : Nex::sortedKeys(groupSource->excludeSourceList()))
        text += " " + source.stringValue();
    return text;
}

/// Interface up0 with the means to write access lists and routes. Nothing is reviewed but when a
/// test moves the time on or calls for it.
class Producers : public OneInterface {
  protected:
    using Table = Kesh::Multicast::Fib::Status;
    using RouteKey = Routing::Multicast::Fib::IpGenRouteKey;
    using Route = Kesh::Multicast::Fib::Route;

    // Access lists

    /// The rules in force of a list; makes both when there are none.
    Nex::Ptr<Acl::AclSubConfig> rulesOf(Nex::Name const& list) {
        Nex::Ptr<Acl::AclConfig> const config = world.aclConfig->aclIs(list);
        if (!config->currCfg()) config->currCfgIs(Acl::AclSubConfig::AclSubConfigIs(list));
        return config->currCfg();
    }
    /// A rule's sequence number is the number of its id, unless it is given.
    void ruleIs(Nex::Name const& list, std::uint32_t id, Acl::IpRuleConfig const& rule,
                std::uint32_t sequence = 0) {
        auto const rules = rulesOf(list);
        rules->ipRuleByIdIs(Acl::UniqueId(id), rule);
        rules->ruleBySequenceIs(sequence == 0 ? id : sequence, Acl::UniqueId(id));
    }
    void ruleDel(Nex::Name const& list, std::uint32_t id, std::uint32_t sequence = 0) {
        auto const rules = rulesOf(list);
        rules->ruleBySequenceDel(sequence == 0 ? id : sequence);
        rules->ipRuleByIdDel(Acl::UniqueId(id));
    }
    IgmpHostProxyAclHelper* helper(Nex::Name const& list = "iptv") {
        return machine().igmpHostProxyAclHelper(list);
    }
    std::size_t cachedRules(Nex::Name const& list = "iptv") {
        return helper(list)->cachedRules().size();
    }

    // Forwarding tables

    Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl> tables() {
        return world.mfibDir->keshCollIs(L3::VrfName("default"));
    }
    Nex::Ptr<Table> newTable(Nex::Name const& name = "table") {
        auto const table = Table::StatusIs(name);
        tables()->keshPtrIs(table.get(), table);
        return table;
    }
    static RouteKey routeKey(Lox::IpAddr source, Lox::IpAddr group) {
        std::uint8_t const length = source == anySource ? 0 : 32;
        return {{source, length}, {group, 32}};
    }
    static void routeIs(Table& table, Lox::IpAddr source, Lox::IpAddr group,
                        std::uint32_t stamp = 0) {
        table.routeIs(routeKey(source, group), Route{true, stamp});
    }
    static void routeDel(Table& table, Lox::IpAddr source, Lox::IpAddr group) {
        table.routeDel(routeKey(source, group));
    }
    /// Lets all reviews that are asked for run.
    void settle() { world.pass(1); }

    // What comes of it

    std::string announced(Lox::IpAddr group = groupG) {
        return sourcesOf(status->groupSourceList(group));
    }
    std::uint32_t count(Lox::IpAddr source, Lox::IpAddr group = groupG) {
        return machine().groupSourceRefCounter({source, group});
    }
};

} // namespace IgmpHostProxy
