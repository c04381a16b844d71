// What is left, and when: by an agent that ends or was ended, on interfaces that the file no longer
// names, and over links that do not always take packets.
#include "agent/AgentFixture.h"

namespace Testing {
namespace {

char constexpr twoGroups[] = "'239.1.1.1' = {}\n'239.1.1.2' = { include = ['10.0.0.1'] }\n";
Lines const left{"BLOCK 239.1.1.2 10.0.0.1", "TO_IN 239.1.1.1"};

Lines operator+(Lines a, Lines const& b) {
    a.insert(a.end(), b.begin(), b.end());
    std::sort(a.begin(), a.end());
    return a;
}

TEST_F(AgentTest, GroupsThatLeftTheFileWhileTheAgentWasDeadAreLeft) {
    start(groupsOn("up0", twoGroups));
    ASSERT_TRUE(wire->hearsOnly(twice(joined)));
    for (int i = 0; i < 2; ++i) { // the second time, only the file remembers them
        crash({"239.1.1.1", "239.1.1.2"});
        net->nearIp(i == 0 ? "link set up0 down" : "link set up0 up");
        wire->forget();
        start(groupsOn("up0", "'239.1.1.3' = {}\n'239.1.1.2' = { include = ['10.0.0.1'] }\n"));
    }
    Lines const now = twice({"ALLOW 239.1.1.2 10.0.0.1", "TO_EX 239.1.1.3", "TO_IN 239.1.1.1"});
    EXPECT_TRUE(wire->hearsOnly(now));

    crash({"239.1.1.2", "239.1.1.3"});
    wire->forget();
    start("");
    Lines const all = twice({"BLOCK 239.1.1.2 10.0.0.1", "TO_IN 239.1.1.3"});
    EXPECT_TRUE(wire->hearsOnly(all)) << "on an interface that is not configured at all";
    EXPECT_TRUE(learned({}));

    reload(groupsOn("up0", twoGroups));
    ASSERT_TRUE(wire->hears(twice(joined)));
    agent->signal(SIGTERM);
    EXPECT_EQ(agent->exitStatus(), 0);
    EXPECT_FALSE(std::filesystem::exists(folder.file("state")));
}

TEST_F(AgentTest, DamagedStateFileIsReportedAndLeavesNothing) {
    start(groupsOn("up0", twoGroups));
    ASSERT_TRUE(wire->hearsOnly(twice(joined)));
    crash({"239.1.1.1", "239.1.1.2"});
    std::string damaged = folder.read("state");
    ASSERT_GT(damaged.size(), 30u);
    damaged[25] = char(damaged[25] + 1);
    folder.write("state", damaged);
    wire->forget();
    start(groupsOn("up0", "'239.1.1.3' = {}\n"));
    EXPECT_TRUE(agent->says("its checksum is wrong; groups of an earlier run are not left"));
    EXPECT_TRUE(wire->hearsOnly(twice({"TO_EX 239.1.1.3"})));
}

TEST_F(AgentTest, InterfaceThatLeavesAndIsConfiguredAgainJoinsWhatItWants) {
    start(groupsOn("up0", twoGroups));
    ASSERT_TRUE(wire->hearsOnly(twice(joined)));
    reload("");
    EXPECT_TRUE(wire->hears(left));
    reload(groupsOn("up0", "'239.1.1.1' = {}\n"));
    Lines const merged = left + Lines{"BLOCK 239.1.1.2 10.0.0.1"} + twice({"TO_EX 239.1.1.1"});
    Lines heard = wire->heardAfter(merged);
    if (std::ranges::count(heard, left[1]) == 2)
        heard.pop_back(); // before the reload, if it was late
    EXPECT_EQ(heard, merged) << "the other group goes on leaving";
    EXPECT_TRUE(learned({"down0 239.1.1.1 exclude"}));
}

TEST_F(AgentTest, LeavesOutliveTheVrfOfTheirInterface) {
    std::string inRed = groupsOn("up0", twoGroups);
    inRed.insert(inRed.find('\n') + 1, "vrf = 'red'\n");
    inRed += "[vrf.red]\nnamespace = '" + net->nearName() + "'\n";
    std::pair<char const*, std::function<void()>> const ends[] = {
        {"with the link up", [&] { reload(""); }},
        {"while the link is away",
         [&] {
             net->nearIp("link set up0 down");
             reload("");
             wire->forget();
             net->nearIp("link set up0 up");
         }},
        {"while the agent is dead", [&] {
             crash({"239.1.1.1", "239.1.1.2"});
             start("");
         }}};
    for (auto const& [when, end] : ends) {
        start(inRed);
        ASSERT_TRUE(wire->hearsOnly(twice(joined)));
        end();
        EXPECT_TRUE(wire->hearsOnly(twice(left))) << when << agent->output();
    }
}

TEST_F(AgentTest, InterfaceRemovedWhileItsLinkIsAwayIsLeftWhenTheLinkIsBack) {
    start(groupsOn("up0", twoGroups));
    ASSERT_TRUE(wire->hearsOnly(twice(joined)));
    net->nearIp("link set up0 down");
    reload("");
    wire->forget();
    net->nearIp("link set up0 up");
    EXPECT_TRUE(wire->hearsOnly(twice(left)));
}

TEST_F(AgentTest, LeavesAreOwedToTheNetworkThatHeardTheJoins) {
    net->farIp("link add up0 type veth peer name aux0"); // of the same name, elsewhere
    net->farIp("link set aux0 up");
    net->farIp("addr add 10.97.0.1/24 dev up0");
    net->farIp("link set up0 up");
    Wire other(net->farName(), "aux0");
    std::string const vrf = "[vrf.red]\nnamespace = '" + net->farName() + "'\n";
    start(vrf + groupsOn("up0", twoGroups));
    ASSERT_TRUE(wire->hearsOnly(twice(joined)));
    net->nearIp("link set up0 down");
    std::string elsewhere = groupsOn("up0", "'239.1.1.3' = {}\n");
    elsewhere.insert(elsewhere.find('\n') + 1, "vrf = 'red'\n");
    reload(vrf + elsewhere);
    Lines const there = twice({"TO_EX 239.1.1.3"});
    EXPECT_TRUE(other.hearsOnly(there));
    wire->forget();
    net->nearIp("link set up0 up");
    EXPECT_TRUE(wire->hearsOnly(twice(left)));
}

TEST_F(AgentTest, WhatAnAgentThatEndsCannotLeaveIsLeftByTheNext) {
    start(groupsOn("up0", twoGroups));
    ASSERT_TRUE(wire->hearsOnly(twice(joined)));
    net->nearIp("link set up0 down");
    agent->signal(SIGTERM);
    ASSERT_EQ(agent->exitStatus(), 0);
    start("");
    wire->forget();
    net->nearIp("link set up0 up");
    EXPECT_TRUE(wire->hearsOnly(twice(left)));
}

/// So many that the state file is written, and read, in several pieces.
TEST_F(AgentTest, ThousandsOfGroupsThatADeadAgentAnnouncedAreLeft) {
    start("[interface.up0]\naccess-lists = ['all']\npackets-per-100-ms = 1000\n"
          "[[access-list.all]]\nsequence = 1\naction = 'permit'\nsource = 'any'\n"
          "destination = '239.2.0.0/21'\n");
    std::set<std::string> groups;
    for (std::uint32_t i = 0; i < 2048; ++i)
        groups.insert(Lox::IpAddr::fromHost(0xEF020000 + i).stringValue());
    crash(groups);
    start("");
    EXPECT_TRUE(learned({}));
}

} // namespace
} // namespace Testing
