// The interface machine: settings, configured and deleted groups, and what start-up clears away.
#include "Library.h"

namespace IgmpHostProxy {
namespace {

class IntfProxy : public OneInterface {
  protected:
    std::uint32_t count(Lox::IpAddr source) {
        return machine().groupSourceRefCounter({source, groupG});
    }
};

TEST_F(IntfProxy, SettingsFollowTheConfigurationBeforeAnyGroup) {
    TraceLog trace(7);
    config->igmpVersionIs(IgmpVersion::v2);
    config->unsolicitedReportIntvlIs(UnsolicitedReportInterval(2.5));
    EXPECT_EQ(trace.take(), (Lines{"7 Setting IGMP version to2", "7 Setting version to: 2",
                                   "7 Setting unsolicited-report-interval=2.5",
                                   "7 Setting unsolicited-report-interval:  2.5"}));
    EXPECT_EQ(status->igmpVersion(), IgmpVersion::v2);
    EXPECT_EQ(status->unsolicitedReportIntvl(), UnsolicitedReportInterval(2.5));
    EXPECT_EQ(status->groupSourceListCount(), 0u);
    for (auto const& [seconds, text] :
         {std::pair(0.00001, "0.00001"), {10.0, "10"}, {1234567.25, "1234567.25"}}) {
        config->unsolicitedReportIntvlIs(UnsolicitedReportInterval(seconds));
        EXPECT_EQ(trace.take()[0], std::string("7 Setting unsolicited-report-interval=") + text);
    }
}

TEST_F(IntfProxy, AConfiguredGroupWithoutSourcesIsAnnounced) {
    TraceLog trace(7);
    config->groupSourceListIs(groupG);
    EXPECT_EQ(trace.take(),
              (Lines{"7 Adding group =239.1.1.1 to status", "7 Adding igmpHost v3group : 239.1.1.1",
                     "6 Source list is empty. Creating new source"}));
    ASSERT_NE(status->groupSourceList(groupG), nullptr);
    EXPECT_EQ(host->v3group(groupG)->filterMode(), Lox::IgmpV3GroupRecordType::modeIsExclude);
    config->groupSourceListDel(groupG); // its reactor goes, the announcement stays
    EXPECT_TRUE(status->groupSourceListHas(groupG));
    EXPECT_EQ(machine().groupSourceListConfig(groupG), nullptr);
}

// Groups that nobody asks for go as the machine starts, with all references, however many.
TEST_F(IntfProxy, StartUpClearsGroupsThatNobodyAsksFor) {
    config->groupSourceListIs(ip("239.1.1.2"))->includeSourceListIs(sourceS);
    status->groupSourceListIs(groupG);
    machine().addIncludeSourceGroup(sourceS, groupG);
    machine().addIncludeSourceGroup(sourceS, groupG);
    machine().addExcludeSourceGroup(sourceT, groupG);
    machine().groupSourceRefCounterIs({ip("10.0.0.9"), groupG}, 5); // not listed in the status
    TraceLog trace(7);
    machine().handleGroupList();
    EXPECT_EQ(trace.take(),
              (Lines{"7 Deleting group :239.1.1.1from intfStatus, since it is not in intfConfig",
                     "6 Ref count is for sg decremented, now is1",
                     "6 Ref count is for sg decremented, now is0",
                     "7 Deleting igmpHost v3group with key: 239.1.1.1"}));
    EXPECT_EQ(count(sourceS), 0u);
    EXPECT_EQ(count(sourceT), 0u);
    EXPECT_EQ(count(ip("10.0.0.9")), 5u);
    EXPECT_FALSE(status->groupSourceListHas(groupG));
    EXPECT_TRUE(status->groupSourceListHas(ip("239.1.1.2")));
}

// A source counts as taken back as it is listed as deleted, and not once more as the list forgets.
TEST_F(IntfProxy, ASourceThatLeavesTheDeletedListIsNotTakenBackAgain) {
    auto const deleted = config->deletedGroupSourceListIs(groupG);
    machine().groupSourceRefCounterIs({sourceS, groupG}, 5);
    deleted->includeSourceListIs(sourceS);
    deleted->includeSourceListDel(sourceS);
    EXPECT_EQ(count(sourceS), 4u);
    deleted->excludeSourceListIs(sourceS);
    deleted->excludeSourceListDel(sourceS);
    EXPECT_EQ(count(sourceS), 3u);
    config->deletedGroupSourceListDel(groupG);
    deleted->includeSourceListIs(sourceS); // nobody listens there any more
    EXPECT_EQ(count(sourceS), 3u);
}

TEST_F(IntfProxy, AGroupThatCameWithoutAStatusIsFollowedOnceThereIsOne) {
    machine().intfStatusIs(nullptr);
    config->groupSourceListIs(groupG);
    machine().intfStatusIs(status);
    config->groupSourceListIs(groupG)->includeSourceListIs(sourceS);
    EXPECT_EQ(count(sourceS), 1u);
}

TEST_F(IntfProxy, TheMachineGoesSilentlyAndLeavesTheStatus) {
    config->groupSourceListIs(groupG)->includeSourceListIs(sourceS);
    Nex::Ptr<IgmpHostProxyIntfSm> const held = &machine();
    world.root->igmpHostProxyIntfSmDel(up0);
    EXPECT_TRUE(status->groupSourceListHas(groupG));
    config->groupSourceList(groupG)->includeSourceListIs(sourceT); // held, but silenced
    config->igmpVersionIs(IgmpVersion::v1);
    EXPECT_FALSE(status->groupSourceList(groupG)->includeSourceListHas(sourceT));
    EXPECT_NE(status->igmpVersion(), IgmpVersion::v1);
}

TEST(IntfProxyDeathTest, AMissingClockIsAProgrammingError) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(IgmpHostProxyIntfSm::IgmpHostProxyIntfSmIs(up0, IntfConfig::IntfConfigIs(up0),
                                                            IntfStatus::IntfStatusIs(up0), nullptr,
                                                            nullptr, nullptr, nullptr, nullptr),
                 "clock_");
}

} // namespace
} // namespace IgmpHostProxy
