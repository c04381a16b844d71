// One permit rule over a range of groups, applied and taken back; and lists of many rules.
#pragma once

#include "Floor.h"
#include "Harness.h"
#include "IgmpHostProxy/AddressRangeIterator.h"
#include "support/InProcessPlatform.h"

#include <initializer_list>

namespace Bench {

/// What the library writes to the trace ring for a group that comes, and for one that goes.
inline constexpr unsigned linesOfComing = 17;
inline constexpr unsigned linesOfGoing = 10;

inline std::uint32_t maskOf(std::uint32_t groups) { return ~(groups - 1); }

struct ListWorld {
    ListWorld() {
        platform.start();
        platform.tables();
        auto const config = platform.config->intfConfigIs(Lox::IntfId("up0"));
        config->aclListIs("iptv");
        platform.usableIntf("up0", 2);
        rules = Acl::AclSubConfig::AclSubConfigIs("iptv");
        platform.aclConfig->aclIs("iptv")->currCfgIs(rules);
    }
    void add(std::uint32_t groups) {
        Lox::IpAddrWithFullMask const from(Lox::IpAddr::fromHost(firstSource), ~std::uint32_t(0));
        Lox::IpAddrWithFullMask const to(Lox::IpAddr::fromHost(firstGroup), maskOf(groups));
        rules->ipRuleByIdIs(Acl::UniqueId(1), {Acl::Action::permit, {from, to}});
        rules->ruleBySequenceIs(1, Acl::UniqueId(1));
    }
    void takeBack() { rules->ruleBySequenceDel(1); }
    std::size_t announced() const { return platform.host("up0")->v3groupCount(); }

    Support::InProcessPlatform platform;
    Nex::Ptr<Acl::AclSubConfig> rules;
};

struct ListFloor {
    void add(std::uint32_t groups) {
        Lumen::Ring::Callback const mark(Lumen::ring);
        IgmpHostProxy::AddressRangeIterator at(firstGroup, maskOf(groups));
        for (; !at.done(); ++at) {
            std::uint32_t const group = (*at).host();
            interface.list[group].include.add(firstSource);
            interface.counts[group] = {firstSource, 1};
            interface.announce(firstSource, group);
            FloorInterface::trace(linesOfComing, firstSource, group);
        }
        size = groups;
    }
    void takeBack() {
        Lumen::Ring::Callback const mark(Lumen::ring);
        IgmpHostProxy::AddressRangeIterator at(firstGroup, maskOf(size));
        for (; !at.done(); ++at) {
            std::uint32_t const group = (*at).host();
            interface.list.find(group)->include.del(firstSource);
            if (--interface.counts[group].count == 0) interface.counts.erase(group);
            interface.withdraw(firstSource, group);
            FloorInterface::trace(linesOfGoing, firstSource, group);
        }
    }
    std::size_t announced() const { return interface.host.size(); }

    FloorInterface interface;
    std::uint32_t size = 0;
};

template <class World>
struct PermitRule {
    explicit PermitRule(std::uint32_t count) : groups(count) {}
    void run() { world.add(groups); }
    bool done() const { return world.announced() == groups; }

    World world;
    std::uint32_t groups;
};
template <class World>
struct RuleTakenBack {
    explicit RuleTakenBack(std::uint32_t groups) { world.add(groups); }
    void run() { world.takeBack(); }
    bool done() const { return world.announced() == 0; }

    World world;
};

/// Lists "iptv" and "news", with the same rules of one group each.
struct RulesWorld {
    RulesWorld(std::uint32_t count, std::initializer_list<char const*> attached) : rules(count) {
        platform.start();
        platform.tables();
        config = platform.config->intfConfigIs(Lox::IntfId("up0"));
        platform.usableIntf("up0", 2);
        for (auto const* const name : {"iptv", "news"}) {
            auto const version = Acl::AclSubConfig::AclSubConfigIs(name);
            Lox::IpAddrWithFullMask const from(Lox::IpAddr::fromHost(firstSource),
                                               ~std::uint32_t(0));
            for (std::uint32_t rule = 0; rule < rules; ++rule) {
                Lox::IpAddr const group = Lox::IpAddr::fromHost(firstGroup + rule);
                Lox::IpAddrWithFullMask const to(group, ~std::uint32_t(0));
                version->ipRuleByIdIs(Acl::UniqueId(rule), {Acl::Action::permit, {from, to}});
                version->ruleBySequenceIs(rule, Acl::UniqueId(rule));
            }
            platform.aclConfig->aclIs(name)->currCfgIs(version);
        }
        for (auto const* const name : attached) config->aclListIs(name);
        if (announced() != rules) fail("rules without effect");
    }
    std::size_t announced() const { return platform.host("up0")->v3groupCount(); }

    Support::InProcessPlatform platform;
    Nex::Ptr<IgmpHostProxy::IntfConfig> config;
    std::uint32_t rules;
};

/// A version without rules takes the place of one that has so many.
struct RulesWithdrawn : RulesWorld {
    explicit RulesWithdrawn(std::uint32_t count) : RulesWorld(count, {"iptv"}) {}
    void run() {
        platform.aclConfig->acl("iptv")->currCfgIs(Acl::AclSubConfig::AclSubConfigIs("iptv"));
    }
    bool done() const { return announced() == 0; }
};
struct OneOfTwoListsDetached : RulesWorld {
    explicit OneOfTwoListsDetached(std::uint32_t count) : RulesWorld(count, {"iptv", "news"}) {}
    void run() { config->aclListDel("iptv"); }
    bool done() const { return announced() == rules; }
};

/// Over a mask with holes: four free bits in each octet but the first.
struct RangeSteps {
    explicit RangeSteps(std::uint32_t count) : steps(count) {}
    void run() {
        IgmpHostProxy::AddressRangeIterator at(firstGroup, 0xFFF0F0F0);
        for (std::uint32_t step = 0; step < steps; ++step, ++at) last = (*at).host();
    }
    bool done() const { return last >> 24 == firstGroup >> 24; }

    std::uint32_t steps;
    std::uint32_t volatile last = 0;
};

} // namespace Bench
