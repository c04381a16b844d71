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
    Lox::IpAddr const other = ip("239.1.1.2");
};

TEST_F(DenyMroute, StripsWhatOnlyTheTableContributedAndBringsItBack) {
    auto const table = newTable();
    routeIs(*table, sourceS, groupG);
    routeIs(*table, anySource, other);
    settle();
    ASSERT_EQ(announced(other), "include exclude 0.0.0.0");
    // A configured source in a group to which an earlier review had contributed another.
    config->groupSourceListIs(ip("239.1.1.3"))->includeSourceListIs(sourceS);
    status->groupSourceList(ip("239.1.1.3"))->includeSourceListIs(sourceT);
    status->groupSourceList(ip("239.1.1.3"))->excludeSourceListIs(ip("10.0.0.9"));
    config->groupSourceListIs(ip("239.1.1.4"))->includeSourceListIs(anySource);

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
    EXPECT_EQ(announced(ip("239.1.1.4")), "include 0.0.0.0 exclude");
    EXPECT_EQ(count(sourceS, ip("239.1.1.3")), 1u);

    ruleDel("iptv", 1);
    EXPECT_FALSE(status->denyMroute());
    EXPECT_EQ(announced(), "absent"); // until the review
    settle();
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
    EXPECT_EQ(announced(other), "include exclude 0.0.0.0");
    EXPECT_EQ(announced(ip("239.1.1.3")), "include 10.0.0.1 exclude");
}

TEST_F(DenyMroute, AnEmptyStatusIsLeftAloneAndClearingRestartsTheReview) {
    settle();
    TraceLog trace(7);
    status->denyMrouteIs(true);
    EXPECT_EQ(trace.take(), Lines{"7 Deleting mfib-only sources from the status"});

    // Nothing was stripped; still the next review begins from the first table.
    auto const table = newTable();
    for (auto const source : {sourceS, sourceT}) routeIs(*table, source, groupG);
    machine().syncAllRoutesIs(false);
    machine().keshBookmarkIs(table.get());
    machine().rkBookmarkIs(routeKey(sourceT, groupG));
    settle();
    trace.take();
    status->denyMrouteIs(false);
    EXPECT_EQ(trace.take(),
              (Lines{"7 Restarting the review to add the mfib sources back", "3 Kicking review"}));
    EXPECT_TRUE(machine().syncAllRoutes());
    EXPECT_EQ(machine().keshBookmark(), nullptr);
    EXPECT_FALSE(machine().rkBookmarkNotNull());
    settle();
    EXPECT_EQ(announced(), "include 10.0.0.1 10.0.0.2 exclude");
}

TEST_F(DenyMroute, ReviewsGoOnAndAddNothing) {
    ruleIs("iptv", 1, denyAll);
    auto const table = newTable();
    routeIs(*table, sourceS, groupG);
    TraceLog trace(6);
    settle();
    Lines const lines = trace.take();
    EXPECT_EQ(
        std::count(lines.begin(), lines.end(), "6 Rule to deny mfib configurations is enabled."),
        1);
    EXPECT_EQ(announced(), "absent");
    EXPECT_TRUE(machine().changedRoute().empty());
    // What is configured and what lists permit is announced as ever.
    config->groupSourceListIs(groupG)->includeSourceListIs(sourceT);
    ruleIs("iptv", 2, permit(sourceS, other));
    settle();
    EXPECT_EQ(announced(), "include 10.0.0.2 exclude");
    EXPECT_EQ(announced(other), "include 10.0.0.1 exclude");
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

// The flag has no count: the first rule that is taken back clears it, whatever others say.
TEST_F(DenyMroute, TakingBackOneOfTwoRulesThatDenyEverythingClearsTheFlag) {
    ruleIs("iptv", 1, denyAll);
    ruleIs("iptv", 2, deny(anySource, Lox::IpAddr(), oneAddress)); // masks do not matter
    ruleDel("iptv", 1);
    EXPECT_FALSE(status->denyMroute());
    EXPECT_EQ(cachedRules(), 1u);
    ruleDel("iptv", 2);
    EXPECT_FALSE(status->denyMroute());
}

// Only a destination and a source of zeros and the action deny make such a rule.
TEST_F(DenyMroute, OtherRulesDoNotSetTheFlag) {
    ruleIs("iptv", 1, permit(anySource, Lox::IpAddr(), oneAddress));
    ruleIs("iptv", 2, deny(sourceS, Lox::IpAddr(), 0));
    ruleIs("iptv", 3, deny(anySource, groupG));
    ruleIs("iptv", 4, rule(Acl::Action(2), anySource, Lox::IpAddr(), 0));
    EXPECT_FALSE(status->denyMroute());
    EXPECT_EQ(status->groupSourceListCount(), 1u);
}

} // namespace
} // namespace IgmpHostProxy
