// Routes of a forwarding table on their way to the host's records, by full syncs in slices and by
// notifications.
#pragma once

#include "Floor.h"
#include "Harness.h"
#include "support/InProcessPlatform.h"

#include <random>

namespace Bench {

using Kesh::Multicast::Fib::Route;
using Routing::Multicast::Fib::IpGenRouteKey;
using Table = Kesh::Multicast::Fib::Status;

/// What the library writes to the trace ring for a route that is new, and for one that is not.
inline constexpr unsigned linesOfNew = 14;
inline constexpr unsigned linesOfKnown = 5;

inline IpGenRouteKey routeKey(std::uint32_t group) {
    return {{Lox::IpAddr::fromHost(firstSource), 32}, {Lox::IpAddr::fromHost(group), 32}};
}

struct TableOf {
    explicit TableOf(std::uint32_t count) : routes(count) { touchAll(0); }
    void touch(std::uint32_t at, std::uint32_t stamp) {
        table->routeIs(routeKey(firstGroup + at), Route{true, stamp});
    }
    void touchAll(std::uint32_t stamp) {
        for (std::uint32_t at = 0; at < routes; ++at) touch(at, stamp);
    }

    Nex::Ptr<Table> table = Table::StatusIs("table");
    std::uint32_t routes;
};

/// An interface with a table that nobody has reviewed yet.
struct RouteWorld : TableOf {
    explicit RouteWorld(std::uint32_t count) : TableOf(count) {
        platform.start();
        platform.tables();
        platform.config->intfConfigIs(Lox::IntfId("up0"));
        platform.usableIntf("up0", 2);
        platform.mfibDir->keshColl(L3::VrfName("default"))->keshPtrIs(table.get(), table);
    }
    IgmpHostProxy::IgmpHostProxyIntfSm& machine() {
        return *platform.root->igmpHostProxyIntfSm(Lox::IntfId("up0"));
    }
    /// By the review timer, which nobody waits for: all lines of a slice have one time stamp.
    void review() { platform.clock->timeIs(platform.clock->nextExpiry()); }
    void syncAll() {
        machine().handleDenyMroute();
        while (machine().syncAllRoutes()) review();
    }
    std::size_t announced() const { return platform.host("up0")->v3groupCount(); }

    Support::InProcessPlatform platform;
};

/// The same by hand: the routes in a sorted array, and a set to find one by its key.
struct RouteFloor {
    explicit RouteFloor(std::uint32_t count) : routes(count) {
        for (std::uint32_t group = firstGroup; group < firstGroup + routes; ++group) {
            sorted.push_back(group);
            present[group].add(firstSource);
        }
    }
    void syncAll() {
        Lumen::Ring::Callback const mark(Lumen::ring);
        double deadline = 0;
        for (std::uint32_t const group : sorted) {
            sync(group);
            double const now = Nex::System::currentTime();
            if (now >= deadline) deadline = now + 0.1; // the next slice
        }
    }
    void sync(std::uint32_t group) {
        SourceList const* const sources = present.find(group);
        bool const isNew = !interface.status.find(group);
        FloorInterface::trace(isNew ? linesOfNew : linesOfKnown, firstSource, group);
        if (!sources || !sources->has(firstSource) || interface.configured.find(group) ||
            interface.list.find(group) || interface.deleted.find(group) || sources->has(0))
            return;
        interface.announce(firstSource, group);
    }
    std::size_t announced() const { return interface.host.size(); }

    std::vector<std::uint32_t> sorted;
    FlatMap<SourceList> present;
    FloorInterface interface;
    std::uint32_t routes;
};

/// A full sync, the clock read after each route; the routes are new, or known from an earlier one.
template <class World, bool known>
struct FullSync {
    explicit FullSync(std::uint32_t routes) : world(routes) {
        if (known) world.syncAll();
    }
    void run() { world.syncAll(); }
    bool done() const { return world.announced() == world.routes; }

    World world;
};

/// Notifications of changed routes at random, all of them recorded for a review already. With a
/// table alone the world is the floor: the table's own update.
template <class World>
struct Notifications {
    explicit Notifications(std::uint32_t routes) : world(routes) { world.touchAll(++stamp); }
    void run() {
        std::minstd_rand random(1);
        for (std::uint32_t at = 0; at < world.routes; ++at)
            world.touch(std::uint32_t(random()) % world.routes, ++stamp);
    }
    bool done() const { return stamp == world.routes + 1; }

    World world;
    std::uint32_t stamp = 0;
};

/// What one changed route costs from its notification to the end of its review, with a full table.
struct ChangedRoutes {
    explicit ChangedRoutes(std::uint32_t routes) : world(routes) {
        world.syncAll();
        world.touchAll(++stamp); // once many have changed at one time
        while (!world.machine().changedRoute().empty()) world.review();
    }
    void run() {
        std::minstd_rand random(1);
        for (std::uint32_t at = 0; at < world.routes; ++at) {
            world.touch(std::uint32_t(random()) % world.routes, ++stamp);
            world.review();
        }
    }
    bool done() { return world.machine().changedRoute().empty(); }

    RouteWorld world;
    std::uint32_t stamp = 0;
};

} // namespace Bench
