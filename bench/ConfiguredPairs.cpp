// Configured (source, group) pairs on their way from the configuration to the host's records,
// beside a hand-coded floor that does the same updates without a framework.
#include "Measure.h"
#include "support/InProcessPlatform.h"

#include <cstdint>
#include <memory>
#include <random>

namespace {

constexpr std::uint32_t firstGroup = 0xEF000000; // 239.0.0.0

struct World {
    World() {
        platform.start();
        platform.tables();
        intfConfig = platform.config->intfConfigIs(Lox::IntfId("up0"));
        platform.usableIntf("up0", 2);
    }
    void add(std::uint32_t group, std::uint32_t source) {
        intfConfig->groupSourceListIs(Lox::IpAddr::fromHost(group))
            ->includeSourceListIs(Lox::IpAddr::fromHost(source));
    }
    Support::InProcessPlatform platform;
    Nex::Ptr<IgmpHostProxy::IntfConfig> intfConfig;
};

void configuredPairs(benchmark::State& state) {
    auto const groups = std::uint32_t(state.range(0));
    auto const sources = std::uint32_t(state.range(1));
    Bench::perItem(
        state, groups * sources, [] { return std::make_unique<World>(); },
        [&](World& world) {
            for (std::uint32_t g = 0; g < groups; ++g)
                for (std::uint32_t s = 0; s < sources; ++s)
                    world.add(firstGroup + g, 0x0A000001 + s);
            if (world.platform.host("up0")->v3groupCount() != groups) std::abort();
        });
}
BENCHMARK(configuredPairs)
    ->Args({65536, 1})
    ->Args({1048576, 1})
    ->Args({16384, 4})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void oneMoreSource(benchmark::State& state) {
    World world;
    for (std::uint32_t g = 0; g < 65536; ++g) world.add(firstGroup + g, 0x0A000001);
    std::mt19937 random(1);
    std::uint32_t source = 0x0A000002;
    for (auto unused : state) world.add(firstGroup + random() % 65536, source++);
}
BENCHMARK(oneMoreSource)->Iterations(65536);

} // namespace
