// The forwarding table's groups: what a route announces, and how reviews get round to it.
#include "Producers.h"

namespace IgmpHostProxy {
namespace {

Lox::IpAddr group(unsigned number) { return Lox::IpAddr::fromHost(0xEF010100 + number); }

class Review : public Producers {
  protected:
    /// Starts with nothing left to review.
    Review() { settle(); }

    static std::string nameOf(Table const* table) {
        return Nex::textOf(static_cast<void const*>(table));
    }
    /// The routes that the traces since the last call show as walked by full syncs, in order.
    Lines walked() {
        Lines keys;
        for (auto const& line : trace.take())
            if (line.starts_with("3 Syncing "))
                keys.push_back(line.substr(10, line.find(" from ") - 10));
        return keys;
    }
    static Lines keysOf(std::initializer_list<unsigned> groups) {
        Lines keys;
        for (unsigned const g : groups) keys.push_back(Nex::textOf(routeKey(sourceS, group(g))));
        return keys;
    }
    void wantFullSync() {
        machine().handleDenyMroute();
        trace.take();
    }

    TraceLog trace{3};
};

TEST_F(Review, TheLinesOfASlicedSync) {
    auto const table = newTable();
    for (unsigned const g : {1u, 2u}) routeIs(*table, sourceS, group(g));
    settle();
    wantFullSync();
    machine().reviewQuantumIs(0);
    std::string const at = nameOf(table.get());
    std::string const one = "( 10.0.0.1/32, 239.1.1.1/32 )";
    std::string const two = "( 10.0.0.1/32, 239.1.1.2/32 )";
    machine().doReview();
    EXPECT_EQ(trace.take(), (Lines{"3 Starting review", "3 Starting sync",
                                   "3 Syncing " + one + " from kesh table " + at,
                                   "3 Suspending sync at " + at + ", " + two,
                                   "3 All mfib routes are not yet reviewed"}));
    table->routeIs(routeKey(sourceT, group(1)), Route{true});
    table->routeIs(routeKey(sourceT, group(2)), Route{true});
    EXPECT_EQ(
        trace.take(),
        (Lines{"3 Route changed in MfibKesh Table( " + at + ", ( 10.0.0.2/32, 239.1.1.1/32 ) )",
               "3 Route changed in MfibKesh Table( " + at + ", ( 10.0.0.2/32, 239.1.1.2/32 ) )"}));
    routeDel(*table, sourceT, group(2));
    trace.take();
    // The last route on the deadline ends the sync in the same review, and the changed routes that
    // waited for it get a time of their own.
    machine().doReview();
    EXPECT_EQ(trace.take(),
              (Lines{"3 Starting review", "3 Resuming sync at " + at + ", " + two,
                     "3 Syncing " + two + " from kesh table " + at, "3 Sync completed",
                     "3 Review finished", "3 1 changed routes have not been reviewed"}));
    EXPECT_FALSE(machine().syncAllRoutes());
    EXPECT_EQ(machine().keshBookmark(), nullptr);
    machine().doReview();
    EXPECT_EQ(trace.take(), (Lines{"3 Starting review", "3 Review finished"}));
    EXPECT_EQ(machine().reviewTimer()->lastReviewTime(), world.time.now());
}

TEST_F(Review, ABookmarkedTableThatIsGoneEndsTheSync) {
    auto const table = newTable();
    auto const other = newTable("other");
    for (unsigned const g : {1u, 2u}) routeIs(*table, sourceS, group(g));
    routeIs(*other, sourceS, group(7));
    settle();
    machine().reviewQuantumIs(0);
    wantFullSync();
    machine().doReview();
    tables()->keshPtrDel(table.get());
    EXPECT_EQ(machine().mfibKesh(table.get()), nullptr);
    trace.take();
    machine().doReview();
    std::string const at = nameOf(table.get());
    EXPECT_EQ(
        trace.take(),
        (Lines{"3 Starting review", "3 Resuming sync at " + at + ", ( 10.0.0.1/32, 239.1.1.2/32 )",
               "3 mfibKesh at " + at + " does not exist.", "3 Review finished"}));
    EXPECT_FALSE(machine().syncAllRoutes());
    EXPECT_FALSE(machine().rkBookmarkNotNull());
    // A table that goes takes nothing back by itself.
    EXPECT_EQ(announced(group(1)), "include 10.0.0.1 exclude");
}

// Tables are named by address, and an address may be used again.
TEST_F(Review, ANewTableUnderAnOldNameIsNotTakenForTheOldOne) {
    auto const old = newTable();
    auto const fresh = Table::StatusIs("fresh");
    for (unsigned const g : {1u, 2u, 3u}) {
        routeIs(*old, sourceS, group(g));
        routeIs(*fresh, sourceS, group(g));
    }
    settle();
    machine().reviewQuantumIs(0);
    wantFullSync();
    machine().doReview();
    routeIs(*old, sourceS, group(3), 1); // changed, but not yet reviewed
    tables()->keshPtrDel(old.get());
    tables()->keshPtrIs(old.get(), fresh);
    trace.take();
    machine().doReview();
    Lines const lines = trace.take();
    EXPECT_EQ(lines[2], "3 mfibKesh at " + nameOf(old.get()) + " does not exist.");
    // The changed route was the old table's, so it is gone, whatever the new table says.
    EXPECT_EQ(announced(group(3)), "absent");
    EXPECT_EQ(announced(group(1)), "include 10.0.0.1 exclude");
}

TEST_F(Review, WithoutTablesASyncEndsAtOnce) {
    wantFullSync();
    machine().doReview();
    EXPECT_EQ(trace.take(), (Lines{"3 Starting review", "3 Starting sync",
                                   "3 mfibKesh at 0 does not exist.", "3 Review finished"}));
    EXPECT_FALSE(machine().syncAllRoutes());
}

TEST_F(Review, ATableWithoutContentsYetHasNoReactorAndEndsASyncThatBeginsWithIt) {
    auto const later = Table::StatusIs("later");
    tables()->keshPtrIs(later.get(), nullptr);
    EXPECT_EQ(machine().mfibKesh(later.get()), nullptr);
    EXPECT_THROW(machine().mfibKeshIs(later.get(), nullptr), Nex::RangeException);
    wantFullSync();
    machine().doReview();
    EXPECT_EQ(trace.take()[2], "3 mfibKesh for " + nameOf(later.get()) + " does not exist.");
    EXPECT_FALSE(machine().syncAllRoutes());
    tables()->keshPtrIs(later.get(), later);
    ASSERT_NE(machine().mfibKesh(later.get()), nullptr);
    routeIs(*later, sourceS, groupG);
    settle();
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
}

TEST_F(Review, ForgettingTheTablesAltogetherStopsTheReviews) {
    auto const table = newTable();
    routeIs(*table, sourceS, groupG);
    machine().mfibKeshDirDel();
    trace.take();
    settle();
    EXPECT_EQ(trace.take(), Lines());
    machine().doSyncKey(table.get(), routeKey(sourceS, groupG));
    EXPECT_EQ(announced(), "absent");
}

TEST_F(Review, ChangedRoutesWaitForAFullSyncAndAreThenDrainedInSlices) {
    auto const table = newTable();
    for (unsigned const g : {1u, 2u, 3u}) routeIs(*table, sourceS, group(g));
    settle();
    wantFullSync();
    for (unsigned g = 11; g <= 16; ++g) routeIs(*table, sourceS, group(g));
    routeIs(*table, sourceS, group(11), 1); // recorded already
    EXPECT_EQ(machine().changedRoute().size(), 6u);
    for (unsigned g = 11; g <= 16; ++g) EXPECT_EQ(announced(group(g)), "absent");
    machine().reviewQuantumIs(0.1);
    world.time.stepSecondsIs(0.051); // each route takes so long that a slice has time for two
    Lines const full = keysOf({1, 2, 3, 11, 12, 13, 14, 15, 16});
    for (std::size_t slice = 0; slice < 4; ++slice) {
        trace.take();
        machine().doReview();
        EXPECT_EQ(walked(), Lines(full.begin() + std::ptrdiff_t(2 * slice),
                                  full.begin() + std::ptrdiff_t(2 * slice + 2)));
        EXPECT_EQ(machine().changedRoute().size(), 6u);
    }
    for (std::size_t const left : {4u, 2u, 0u}) { // the first of these ends the full sync, too
        trace.take();
        machine().doReview();
        EXPECT_EQ(machine().changedRoute().size(), left);
        Lines const lines = trace.take();
        std::string const rest =
            "3 " + std::to_string(left) + " changed routes have not been reviewed";
        EXPECT_EQ(lines.back(), left == 0 ? "3 Review finished" : rest);
        EXPECT_NE(machine().clock()->nextExpiry(), Nex::never);
    }
    EXPECT_EQ(status->groupSourceListCount(), 9u);
}

TEST_F(Review, AFullSyncThatIsAskedForWithinASliceStartsOver) {
    auto const table = newTable();
    for (unsigned const g : {1u, 2u, 3u}) routeIs(*table, sourceS, group(g));
    settle();
    machine().reviewQuantumIs(0);
    for (unsigned const within : {1u, 2u, 3u})
        for (bool const throws : {false, true}) {
            SCOPED_TRACE(std::to_string(within) + (throws ? ", thrown" : ""));
            wantFullSync();
            for (unsigned g = 1; g < within; ++g) machine().doReview();
            status->groupSourceListDel(group(within)); // comes back in the next slice
            Nex::Owned<StatusWatch> watch;
            watch.make(status, [&](Lox::IpAddr, bool) {
                machine().handleDenyMroute();
                if (throws) throw Nex::Exception("from a callback");
                return true;
            });
            try {
                machine().doReview();
                EXPECT_FALSE(throws);
            } catch (Nex::Exception const&) {
                EXPECT_TRUE(throws);
            }
            EXPECT_TRUE(machine().syncAllRoutes() && machine().reviewTimer()->reviewPending());
            trace.take();
            for (unsigned g = 1; g <= 3; ++g) machine().doReview();
            EXPECT_EQ(walked(), keysOf({1, 2, 3}));
            EXPECT_FALSE(machine().syncAllRoutes());
            settle();
        }
}

TEST_F(Review, TablesAreWalkedInTheOrderInWhichTheyCame) {
    std::vector<Nex::Ptr<Table>> held;
    for (unsigned const g : {3u, 0u, 4u, 1u}) { // one of them empty
        held.push_back(newTable());
        if (g > 0) routeIs(*held.back(), sourceS, group(g));
    }
    routeIs(*held[0], sourceS, group(5));
    settle();
    wantFullSync();
    machine().doReview();
    EXPECT_EQ(walked(), keysOf({3, 5, 4, 1}));
}

TEST_F(Review, ReviewsThatAreKickedArePacedByCreditsAndChangedRoutesAreNot) {
    world.pass(10); // all credits are back
    machine().reviewQuantumIs(0);
    auto const delay = [this] {
        double const now = world.time.now();
        double const next = world.clock->nextExpiry();
        world.pass(next - now);
        return next - now;
    };
    std::vector<Nex::Ptr<Table>> held;
    auto const kick = [&] { held.push_back(newTable()); };
    for (double const expected : {0.01, 0.01, 0.01, 0.01, 0.05, 0.05}) {
        kick();
        EXPECT_NEAR(delay(), expected, 1e-6);
    }
    // Reviews of changed routes follow each other by themselves until nothing is left.
    for (unsigned g = 1; g <= 20; ++g) routeIs(*held[0], sourceS, group(g));
    for (unsigned g = 1; g <= 20; ++g) {
        EXPECT_NEAR(delay(), 0.01, 1e-6);
        EXPECT_EQ(status->groupSourceListCount(), g);
    }
    EXPECT_EQ(world.clock->nextExpiry(), Nex::never);
    // A review that is pending is moved forward by a changed route, and not put off by a kick.
    kick();
    EXPECT_NEAR(world.clock->nextExpiry(), world.time.now() + 0.05, 1e-6);
    routeIs(*held[0], sourceS, group(21));
    trace.take();
    kick();
    EXPECT_EQ(trace.take(), Lines()); // one is pending
    EXPECT_NEAR(delay(), 0.01, 1e-6);
}

TEST_F(Review, AVanishedAnySourceRouteBringsTheOthersBackByAFullSync) {
    auto const table = newTable();
    for (auto const source : {anySource, sourceS, sourceT}) routeIs(*table, source, groupG);
    settle();
    TraceLog notes(6);
    routeDel(*table, anySource, groupG);
    machine().doReview();
    EXPECT_EQ(announced(), "absent");
    EXPECT_TRUE(machine().reviewTimer()->reviewPending());
    Lines const lines = notes.take();
    Lines const inOrder{"6 Routekey not found in mfib",
                        "6 Group was not configured, so deleting it from intfStatus",
                        "6 Routekey is ( *,G ).",
                        "6 Restarting the review to add the mfib sources back."};
    EXPECT_NE(std::search(lines.begin(), lines.end(), inOrder.begin(), inOrder.end()), lines.end());
    settle();
    EXPECT_EQ(announced(), "include 10.0.0.1 10.0.0.2 exclude");
}

// The (*,G) route is asked for by its exact key. One for more groups is a route of its own, from
// any source to the first of them.
TEST_F(Review, AnAnySourceRouteForARangeOfGroupsDoesNotStandForEach) {
    auto const table = newTable();
    table->routeIs({{}, {ip("239.1.0.0"), 16}}, Route{true});
    routeIs(*table, sourceS, groupG);
    settle();
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
    EXPECT_EQ(announced(ip("239.1.0.0")), "include 0.0.0.0 exclude");
}

TEST_F(Review, DenyingEverythingStripsWhatOnlyTheTableContributed) {
    auto const table = newTable();
    routeIs(*table, sourceS, groupG);
    routeIs(*table, anySource, group(2));
    settle();
    config->groupSourceListIs(group(3))->includeSourceListIs(sourceS);
    status->groupSourceList(group(3))->includeSourceListIs(sourceT); // by an earlier review
    config->groupSourceListIs(group(4)); // has nothing that is counted, and goes with the rest
    machine().keshBookmarkIs(table.get());
    machine().rkBookmarkIs(routeKey(sourceT, groupG));
    TraceLog notes(7);
    status->denyMrouteIs(true);
    Lines const lines = notes.take();
    EXPECT_EQ(lines[0], "7 Deleting mfib-only sources from the status");
    for (auto const& [line, times] :
         {std::pair("6 Deleting included source IP10.0.0.1 added only through mfib", 1),
          {"6 Deleting excluded source IP0.0.0.0 added only through mfib", 1},
          {"6 Deleting included source IP10.0.0.2 added only through mfib", 1},
          {"7 Deleting group since there are no included/excluded sources", 3}})
        EXPECT_EQ(std::count(lines.begin(), lines.end(), line), times) << line;
    EXPECT_EQ(announced(group(3)), "include 10.0.0.1 exclude");
    EXPECT_EQ(status->groupSourceListCount(), 1u);

    status->denyMrouteIs(false);
    EXPECT_EQ(notes.take(),
              (Lines{"7 Restarting the review to add the mfib sources back", "3 Kicking review"}));
    EXPECT_TRUE(machine().syncAllRoutes());
    EXPECT_EQ(machine().keshBookmark(), nullptr);
    EXPECT_FALSE(machine().rkBookmarkNotNull());

    // At start-up the configured groups come after the flag.
    world.root->igmpHostProxyIntfSmDel(up0);
    status->groupSourceListIs(group(4))->includeSourceListIs(sourceT);
    status->denyMrouteIs(true);
    world.root->handleIntfConfig(up0);
    EXPECT_EQ(announced(group(4)), "include exclude");
}

TEST_F(Review, ARouteThatIsKeptOutSaysWhy) {
    auto const table = newTable();
    settle();
    TraceLog notes(6);
    auto const expectKeptOut = [&](char const* why) {
        routeIs(*table, sourceS, groupG);
        settle();
        Lines const lines = notes.take();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), why), 1) << why;
        EXPECT_FALSE(status->groupSourceListHas(groupG) &&
                     status->groupSourceList(groupG)->includeSourceListHas(sourceS));
        routeDel(*table, sourceS, groupG);
        settle();
        notes.take();
    };
    config->deletedGroupSourceListIs(groupG)->excludeSourceListIs(sourceS);
    expectKeptOut("6 Group: 239.1.1.1 found in deletedGroupSourceList");
    config->groupSourceListIs(groupG)->includeSourceListIs(sourceT);
    expectKeptOut("6 Group found in GroupSourceList.");
    status->denyMrouteIs(true);
    expectKeptOut("6 Rule to deny mfib configurations is enabled.");
}

TEST_F(Review, GroupsThatTheirOwnersLetGoOfAreTheTablesAgain) {
    auto const table = newTable();
    for (unsigned const g : {1u, 2u, 3u, 5u, 9u}) routeIs(*table, sourceS, group(g));
    routeIs(*table, anySource, group(2));
    config->groupSourceListIs(group(5))->includeSourceListIs(sourceT);
    config->aclListIs("iptv");
    ruleIs("iptv", 1, permit(sourceT, group(0), 0xFFFFFFFC));
    ruleIs("iptv", 2, permit(sourceT, group(3)));
    settle();
    takeBack(*config, sourceT, group(5), true);
    config->groupSourceListDel(group(5));
    ruleDel("iptv", 1);
    settle();
    for (unsigned const g : {1u, 2u, 5u}) EXPECT_EQ(announced(group(g)), "absent") << g;

    machine().doReleaseGroups({group(5), oneAddress});
    machine().doReleaseGroups({group(0), 0xFFFFFFFC});
    EXPECT_EQ(machine().changedRoute().size(), 5u);
    settle();
    EXPECT_EQ(announced(group(1)), "include 10.0.0.1 exclude");
    EXPECT_EQ(announced(group(2)), "include exclude 0.0.0.0");
    EXPECT_EQ(announced(group(3)), "include 10.0.0.2 exclude"); // has an owner still
    EXPECT_EQ(announced(group(5)), "include 10.0.0.1 exclude");
}

} // namespace
} // namespace IgmpHostProxy
