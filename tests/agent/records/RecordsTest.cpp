// From the operator's configuration and the kernel's messages to the host entities and their ports,
// without a kernel.
#include "agent/ConfigurationText.h"
#include "agent/kernel/NetlinkMessage.h"
#include "agent/ports/PortRegistry.h"
#include "agent/records/Announced.h"
#include "agent/records/ConfigurationWriter.h"
#include "agent/records/InterfaceWriter.h"
#include "support/InProcessPlatform.h"

#include <gtest/gtest.h>

namespace Agent {
namespace {

using Lines = std::vector<std::string>;
using Lox::IpAddr;
using Testing::rule;

class RecordsTest : public testing::Test {
  protected:
    RecordsTest() {
        platform.tables();
        platform.root = platform.makeRoot();
        ports = Nex::newObject<PortRegistry>(
            platform, loop, [this](std::string const&, std::string const&) { return location; },
            [](auto const&...) { return "route"; }, [](std::string const&) { return ""; },
            [this](std::string const& name, bool present) { writer.handleHost(name, present); });
        platform.usableIntf("up0", 2);
        location.followed = location.settled = true;
    }

    void configure(std::string const& text) {
        ConfigurationReading reading = configurationParse(text, "f");
        ASSERT_TRUE(reading.valid()) << reading.diagnostics[0].stringValue();
        writer.applyConfiguration(std::move(reading.configuration));
    }
    void doTurn() {
        ports->handleConfiguration();
        ports->handleTurn(EventLoop::now());
    }
    /// "up0 2 239.1.1.1" for a group that routers may hold by a report of version 2.
    Lines held() const {
        StateText text;
        for (auto const next = ports->heldWalk(); next(text);) {
        }
        text.endAdd();
        Lines lines;
        for (InterfaceState const& each : stateParse(text.take()))
            for (std::size_t i = 0; i < each.groups.size(); ++i) {
                GroupRecord const record = each.groups.record(i);
                lines.push_back(each.name + (record.type == RecordType::member ? " 2 " : " 3 ") +
                                record.group.stringValue());
            }
        return lines;
    }

    Support::InProcessPlatform platform;
    EventLoop loop;
    IgmpHostPort::Location location;
    ConfigurationWriter writer{platform};
    Nex::Ptr<PortRegistry> ports;
};

TEST_F(RecordsTest, GroupGoesFromEachMixOfWishesToEachOther) {
    std::string const here = "239.1.1.1", include = "'239.1.1.1' = { include = ['10.0.0.1'] }\n",
                      any = "'239.1.1.1' = {}\n";
    auto const iptv = [](unsigned sequence, std::string const& destination,
                         std::string const& source = "10.1.1.1") {
        return rule("iptv", sequence, destination, source);
    };
    auto const denied = [](unsigned sequence, std::string const& destination, char const* source) {
        return rule("iptv", sequence, destination, source, "deny");
    };
    Lines const only0{"0 include 10.1.1.1"};
    struct {
        std::string groups, rules;
        Lines announced; // besides the group of another list, which stays
        char const* lists = "'iptv', 'other'";
        bool routesDenied = false;
    } const mixes[] = {
        {"", "", {}},
        {"", iptv(10, here, "any"), {"1 exclude"}},
        {"", iptv(10, here), {"1 include 10.1.1.1"}},
        {any, "", {"1 exclude"}},
        {include, iptv(10, here, "any"), {"1 include 10.0.0.1"}},
        {any, iptv(10, here), {"1 include 10.1.1.1"}},
        {any, denied(4294967295, "any", "any"), {"1 exclude"}, "'iptv', 'other'", true},
        {include, iptv(10, here), {"1 include 10.0.0.1 10.1.1.1"}},
        {include, denied(10, here, "10.0.0.1"), {"1 exclude 10.0.0.1"}},
        {"", denied(1, here, "any") + iptv(10, here) + iptv(20, "239.1.1.0/31"), only0},
        {"", denied(1, here, "any") + iptv(10, here), {}},
        {"",
         iptv(0, here) + iptv(20, "239.1.1.0/30", "any") + denied(30, "239.1.1.0", "10.0.0.1"),
         {"0 exclude 10.0.0.1", "1 include 10.1.1.1", "2 exclude", "3 exclude"}},
        {"", iptv(10, here), {}, "'other'"},                    // detached
        {any, "", {"1 exclude"}, "'iptv', 'nowhere', 'other'"}, // of no rules
    };
    auto const expect = [&](auto const& from, auto const& to) {
        Lines expected;
        for (std::string const& each : to.announced) expected.push_back("up0 v3 239.1.1." + each);
        expected.push_back("up0 v3 239.1.1.9 include 10.1.1.1");
        EXPECT_EQ(announced(platform), expected) << &from - mixes << " -> " << &to - mixes;
        auto const* const status = platform.status->intfStatus(Lox::IntfId("up0"));
        EXPECT_EQ(status->denyMroute(), to.routesDenied) << &to - mixes;
    };
    auto const becomes = [&](auto const& from, auto const& to) {
        configure(std::string("[interface.up0]\naccess-lists = [") + to.lists +
                  "]\n[interface.up0.group]\n" + to.groups + to.rules +
                  rule("other", 10, "239.1.1.9"));
        expect(from, to);
    };
    for (auto const* one = mixes; one != std::end(mixes); ++one) {
        becomes(mixes[0], *one);
        for (auto const* another = one + 1; another != std::end(mixes); ++another) {
            becomes(*one, *another);
            becomes(*another, *one);
        }
        platform.delistIntf("up0");
        EXPECT_EQ(announced(platform), Lines());
        platform.listIntf("up0"); // the rules of its lists count once all the same
        expect(*one, *one);
        becomes(*one, mixes[0]);
    }
}

TEST_F(RecordsTest, RuleKeepsItsIdWhereverItGoesAndOverlapsAreTold) {
    std::string overlaps;
    auto const config = platform.aclConfig;
    AccessListWriter lists(*config, [&](std::string const& name) { overlaps += name + " "; });
    auto const ids = [&](std::string const& rules, bool lost) {
        EXPECT_EQ(lists.applyLists(configurationParse(rules, "f").configuration.accessLists), lost);
        std::map<std::string, std::uint64_t> all; // by destination
        Nex::Ptr const rulesNow = config->acl("a")->currCfg();
        for (auto const& item : rulesNow->ruleBySequence())
            all[rulesNow->ipRuleById(item.value).filter.destination.address().stringValue()] =
                item.value.number();
        return all;
    };
    std::string const one = "239.1.1.0/31", two = "239.1.1.1", three = "239.2.0.0/16";
    auto const before = ids(rule("a", 1, one) + rule("a", 2, two), false);
    ASSERT_EQ(before.size(), 2u);
    EXPECT_EQ(ids(rule("a", 2, one) + rule("a", 1, two), false), before) << "numbers change places";
    EXPECT_EQ(overlaps, "");
    auto const after = ids(rule("a", 2, three) + rule("a", 7, two), true);
    EXPECT_EQ(overlaps, "a ") << "what stays selects a group of what goes";
    ASSERT_EQ(after.size(), 2u);
    for (auto const& [destination, id] : after) {
        auto const known = before.find(destination);
        EXPECT_EQ(known != before.end() && known->second == id, known != before.end());
        EXPECT_TRUE(known != before.end() || id > 2) << "never one that was used";
    }
    lists.applyLists({});
    EXPECT_EQ(config->acl("a"), nullptr);
}

TEST_F(RecordsTest, WhatAReloadLetsGoOfIsReleased) {
    auto const released = [this] {
        Lines lines;
        for (auto const& each : writer.released())
            lines.push_back(each.interface + " " + each.groups.address().stringValue());
        return lines;
    };
    std::string const up0 = "[interface.up0]\naccess-lists = ['a']\n[interface.up0.group]\n";
    configure(up0 + "'239.1.1.1' = {}\n'239.1.1.2' = {}\n" + rule("a", 1, "239.2.0.0/31") +
              rule("a", 2, "239.3.0.0/31"));
    EXPECT_EQ(released(), Lines{});
    configure(up0 + "'239.1.1.2' = {}\n" + rule("a", 9, "239.3.0.0/31"));
    EXPECT_EQ(released(), (Lines{"up0 239.1.1.1", "up0 239.2.0.0"}));
    configure("[interface.up0]\n" + rule("a", 9, "239.3.0.0/31"));
    EXPECT_EQ(released(), (Lines{"up0 239.1.1.2", "up0 239.3.0.0"}));
    configure("");
    EXPECT_EQ(released(), Lines{}) << "an interface that goes holds nothing back";
}

TEST_F(RecordsTest, WhatAnEarlierRunOwesIsKeptUntilNobodyCanHearIt) {
    InterfaceState former{"up1", "", {}};
    former.groups.addRecord(RecordType::member, IpAddr("239.1.1.1"));
    InterfaceConfiguration const wanted;
    location.configuration = &wanted;
    ports->addFormer({former});
    doTurn();
    EXPECT_EQ(held(), Lines{"up1 2 239.1.1.1"});
    location.configuration = nullptr; // the device is gone, and the wish for it
    doTurn();
    EXPECT_EQ(held(), Lines{});

    location.followed = false; // no VRF is where it was
    former.namespaceName = "no-such-namespace";
    ports->addFormer({former});
    doTurn();
    EXPECT_EQ(held(), Lines{}) << "nor is its namespace";
}

/// Links that a test tells of. The configuration wants those here whose names begin so.
class ToldInterfaces : public InterfaceWriter {
  public:
    ToldInterfaces(Support::InProcessPlatform& platform, Place const& place, char const* wanted,
                   Observer observer)
        : InterfaceWriter(
              platform, place, [=](std::string const& name) { return name.starts_with(wanted); },
              std::move(observer)),
          platform_(platform) {}
    InterfaceTable const& links() const override { return links_; }
    bool synchronized() const override { return true; }
    void tell(NetlinkMessage const& message) {
        auto const ifindex = links_.readMessage(message.get());
        // Asked for as an interface is registered.
        for (auto const& [index, link] : links_.interfaces())
            *platform_.addresses.findOrInsert(Lox::IntfId(link.name)).first = address(link.name);
        if (ifindex) doPublishInterface(*ifindex);
    }

  private:
    Support::InProcessPlatform& platform_;
    InterfaceTable links_;
};

TEST_F(RecordsTest, LinkIsUsableWhileItIsUpHasAnAddressAndIsWhereItIsWanted) {
    Lox::NamespaceName const here = Lox::NamespaceName::defaultNamespace();
    platform.tables("red");
    platform.allVrfStatusLocal->vrfIs(L3::VrfName("red"))->networkNamespaceIs(here);
    configure("[vrf.red]\ndevice = 'vrf'\n[interface.up1]\n[interface.up2]\n"
              "[interface.red1]\nvrf = 'red'\n");
    // Of which interfaces each tells, with their hosts as they are then.
    std::string told[2];
    auto const noteIn = [&](std::string& notes) {
        return [&](std::string const& name) {
            auto const* const host = platform.host(name);
            notes += name + "=" + (host ? host->ipAddr().stringValue() : "") + " ";
        };
    };
    ToldInterfaces own(platform, {L3::VrfName("default"), here}, "up", noteIn(told[0]));
    ToldInterfaces red(platform, {L3::VrfName("red"), here, -1, "vrf"}, "red", noteIn(told[1]));
    struct {
        NetlinkMessage message;
        int teller;
        char const* told;
        char const* device; // whose kernel index is 7
    } const steps[] = {
        {linkMessage(RTM_NEWLINK, 7, "up1"), 0, "up1= ", "up1"},
        {addressMessage(RTM_NEWADDR, "10.0.0.1"), 0, "up1=10.0.0.1 ", "up1"},
        {addressMessage(RTM_NEWADDR, "10.0.0.2"), 0, "up1=10.0.0.1 ", "up1"},
        {addressMessage(RTM_DELADDR, "10.0.0.1"), 0, "up1=10.0.0.2 ", "up1"},
        {linkMessage(RTM_NEWLINK, 7, "up1", 0), 0, "up1= ", "up1"},
        {linkMessage(RTM_NEWLINK, 7, "up1"), 0, "up1=10.0.0.2 ", "up1"},
        {linkMessage(RTM_NEWLINK, 7, "up2"), 0, "up1= up2=10.0.0.2 ", "up2"},
        {linkMessage(RTM_NEWLINK, 7, "eth0"), 0, "up2= eth0= ", "eth0"},
        {linkMessage(RTM_NEWLINK, 7, "up1"), 0, "eth0= up1=10.0.0.2 ", "up1"},
        {linkMessage(RTM_DELLINK, 7, "up1"), 0, "up1= ", ""},
        // The VRF device is not there yet: nobody is its port.
        {linkMessage(RTM_NEWLINK, 7, "red1"), 1, "red1= ", "red1"},
        {addressMessage(RTM_NEWADDR, "10.0.0.1"), 1, "red1= ", "red1"},
        {linkMessage(RTM_NEWLINK, 7, "red1", IFF_UP | IFF_LOWER_UP, 9), 1, "red1= ", "red1"},
        {linkMessage(RTM_NEWLINK, 9, "vrf"), 1, "vrf= red1=10.0.0.1 ", "red1"},
        {linkMessage(RTM_NEWLINK, 9, "other"), 1, "vrf= other= red1= other= ", "red1"},
        {linkMessage(RTM_NEWLINK, 9, "vrf"), 1, "other= vrf= red1=10.0.0.1 ", "red1"},
        {linkMessage(RTM_NEWLINK, 7, "red1"), 1, "red1= ", "red1"},
    };
    for (auto const& step : steps) {
        told[0] = told[1] = "";
        own.tell(step.message);
        red.tell(step.message);
        EXPECT_EQ(told[step.teller], step.told) << &step - steps;
        EXPECT_EQ(platform.kni()->interface(KernelNetInfo::InterfaceKey(7)).deviceName, step.device)
            << &step - steps;
    }
}

} // namespace
} // namespace Agent
