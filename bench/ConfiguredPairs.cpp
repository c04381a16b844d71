// Configured (source, group) pairs on their way from the configuration to the host's records,
// beside a floor that does the same updates by hand; and the small operations that count there.
#include "Floor.h"
#include "IgmpHostProxy/GroupSourceRefCounter.h"
#include "Measure.h"
#include "support/InProcessPlatform.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>

namespace {

using Bench::firstGroup;
using Bench::firstSource;

/// What the library writes to the trace ring for a pair that begins a group, and for another one.
constexpr unsigned linesOfFirst = 21;
constexpr unsigned linesOfMore = 9;

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
        Bench::CountedPair& counted = interface.counts[group];
        counted = {source, counted.count + 1};
        interface.announce(source, group);
    }
    std::size_t announced() const { return interface.host.size(); }

    Bench::BoundedFloorInterface<sourcesPerGroup> interface;
};

template <class World>
void configuredPairs(benchmark::State& state) {
    auto const groups = std::uint32_t(state.range(0));
    auto const sources = std::uint32_t(state.range(1));
    std::uint64_t lines = 0;
    Bench::perItem(
        state, groups * sources, [] { return std::make_unique<World>(); },
        [&](World& world) {
            std::uint64_t const before = Lumen::ring.written();
            for (std::uint32_t g = 0; g < groups; ++g)
                for (std::uint32_t s = 0; s < sources; ++s)
                    world.add(firstSource + s, firstGroup + g);
            lines = Lumen::ring.written() - before;
            if (world.announced() != groups) std::abort();
        });
    state.counters["lines/item"] = double(lines) / groups / sources;
}
BENCHMARK(configuredPairs<PairFloor<1>>)
    ->Name("configuredPairs<floor>")
    ->Args({65536, 1})
    ->Args({1048576, 1})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(configuredPairs<PairFloor<4>>)
    ->Name("configuredPairs<floor>")
    ->Args({16384, 4})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(configuredPairs<PairWorld>)
    ->Name("configuredPairs")
    ->Args({65536, 1})
    ->Args({1048576, 1})
    ->Args({16384, 4})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

template <class World>
void oneMoreSource(benchmark::State& state) {
    World world;
    for (std::uint32_t g = 0; g < 65536; ++g) world.add(firstSource, firstGroup + g);
    std::minstd_rand random(1);
    std::uint32_t source = firstSource;
    for (auto unused : state) world.add(++source, firstGroup + std::uint32_t(random()) % 65536);
}
BENCHMARK(oneMoreSource<PairFloor<16>>)->Name("oneMoreSource<floor>")->Iterations(65536);
BENCHMARK(oneMoreSource<PairWorld>)->Name("oneMoreSource")->Iterations(65536);

/// Whether any pair of a group is counted, out of 65,536 pairs.
void anyPairHasGroup(benchmark::State& state) {
    IgmpHostProxy::GroupSourceRefCounter counter;
    auto const group = [](std::uint32_t g) { return Lox::IpAddr::fromHost(firstGroup + g); };
    for (std::uint32_t g = 0; g < 65536; ++g)
        counter.is({Lox::IpAddr::fromHost(firstSource), group(g)}, 1);
    std::minstd_rand random(1);
    for (auto unused : state)
        benchmark::DoNotOptimize(counter.groupHas(group(std::uint32_t(random()) % 131072)));
}
BENCHMARK(anyPairHasGroup);

/// One record of two values, with the time stamp of the callback around it or with one of its own.
void ringRecord(benchmark::State& state) {
    for (auto unused : state) {
        if (state.range(0) == 0) {
            Bench::FloorInterface::trace(1000, firstSource, firstGroup);
        } else {
            Lumen::Ring::Callback const mark(Lumen::ring);
            Bench::FloorInterface::trace(1000, firstSource, firstGroup);
        }
    }
    state.SetItemsProcessed(state.iterations() * 1000);
    state.counters["ns/record"] =
        benchmark::Counter(double(state.iterations()) * 1000 / 1e9,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(ringRecord)->ArgName("callback's stamp")->Arg(1)->Arg(0);

} // namespace
