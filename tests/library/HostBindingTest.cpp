// The binding of an interface's status to its host entity: settings, group records, counters.
#include "Library.h"

namespace IgmpHostProxy {
namespace {

class HostBinding : public OneInterface {
  protected:
    Igmp::IgmpV3GroupRecord* record() { return host->v3group(groupG); }
    /// The sources of the group's record, then its mode: "10.0.0.1 mode 1".
    std::string announced() {
        if (!record()) return "none";
        std::string text;
        for (auto const source : Nex::sortedKeys(record()->source()->sourceIp()))
            text += source.stringValue() + " ";
        return text + "mode " + std::to_string(unsigned(record()->filterMode()));
    }
    /// By how much something raises the stamps of the host entity: "config/intfConfig".
    template <class F>
    std::string raised(F change) {
        auto const config = host->configVersion(), intf = host->intfConfigVersion();
        change();
        return std::to_string(host->configVersion() - config) + "/" +
               std::to_string(host->intfConfigVersion() - intf);
    }
};

TEST_F(HostBinding, SettingsReachTheHostWithTheStampsOfEach) {
    EXPECT_EQ(raised([&] { world.addressOf("up0", "198.51.100.1"); }), "0/1");
    EXPECT_EQ(host->ipAddr(), ip("198.51.100.1"));
    EXPECT_EQ(raised([&] { status->macAddrIs(Lox::EthAddr({2, 0, 0, 0, 0, 9})); }), "1/1");
    EXPECT_EQ(host->macAddr(), Lox::EthAddr({2, 0, 0, 0, 0, 9}));
    EXPECT_EQ(raised([&] { binding().handleIntfEthAddr(); }), "1/1"); // unchanged, and yet
    EXPECT_EQ(raised([&] { status->deviceNameIs("up0a"); }), "0/0");
    status->deviceNameIs("");
    EXPECT_EQ(host->deviceName(), "up0a");
    EXPECT_EQ(raised([&] { status->unsolicitedReportIntvlIs(UnsolicitedReportInterval(0.25)); }),
              "0/0");
    EXPECT_EQ(host->unsolicitedReportInterval(), 0.25);

    for (unsigned const version : {1u, 2u, 3u, 0u, 4u, 255u}) {
        status->igmpVersionIs(IgmpVersion(version));
        EXPECT_EQ(unsigned(host->igmpVersion()), version == 1 || version == 2 ? version : 3u);
    }
    EXPECT_EQ(raised([&] { binding().handleNew(); }), "0/0"); // once is enough
    binding().initializedIs(false);
    EXPECT_EQ(raised([&] { binding().handleNew(); }), "2/3"); // address, MAC address, and all
}

// Without an address there is nothing to set up, and the address does not make up for it later.
TEST_F(HostBinding, ADeviceNameThatComesBeforeTheAddressIsNotPushedByIt) {
    auto const source = Ip::SourceIntf::SourceIntf::SourceIntfIs(up0);
    binding().srcIntfIhpIntfIs(source);
    EXPECT_EQ(raised([&] { binding().handleIpAddrChange(); }), "0/0");
    EXPECT_EQ(host->ipAddr(), ip("192.0.2.2"));
    status->deviceNameIs("late");
    EXPECT_EQ(host->deviceName(), "up0");
    source->ipAddrIs(ip("198.51.100.1"));
    EXPECT_EQ(host->ipAddr(), ip("198.51.100.1"));
    EXPECT_EQ(host->deviceName(), "up0");
    status->deviceNameIs("later");
    EXPECT_EQ(host->deviceName(), "later");
}

TEST_F(HostBinding, ARecordJoinsAllSourcesUntilTheGroupsSourcesRefineIt) {
    TraceLog trace(7);
    auto const group = status->groupSourceListIs(groupG);
    EXPECT_EQ(trace.take(), (Lines{"7 Adding igmpHost v3group : 239.1.1.1",
                                   "6 Source list is empty. Creating new source"}));
    group->includeSourceListIs(sourceS);
    EXPECT_EQ(trace.take(), (Lines{"7 Adding source : 10.0.0.1 to group : 239.1.1.1",
                                   "7 Changing mode to include"}));
    group->includeSourceListDel(sourceS);
    EXPECT_EQ(trace.take(), Lines{"7 Deleting source : 10.0.0.1 from group : 239.1.1.1"});
    EXPECT_EQ(announced(), "mode 1"); // the mode stays: leaving is the host's affair
    group->excludeSourceListIs(sourceT);
    EXPECT_EQ(trace.take(), (Lines{"7 Adding source : 10.0.0.2 to group : 239.1.1.1",
                                   "7 Changing mode to exclude"}));
    status->groupSourceListDel(groupG);
    EXPECT_EQ(trace.take(), Lines{"7 Deleting igmpHost v3group with key: 239.1.1.1"});
    EXPECT_EQ(binding().groupSourceListStatus(groupG), nullptr);
    group->includeSourceListIs(sourceS); // no longer ours
    EXPECT_EQ(trace.take(), Lines());
}

// Any source in the include list toggles the record: one that is there is deleted, not refreshed.
TEST_F(HostBinding, AnySourceInTheIncludeListTogglesTheRecordAway) {
    auto const group = status->groupSourceListIs(groupG);
    group->includeSourceListIs(anySource);
    for (char const* const then : {"mode 2", "none"}) {
        binding().handleGroupList(groupG);
        EXPECT_EQ(announced(), then);
    }
    TraceLog trace(7);
    group->includeSourceListIs(sourceS); // without a record there is nothing to refine
    group->excludeSourceListIs(sourceT);
    EXPECT_EQ(trace.take(), Lines());
    group->includeSourceListDel(anySource);
    EXPECT_EQ(trace.take(), (Lines{"7 Adding igmpHost v3group : 239.1.1.1",
                                   "6 Source list is empty. Creating new source",
                                   "7 Deleting source : 0.0.0.0 from group : 239.1.1.1"}));
    EXPECT_EQ(announced(), "mode 2"); // the sources come with the next binding only
    world.hostStatusDir->igmpHostStatusDel("up0");
    world.hostStatusDir->igmpHostStatusIs("up0");
    EXPECT_EQ(announced(), "10.0.0.1 10.0.0.2 mode 2"); // the include list first
}

TEST_F(HostBinding, ASourceStoredWithValueZeroIsAbsent) {
    auto const group = status->groupSourceListIs(groupG);
    auto const sourceList = record()->sourceIs();
    sourceList->sourceIpIs(sourceS, 0);
    group->excludeSourceListIs(sourceS);
    EXPECT_EQ(sourceList->sourceIp(sourceS), 1);
    sourceList->sourceIpIs(sourceS, 0);
    group->excludeSourceListDel(sourceS);
    EXPECT_TRUE(sourceList->sourceIpHas(sourceS)); // absent before, so nothing to delete

    // A record that lost its source list gets one, with a note from the exclude handler alone.
    for (bool const include : {true, false}) {
        record()->sourceListIs(nullptr);
        TraceLog trace(6);
        include ? group->includeSourceListIs(sourceT) : group->excludeSourceListIs(sourceS);
        EXPECT_EQ(trace.take(),
                  include ? Lines() : Lines{"6 Source list is empty. Creating new source"});
        EXPECT_EQ(record()->source()->sourceIpCount(), 1u);
        record()->sourceListIs(nullptr);
        include ? group->includeSourceListDel(sourceT) : group->excludeSourceListDel(sourceS);
        EXPECT_EQ(record()->source(), nullptr);
    }
}

TEST_F(HostBinding, PointedAtAnotherStatusItTakesAllOver) {
    status->groupSourceListIs(ip("239.1.1.9"));
    auto const other = IntfStatus::IntfStatusIs(up0);
    other->deviceNameIs("other");
    other->groupSourceListIs(groupG)->includeSourceListIs(sourceS);
    TraceLog trace(7);
    binding().intfStatusIs(other);
    // The records themselves are not looked at: the group's own reactor finds none to refine.
    EXPECT_EQ(trace.take(),
              (Lines{"7 Setting devicename to :other",
                     "7 Setting source MAC address to 00:00:00:00:00:00", "7 Setting version to: 0",
                     "7 Setting unsolicited-report-interval:  0"}));
    EXPECT_NE(binding().groupSourceListStatus(groupG), nullptr);
    EXPECT_EQ(binding().groupSourceListStatus(ip("239.1.1.9")), nullptr);
    EXPECT_EQ(announced(), "none");
    binding().intfStatusIs(nullptr);
    EXPECT_EQ(binding().groupSourceListStatus(groupG), nullptr);
}

TEST_F(HostBinding, CountersAreCopiedNotAdded) {
    struct Copied {
        void (Igmp::IgmpHostStatus::*is)(std::uint32_t);
        std::uint32_t (IntfStatus::*shown)() const;
    };
    Copied const counters[] = {
#define COUNTER(TYPE, NAME, UPPER) {&Igmp::IgmpHostStatus::NAME##Is, &IntfStatus::NAME},
        IGMP_PACKET_COUNTERS(COUNTER, IGMP_NO_COUNTER)
#undef COUNTER
            {&Igmp::IgmpHostStatus::v3CurrentStateReportSentIs, &IntfStatus::v3ReportsSent},
    };
    auto shown = [&] {
        std::vector<std::uint32_t> values;
        for (auto const& counter : counters) values.push_back(((*status).*counter.shown)());
        return values;
    };
    std::vector<std::uint32_t> expected(std::size(counters), 0);
    for (std::size_t i = 0; i < std::size(counters); ++i) {
        (hostStatus().*counters[i].is)(std::uint32_t(10 + i));
        expected[i] = std::uint32_t(10 + i);
        EXPECT_EQ(shown(), expected) << i;
    }
    hostStatus().v12ReportReceivedIs(1);
    hostStatus().v2LeavesSentIs(1);
    hostStatus().v3ReportReceivedIs(1);
    EXPECT_EQ(shown(), expected);

    TraceLog trace(7);
    binding().resetPacketCounters();
    EXPECT_EQ(trace.take(), Lines{"7 Resetting packet counters to 0"});
    EXPECT_EQ(shown(), std::vector<std::uint32_t>(std::size(counters), 0));
    // Pointed at another host status it takes over all of that.
    auto const other = Igmp::IgmpHostStatus::IgmpHostStatusIs("up0");
    for (std::size_t i = 0; i < std::size(counters); ++i)
        ((*other).*counters[i].is)(std::uint32_t(20 + i));
    binding().igmpHostStatusIs(other);
    EXPECT_EQ(shown(), (std::vector<std::uint32_t>{20, 21, 22, 23, 24, 25, 26, 27, 28}));
}

// One counter shows two: the current-state reports while they run ahead of what is shown,
// otherwise the state-change reports, never their sum.
TEST_F(HostBinding, ReportCountersAreChosenFromNotAdded) {
    hostStatus().v3StateChangeReportSentIs(7);
    EXPECT_EQ(status->v3ReportsSent(), 7u);
    hostStatus().v3CurrentStateReportSentIs(3); // behind 7
    EXPECT_EQ(status->v3ReportsSent(), 7u);
    hostStatus().v3CurrentStateReportSentIs(9);
    EXPECT_EQ(status->v3ReportsSent(), 9u);
    hostStatus().v3StateChangeReportSentIs(8); // 9 is not ahead of 9
    EXPECT_EQ(status->v3ReportsSent(), 8u);
    binding().handleIgmpHostV3ReportsSent();
    EXPECT_EQ(status->v3ReportsSent(), 9u);
    hostStatus().v3StateChangeReportSentIs(2);
    EXPECT_EQ(status->v3ReportsSent(), 2u);
    binding().resetPacketCounters();
    binding().handleIgmpHostV3ReportsSent();
    EXPECT_EQ(status->v3ReportsSent(), 9u);
}

} // namespace
} // namespace IgmpHostProxy
