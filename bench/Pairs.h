// Configured (source, group) pairs on their way from the configuration to the host's records,
// beside a floor that does the same updates by hand.
#pragma once

#include "Floor.h"
#include "Harness.h"
#include "IgmpHostProxy/GroupSourceRefCounter.h"
#include "support/InProcessPlatform.h"

#include <cstdint>
#include <random>

namespace Bench {

/// What the library writes to the trace ring for a pair that begins a group, and for another one.
inline constexpr unsigned linesOfFirst = 21;
inline constexpr unsigned linesOfMore = 9;

struct PairWorld {
    PairWorld() {
        platform.start();
        platform.tables();
        intfConfig = platform.config->intfConfigIs(Lox::IntfId("up0"));
        platform.usableIntf("up0", 2);
    }
    void add(std::uint32_t source, std::uint32_t group) {
        intfConfig->groupSourceListIs(Lox::IpAddr::fromHost(group))
            ->includeSourceListIs(Lox::IpAddr::fromHost(source));
    }
    std::size_t announced() const { return platform.host("up0")->v3groupCount(); }

    Support::InProcessPlatform platform;
    Nex::Ptr<IgmpHostProxy::IntfConfig> intfConfig;
};

template <std::size_t sourcesPerGroup>
struct PairFloor {
    void add(std::uint32_t source, std::uint32_t group) {
        Lumen::Ring::Callback const mark(Lumen::ring);
        auto& configured = interface.configured[group].include;
        interface.trace(configured.count == 0 ? linesOfFirst : linesOfMore, source, group);
        configured.add(source);
        CountedPair& counted = interface.counts[group];
        counted = {source, counted.count + 1};
        interface.announce(source, group);
    }
    std::size_t announced() const { return interface.host.size(); }

    BoundedFloorInterface<sourcesPerGroup> interface;
};

/// New pairs, so many sources for each group, group by group.
template <class World, std::uint32_t sources>
struct NewPairs {
    explicit NewPairs(std::uint32_t pairs) : groups(pairs / sources) {}
    void run() {
        for (std::uint32_t group = 0; group < groups; ++group)
            for (std::uint32_t source = 0; source < sources; ++source)
                world.add(firstSource + source, firstGroup + group);
    }
    bool done() const { return world.announced() == groups; }

    World world;
    std::uint32_t groups;
};

/// One more source for a random one of so many groups, as often.
template <class World>
struct MoreSources {
    explicit MoreSources(std::uint32_t count) : groups(count) {
        for (std::uint32_t group = 0; group < groups; ++group)
            world.add(firstSource, firstGroup + group);
    }
    void run() {
        std::minstd_rand random(1);
        for (std::uint32_t at = 1; at <= groups; ++at)
            world.add(firstSource + at, firstGroup + std::uint32_t(random()) % groups);
    }
    bool done() const { return world.announced() == groups; }

    World world;
    std::uint32_t groups;
};

/// Whether any pair of a group is counted, every other group having one.
struct AnyPairHasGroup {
    explicit AnyPairHasGroup(std::uint32_t count) : pairs(count) {
        for (std::uint32_t at = 0; at < pairs; ++at) counter.is({source, group(2 * at)}, 1);
    }
    static Lox::IpAddr group(std::uint32_t at) { return Lox::IpAddr::fromHost(firstGroup + at); }
    void run() {
        std::minstd_rand random(1);
        for (std::uint32_t at = 0; at < pairs; ++at) {
            std::uint32_t const asked = std::uint32_t(random()) % (2 * pairs);
            right += counter.groupHas(group(asked)) == (asked % 2 == 0);
        }
    }
    bool done() const { return right == pairs; }

    static constexpr Lox::IpAddr source = Lox::IpAddr::fromHost(firstSource);
    IgmpHostProxy::GroupSourceRefCounter counter;
    std::uint32_t pairs;
    std::uint32_t right = 0;
};

/// Ring records of two values, with the time stamp of the callback around them or with their own.
template <bool callbacksStamp>
struct RingRecords {
    explicit RingRecords(std::uint32_t count) : records(count) {}
    void run() {
        if constexpr (callbacksStamp) {
            Lumen::Ring::Callback const mark(Lumen::ring);
            FloorInterface::trace(records, firstSource, firstGroup);
        } else {
            FloorInterface::trace(records, firstSource, firstGroup);
        }
    }
    bool done() const { return true; }

    std::uint32_t records;
};

} // namespace Bench
