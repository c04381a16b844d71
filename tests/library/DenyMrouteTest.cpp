// The rule that denies everything keeps the forwarding table's groups out.
#include "Producers.h"

namespace IgmpHostProxy {
namespace {

class DenyMroute : public Producers {
  protected:
    DenyMroute() {
        config->aclListIs("iptv");
        rulesOf("iptv");
    }
};

TEST_F(DenyMroute, StripsWhatOnlyTheTableContributed) {
    auto const table = newTable();
    Lox::IpAddr const other = ip("239.1.1.2");
    routeIs(*table, sourceS, groupG);
    routeIs(*table, anySource, other);
    settle();
    // A configured source in a group to which an earlier review had contributed another.
    config->groupSourceListIs(ip("239.1.1.3"))->includeSourceListIs(sourceS);
    status->groupSourceList(ip("239.1.1.3"))->includeSourceListIs(sourceT);
    status->groupSourceList(ip("239.1.1.3"))->excludeSourceListIs(ip("10.0.0.9"));

    TraceLog trace(7);
    ruleIs("iptv", 1, denyAll);
    EXPECT_TRUE(status->denyMroute());
    Lines const lines = trace.take();
    EXPECT_EQ(lines[0], "7 Deleting mfib-only sources from the status");
    for (auto const* const line : {"6 Deleting included source IP10.0.0.1 added only through mfib",
                                   "6 Deleting excluded source IP0.0.0.0 added only through mfib",
                                   "6 Deleting included source IP10.0.0.2 added only through mfib",
                                   "6 Deleting excluded source IP10.0.0.9 added only through mfib"})
        EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 1) << line;
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "7 Deleting group since there are no included/excluded sources"),
              2);
    EXPECT_EQ(announced(), "absent");
    EXPECT_EQ(announced(other), "absent");
    EXPECT_EQ(announced(ip("239.1.1.3")), "include 10.0.0.1 exclude");
}

TEST_F(DenyMroute, ClearingTheFlagRestartsTheReview) {
    auto const table = newTable();
    settle();
    status->denyMrouteIs(true);
    machine().keshBookmarkIs(table.get());
    machine().rkBookmarkIs(routeKey(sourceT, groupG));
    TraceLog trace(7);
    status->denyMrouteIs(false);
    EXPECT_EQ(trace.take(),
              (Lines{"7 Restarting the review to add the mfib sources back", "3 Kicking review"}));
    EXPECT_TRUE(machine().syncAllRoutes());
    EXPECT_EQ(machine().keshBookmark(), nullptr);
    EXPECT_FALSE(machine().rkBookmarkNotNull());
}

// A group that is configured without sources has nothing that is counted, and goes with the rest.
// Start-up alone brings it back, for there the configured groups come after the flag.
TEST_F(DenyMroute, AConfiguredGroupWithoutSourcesGoesUntilTheMachineStartsAnew) {
    config->groupSourceListIs(groupG);
    ruleIs("iptv", 1, denyAll);
    EXPECT_EQ(announced(), "absent");
    world.root->igmpHostProxyIntfSmDel(up0);
    world.root->handleIntfConfig(up0);
    EXPECT_TRUE(status->denyMroute());
    EXPECT_EQ(announced(), "include exclude");
}

TEST_F(DenyMroute, OnlyAddressesOfZerosAndTheActionDenySetTheFlag) {
    ruleIs("iptv", 1, permit(anySource, Lox::IpAddr(), oneAddress));
    ruleIs("iptv", 2, deny(sourceS, Lox::IpAddr(), 0));
    ruleIs("iptv", 3, deny(anySource, groupG));
    ruleIs("iptv", 4, rule(Acl::Action(2), anySource, Lox::IpAddr(), 0));
    EXPECT_FALSE(status->denyMroute());
    EXPECT_EQ(status->groupSourceListCount(), 1u);
    ruleIs("iptv", 5, deny(anySource, Lox::IpAddr(), oneAddress)); // masks do not matter
    EXPECT_TRUE(status->denyMroute());
}

} // namespace
} // namespace IgmpHostProxy
