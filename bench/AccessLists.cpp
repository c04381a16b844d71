// One permit rule over a range of groups, applied and taken back; and lists of many rules.
#include "Floor.h"
#include "IgmpHostProxy/AddressRangeIterator.h"
#include "Measure.h"
#include "support/InProcessPlatform.h"

#include <bit>
#include <cstdlib>
#include <memory>

namespace {

using Bench::firstGroup;
using Bench::firstSource;

/// What the library writes to the trace ring for a group that comes, and for one that goes.
constexpr unsigned linesOfComing = 17;
constexpr unsigned linesOfGoing = 9;

std::uint32_t maskOf(std::uint32_t groups) { return ~(groups - 1); }

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
            Bench::FloorInterface::trace(linesOfComing, firstSource, group);
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
            Bench::FloorInterface::trace(linesOfGoing, firstSource, group);
        }
    }
    std::size_t announced() const { return interface.host.size(); }

    Bench::FloorInterface interface;
    std::uint32_t size = 0;
};

void expect(bool condition) {
    if (!condition) std::abort();
}

template <class World>
void permitRule(benchmark::State& state) {
    auto const groups = std::uint32_t(state.range(0));
    std::uint64_t lines = 0;
    Bench::perItem(
        state, groups, [] { return std::make_unique<World>(); },
        [&](World& world) {
            std::uint64_t const before = Lumen::ring.written();
            world.add(groups);
            lines = Lumen::ring.written() - before;
            expect(world.announced() == groups);
        });
    state.counters["lines/item"] = double(lines) / groups;
}

template <class World>
void ruleTakenBack(benchmark::State& state) {
    auto const groups = std::uint32_t(state.range(0));
    std::uint64_t lines = 0;
    Bench::perItem(
        state, groups,
        [&] {
            auto world = std::make_unique<World>();
            world->add(groups);
            return world;
        },
        [&](World& world) {
            std::uint64_t const before = Lumen::ring.written();
            world.takeBack();
            lines = Lumen::ring.written() - before;
            expect(world.announced() == 0);
        });
    state.counters["lines/item"] = double(lines) / groups;
}

BENCHMARK(permitRule<ListFloor>)
    ->Arg(65536)
    ->Arg(1048576)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(permitRule<ListWorld>)
    ->Arg(65536)
    ->Arg(1048576)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(ruleTakenBack<ListFloor>)
    ->Arg(65536)
    ->Arg(1048576)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(ruleTakenBack<ListWorld>)
    ->Arg(65536)
    ->Arg(1048576)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

/// Lists "iptv" and "news", with the same rules of one group each.
struct RulesWorld {
    explicit RulesWorld(std::uint32_t rules) {
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
    }
    std::size_t announced() const { return platform.host("up0")->v3groupCount(); }

    Support::InProcessPlatform platform;
    Nex::Ptr<IgmpHostProxy::IntfConfig> config;
};

void rulesWithdrawn(benchmark::State& state) {
    auto const rules = std::uint32_t(state.range(0));
    Bench::perItem(
        state, rules,
        [&] {
            auto world = std::make_unique<RulesWorld>(rules);
            world->config->aclListIs("iptv");
            return world;
        },
        [&](RulesWorld& world) {
            expect(world.announced() == rules);
            auto const none = Acl::AclSubConfig::AclSubConfigIs("iptv");
            world.platform.aclConfig->acl("iptv")->currCfgIs(none);
            expect(world.announced() == 0);
        });
}
void oneOfTwoListsDetached(benchmark::State& state) {
    auto const rules = std::uint32_t(state.range(0));
    Bench::perItem(
        state, rules,
        [&] {
            auto world = std::make_unique<RulesWorld>(rules);
            for (auto const* const name : {"iptv", "news"}) world->config->aclListIs(name);
            return world;
        },
        [&](RulesWorld& world) {
            world.config->aclListDel("iptv");
            expect(world.announced() == rules);
        });
}
// The same for each rule, however many there are.
BENCHMARK(rulesWithdrawn)->Arg(10000)->Arg(20000)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(oneOfTwoListsDetached)
    ->Arg(10000)
    ->Arg(20000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void rangeIterator(benchmark::State& state) {
    // With holes: four free bits in each octet but the first.
    IgmpHostProxy::AddressRangeIterator at(firstGroup, 0xFFF0F0F0);
    for (auto unused : state) {
        benchmark::DoNotOptimize((*at).host());
        ++at;
    }
}
BENCHMARK(rangeIterator);

} // namespace
