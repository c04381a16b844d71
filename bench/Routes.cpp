// Routes of a forwarding table on their way to the host's records, by full syncs in slices and by
// notifications.
#include "Floor.h"
#include "Measure.h"
#include "support/InProcessPlatform.h"

#include <algorithm>
#include <cstdlib>
#include <malloc.h>
#include <memory>
#include <random>

namespace {

using Bench::firstGroup;
using Bench::firstSource;
using Kesh::Multicast::Fib::Route;
using Routing::Multicast::Fib::IpGenRouteKey;
using Table = Kesh::Multicast::Fib::Status;

/// What the library writes to the trace ring for a route that is new, and for one that is not.
constexpr unsigned linesOfNew = 13;
constexpr unsigned linesOfKnown = 5;

IpGenRouteKey routeKey(std::uint32_t group) {
    return {{Lox::IpAddr::fromHost(firstSource), 32}, {Lox::IpAddr::fromHost(group), 32}};
}

/// An interface with a table that nobody has reviewed yet.
struct RouteWorld {
    explicit RouteWorld(std::uint32_t routes) {
        for (std::uint32_t g = 0; g < routes; ++g)
            table->routeIs(routeKey(firstGroup + g), Route{true});
        platform.start();
        platform.tables();
        platform.config->intfConfigIs(Lox::IntfId("up0"));
        platform.usableIntf("up0", 2);
        platform.mfibDir->keshColl(L3::VrfName("default"))->keshPtrIs(table.get(), table);
    }
    IgmpHostProxy::IgmpHostProxyIntfSm& machine() {
        return *platform.root->igmpHostProxyIntfSm(Lox::IntfId("up0"));
    }
    void wantSync() { machine().handleDenyMroute(); }
    bool done() { return !machine().syncAllRoutes(); }
    void slice() { machine().doReview(); }
    std::size_t announced() const { return platform.host("up0")->v3groupCount(); }

    Support::InProcessPlatform platform;
    Nex::Ptr<Table> table = Table::StatusIs("table");
};

/// The same by hand: the routes in a sorted array, and a set to find one by its key.
struct RouteFloor {
    explicit RouteFloor(std::uint32_t routes) {
        for (std::uint32_t g = 0; g < routes; ++g) {
            sorted.push_back(firstGroup + g);
            present[firstGroup + g].add(firstSource);
        }
    }
    void wantSync() { at = 0; }
    bool done() const { return at == sorted.size(); }
    void slice() {
        Lumen::Ring::Callback const mark(Lumen::ring);
        double const deadline = Nex::System::currentTime() + 0.1;
        while (!done()) {
            sync(sorted[at++]);
            if (Nex::System::currentTime() >= deadline) return;
        }
    }
    void sync(std::uint32_t group) {
        Bench::SourceList const* const sources = present.find(group);
        bool const fresh = !interface.status.find(group);
        Bench::FloorInterface::trace(fresh ? linesOfNew : linesOfKnown, firstSource, group);
        if (!sources || !sources->has(firstSource) || interface.configured.find(group) ||
            interface.list.find(group) || interface.deleted.find(group) || sources->has(0))
            return;
        interface.announce(firstSource, group);
    }
    std::size_t announced() const { return interface.host.size(); }

    std::vector<std::uint32_t> sorted;
    Bench::FlatMap<Bench::SourceList> present;
    Bench::FloorInterface interface;
    std::size_t at = 0;
};

/// Times each callback of a full sync.
template <class World>
struct Sync {
    World world;
    double longest = 0; ///< seconds
    std::uint64_t lines = 0;

    explicit Sync(std::uint32_t routes) : world(routes) {}
    void run() {
        std::uint64_t const before = Lumen::ring.written();
        world.wantSync();
        while (!world.done()) {
            double const start = Nex::System::currentTime();
            world.slice();
            longest = std::max(longest, Nex::System::currentTime() - start);
        }
        lines = Lumen::ring.written() - before;
    }
};

template <class World, bool known>
void fullSync(benchmark::State& state) {
    auto const routes = std::uint32_t(state.range(0));
    double longest = 0;
    std::uint64_t lines = 0;
    Bench::perItem(
        state, routes,
        [&] {
            auto sync = std::make_unique<Sync<World>>(routes);
            if (known) sync->run();
            sync->longest = 0;
            return sync;
        },
        [&](Sync<World>& sync) {
            sync.run();
            longest = std::max(longest, sync.longest);
            lines = sync.lines;
            if (sync.world.announced() != routes) std::abort();
        });
    state.counters["longest ms"] = longest * 1e3;
    state.counters["lines/item"] = double(lines) / routes;
}
BENCHMARK(fullSync<RouteFloor, false>)
    ->Name("newRoutes<floor>")
    ->Arg(65536)
    ->Arg(1048576)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(fullSync<RouteWorld, false>)
    ->Name("newRoutes")
    ->Arg(65536)
    ->Arg(1048576)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(fullSync<RouteFloor, true>)
    ->Name("unchangedRoutes<floor>")
    ->Arg(65536)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(fullSync<RouteWorld, true>)
    ->Name("unchangedRoutes")
    ->Arg(65536)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

/// Notifications of changed routes, either of routes that are recorded for a review already, or
/// all drained by one after every 4096. The table's own update is included.
void routeNotification(benchmark::State& state) {
    constexpr std::uint32_t routes = 65536;
    bool const recorded = state.range(0) != 0;
    RouteWorld world(routes);
    std::minstd_rand random(1);
    std::uint32_t stamp = 0;
    auto const touch = [&](std::uint32_t g) {
        world.table->routeIs(routeKey(firstGroup + g), Route{true, ++stamp});
    };
    for (std::uint32_t g = 0; recorded && g < routes; ++g) touch(g);
    std::size_t const before = mallinfo2().uordblks;
    std::uint32_t count = 0;
    for (auto unused : state) {
        touch(std::uint32_t(random()) % routes);
        if (recorded || ++count % 4096 != 0) continue;
        state.PauseTiming();
        world.machine().doReview();
        state.ResumeTiming();
    }
    state.counters["grown B"] = double(mallinfo2().uordblks) - double(before);
}
BENCHMARK(routeNotification)->ArgName("recorded")->Arg(1)->Arg(0);

/// What one changed route costs from its notification to the end of its review, with a full table.
void oneChangedRoute(benchmark::State& state) {
    auto const routes = std::uint32_t(state.range(0));
    RouteWorld world(routes);
    for (world.wantSync(); !world.done();) world.slice();
    // Once many have changed at one time.
    for (std::uint32_t g = 0; g < routes; ++g)
        world.table->routeIs(routeKey(firstGroup + g), Route{true, 1});
    while (!world.machine().changedRoute().empty()) world.slice();
    std::minstd_rand random(1);
    std::uint32_t stamp = 1;
    for (auto unused : state) {
        world.table->routeIs(routeKey(firstGroup + std::uint32_t(random()) % routes),
                             Route{true, ++stamp});
        world.slice();
    }
}
BENCHMARK(oneChangedRoute)->Arg(1024)->Arg(65536)->Arg(1048576);

} // namespace
