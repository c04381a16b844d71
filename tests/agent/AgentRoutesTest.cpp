// Multicast routes of the kernel as the upstream router comes to know them: whoever writes them, in
// each VRF, and beside groups that the operator wants.
#include "agent/AgentFixture.h"
#include "agent/kernel/MulticastRouter.h"

namespace Testing {
namespace {

using Agent::ip;

/// Traffic comes in by the upstream interface and goes out by out0.
class AgentRoutesTest : public AgentTest {
  protected:
    void SetUp() override {
        AgentTest::SetUp();
        if (net) near = route(*net, "up0");
    }
    static Agent::MulticastRouter route(Netns const& net, char const* upstream) {
        Netns::addPair(net.nearName(), "out0", "out1", "10.98.0.1/24");
        return {net, {upstream, "out0"}};
    }

    std::optional<Agent::MulticastRouter> near; ///< the routing daemon; with it go all its routes
};

TEST_F(AgentRoutesTest, RoutesOfADaemonReachTheUpstreamRouterAndLeaveIt) {
    if (shell("command -v smcrouted").status != 0) GTEST_SKIP() << "no smcrouted";
    near.reset();
    start(groupsOn("up0", ""));
    Folder const own;
    own.write("conf", "phyint up0 enable\nphyint out0 enable\n"
                      "mroute from up0 group 239.1.1.1 source 10.0.0.1 to out0\n");
    std::optional<Process> daemon(std::in_place, own, net->nearName(),
                                  Lines{"smcrouted", "-n", "-N", "-f", own.file("conf"), "-P",
                                        own.file("pid"), "-u", own.file("socket")});
    EXPECT_TRUE(learned({"down0 239.1.1.1 include 10.0.0.1"}));
    daemon.reset();
    EXPECT_TRUE(learned({})) << "the daemon was killed";
}

TEST_F(AgentRoutesTest, OnlyRoutesThatTheFileAsksForAreAnnounced) {
    near->addRoute(ip("10.0.0.1"), ip("239.1.1.1"));
    near->addRoute(ip("10.0.0.1"), ip("239.1.1.2"), 0, {});
    near->addRoute(ip("10.0.0.1"), ip("239.1.1.3"), 1, {0});
    near->addRoute({}, ip("239.1.1.5"));
    std::string const one = "down0 239.1.1.1 include 10.0.0.1",
                      two = "down0 239.1.1.2 include 10.0.0.1",
                      three = "down0 239.1.1.3 include 10.0.0.1", five = "down0 239.1.1.5 exclude";
    struct {
        char const* table;
        Lines learned;
        int joined, left;
    } const files[] = {
        {"require-output = false\n", {one, two, five}, 1, 0},
        {"incoming = 'any'\n", {one, three, five}, 1, 1},
        {"incoming = 'proxy-interface'\n", {one, five}, 0, 1},
    };
    start(groupsOn("up0", ""));
    EXPECT_TRUE(learned({one, five})) << "or a comparison would not know the routes yet";
    for (auto const& file : files) {
        std::string const text = groupsOn("up0", "") + "[forwarding-table]\n" + file.table;
        folder.write("ihproxyd.toml", text);
        auto const diff = json("diff");
        EXPECT_EQ(diff.at("joined"), file.joined) << diff;
        EXPECT_EQ(diff.at("left"), file.left) << diff;
        reload(text);
        EXPECT_TRUE(learned(file.learned)) << file.table;
    }
    for (auto const& [group, why] :
         {std::pair("1", "(10.0.0.1, 239.1.1.1) from up0 to out0, since "),
          std::pair("2", "(10.0.0.1, 239.1.1.2): no output interface (require-output)\n"),
          std::pair("3", "comes in by out0, no interface of the configuration (incoming)\n")})
        EXPECT_NE(ask("why up0 239.1.1." + std::string(group)).text.find(why), std::string::npos)
            << ask("why up0 239.1.1." + std::string(group)).text;
    near->addRoute(ip("10.0.0.1"), ip("239.1.1.2"));
    near->addRoute(ip("10.0.0.1"), ip("239.1.1.1"), 0, {});
    near->removeRoute(ip("0.0.0.0"), ip("239.1.1.5"));
    EXPECT_TRUE(learned({two}));
    near.reset();
    EXPECT_TRUE(learned({}));
}

TEST_F(AgentRoutesTest, EventsSayOnWhoseBehalfGroupsComeAndGo) {
    near->addRoute(ip("10.0.0.1"), ip("239.3.3.3"));
    start(having("access-lists = ['iptv']", groupsOn("up0", "'239.1.1.1' = {}\n")) +
          rule("iptv", 1, "239.2.2.2/31"));
    auto const tells = [&](std::string const& text) {
        return waitUntil([&] { return ask("events").text.find(text) != std::string::npos; });
    };
    std::string const ofTheFile = "239.1.1.1 (configuration), 239.2.2.2 239.2.2.3 (list iptv)";
    EXPECT_TRUE(tells("joined " + ofTheFile));
    EXPECT_TRUE(tells("239.3.3.3 (route)"));
    reload(groupsOn("up0", ""));
    EXPECT_TRUE(tells("left " + ofTheFile)) << ask("events").text;
    near->removeRoute(ip("10.0.0.1"), ip("239.3.3.3"));
    EXPECT_TRUE(tells("left 239.3.3.3 (route)")) << ask("events").text;
}

// There is no VRF device in many kernels; as far as links go a bridge looks like one.
TEST_F(AgentRoutesTest, PortsOfAVrfDeviceAreItsInterfaces) {
    near->addRoute(ip("10.0.0.1"), ip("239.1.1.2")); // of another VRF's table
    start("[vrf.red]\ndevice = 'vrf-red'\n" +
          having("vrf = 'red'", groupsOn("up0", "'239.1.1.1' = {}\n")));
    EXPECT_TRUE(agent->says("up0: is no port of vrf-red")) << agent->output();
    net->nearIp("link add vrf-red type bridge mcast_snooping 0");
    net->nearIp("link set vrf-red up");
    EXPECT_TRUE(wire->hearsOnly({}));
    net->nearIp("link set up0 master vrf-red");
    EXPECT_TRUE(wire->hearsOnly(twice({"TO_EX 239.1.1.1"}))) << agent->output();
    EXPECT_EQ(json("interfaces").at("interfaces")[0].at("vrf"), "red");
    net->nearIp("link set up0 nomaster");
    EXPECT_TRUE(wire->hearsOnly(twice({"TO_IN 239.1.1.1"}))) << agent->output();
}

std::string const here = groupsOn("up0", "'239.1.1.1' = { include = ['10.0.0.1'] }\n");
std::string const there = "'239.1.1.1' = { include = ['10.0.0.2'] }\n";
Lines const hereLearned{"down0 239.1.1.1 include 10.0.0.1", "down0 239.1.1.2 include 10.0.0.3"};
Lines const thereLearned{"down0 239.1.1.1 include 10.0.0.2", "down0 239.1.1.2 include 10.0.0.4"};

TEST_F(AgentRoutesTest, VrfsOfTheSameAddressesAndGroupsComeAndGoAndHealAndDoNotMix) {
    Netns const red; // its up1 has the address of the other one's up0
    hasten(red);
    std::optional<Agent::MulticastRouter> redNear;
    auto const setUpRed = [&] {
        red.nearIp("link set up0 down name up1");
        red.nearIp("link set up1 up");
        redNear = route(red, "up1");
        redNear->addRoute(ip("10.0.0.4"), ip("239.1.1.2"));
    };
    auto const inRed = [&](std::string const& groups) {
        return having("vrf = 'red'", groupsOn("up1", groups)) + vrfIn(red.nearName());
    };
    auto const redLearned = [&](Lines const& table) { return learned(table, red); };
    setUpRed();
    near->addRoute(ip("10.0.0.3"), ip("239.1.1.2"));
    // Else the agent would give up what enters namespaces.
    std::string const file = here + "[vrf.none]\n";
    ASSERT_TRUE(startTells(file, {"ALLOW 239.1.1.1 10.0.0.1", "ALLOW 239.1.1.2 10.0.0.3"}));
    EXPECT_TRUE(learned(hereLearned));
    std::size_t const descriptors = agent->openDescriptors();
    reload(file + inRed(there));
    EXPECT_TRUE(redLearned(thereLearned));
    for (int i = 0; i < 2; ++i) {
        redNear.reset();
        shell("ip netns del " + red.nearName());
        // Its end of the link is gone when the agent holds nothing of it any more.
        EXPECT_TRUE(waitUntil([&] {
            return red.farIp("-brief link show").find("down0") == std::string::npos;
        })) << agent->output();
        EXPECT_TRUE(redLearned({}));
        shell("ip netns add " + red.nearName());
        red.plugInUpstream();
        setUpRed();
        EXPECT_TRUE(redLearned(thereLearned));
    }
    redNear.reset();
    EXPECT_TRUE(redLearned({thereLearned[0]}));
    // The interface leaves the VRF for the default one, which lacks it.
    reload(file + groupsOn("up1", there));
    EXPECT_TRUE(redLearned({}));
    // An interface that is gone goes on to tell its leaves.
    EXPECT_TRUE(opens(descriptors));
    EXPECT_TRUE(wire->hearsOnly({}));
    EXPECT_EQ(net->bridgeTable(), hereLearned);
}

TEST_F(AgentRoutesTest, GroupsAnnouncedBeforeAreLeftOnlyOnceTheRoutesAreKnown) {
    near->addRoute(ip("10.0.0.1"), ip("239.2.0.1"));
    near->addRoute(ip("10.0.0.2"), ip("239.2.0.2"));
    ASSERT_TRUE(
        startTells(groupsOn("up0", ""), {"ALLOW 239.2.0.1 10.0.0.1", "ALLOW 239.2.0.2 10.0.0.2"}));
    crash({"239.2.0.1", "239.2.0.2"});
    near->removeRoute(ip("10.0.0.2"), ip("239.2.0.2"));
    EXPECT_TRUE(
        startTells(groupsOn("up0", ""), {"ALLOW 239.2.0.1 10.0.0.1", "BLOCK 239.2.0.2 10.0.0.2"}));
}

} // namespace
} // namespace Testing
