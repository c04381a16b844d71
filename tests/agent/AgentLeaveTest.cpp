// What is left, and when: by an agent that ends or was ended, on interfaces that the file no longer
// names, and over links that do not always take packets.
#include "agent/AgentFixture.h"

namespace Testing {
namespace {

Lines const left{"BLOCK 239.1.1.2 10.0.0.1", "TO_IN 239.1.1.1"};

TEST_F(AgentTest, GroupsThatLeftTheFileWhileTheAgentWasDeadAreLeftIfTheirFileIsSound) {
    ASSERT_TRUE(startTells(twoOnUp0, joined));
    for (int i = 0; i < 2; ++i) { // the second time, only the file remembers them
        crash({"239.1.1.1", "239.1.1.2"});
        net->nearIp(i == 0 ? "link set up0 down" : "link set up0 up");
        wire->forget();
        start(groupsOn("up0", "'239.1.1.3' = {}\n'239.1.1.2' = { include = ['10.0.0.1'] }\n"));
    }
    EXPECT_TRUE(
        wire->hearsOnly(twice({"ALLOW 239.1.1.2 10.0.0.1", "TO_EX 239.1.1.3", "TO_IN 239.1.1.1"})));

    crash({"239.1.1.2", "239.1.1.3"});
    std::string damaged = folder.read("state");
    ASSERT_GT(damaged.size(), 30u);
    damaged[25] = char(damaged[25] + 1);
    folder.write("state", damaged);
    wire->forget();
    EXPECT_TRUE(startTells(groupsOn("up0", "'239.1.1.4' = {}\n"), {"TO_EX 239.1.1.4"}));
    EXPECT_TRUE(agent->says("its checksum is wrong; groups of an earlier run are not left"));

    agent->signal(SIGTERM);
    EXPECT_EQ(agent->exitStatus(), 0);
    EXPECT_FALSE(std::filesystem::exists(folder.file("state")));
}

TEST_F(AgentTest, LeavesOutliveTheVrfOfTheirInterface) {
    std::string const inRed = having("vrf = 'red'", twoOnUp0) + vrfIn(net->nearName());
    std::pair<char const*, std::function<void()>> const ends[] = {
        {"with the link up", [&] { reload(""); }},
        {"while the link is away",
         [&] {
             net->nearIp("link set up0 down");
             reload("");
             wire->forget();
             net->nearIp("link set up0 up");
         }},
        {"by the next run, as the link is away when an agent ends",
         [&] {
             net->nearIp("link set up0 down");
             agent->signal(SIGTERM);
             ASSERT_EQ(agent->exitStatus(), 0);
             start("");
             wire->forget();
             net->nearIp("link set up0 up");
         }},
        {"while the agent is dead", [&] {
             crash({"239.1.1.1", "239.1.1.2"});
             start("");
         }}};
    for (auto const& [when, end] : ends) {
        ASSERT_TRUE(startTells(inRed, joined));
        end();
        EXPECT_TRUE(wire->hearsOnly(twice(left))) << when << agent->output();
    }
}

TEST_F(AgentTest, LeavesAreOwedToTheNetworkThatHeardTheJoins) {
    Netns::addPair(net->farName(), "up0", "aux0", "10.97.0.1/24"); // of the same name, elsewhere
    Wire other(net->farName(), "aux0");
    std::string const vrf = vrfIn(net->farName());
    ASSERT_TRUE(startTells(vrf + twoOnUp0, joined));
    net->nearIp("link set up0 down");
    reload(vrf + having("vrf = 'red'", groupsOn("up0", "'239.1.1.3' = {}\n")));
    EXPECT_TRUE(other.hearsOnly(twice({"TO_EX 239.1.1.3"})));
    wire->forget();
    net->nearIp("link set up0 up");
    EXPECT_TRUE(wire->hearsOnly(twice(left)));
}

} // namespace
} // namespace Testing
