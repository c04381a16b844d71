// Interfaces that fail, come late, go away and change while the agent runs. It heals by itself.
#include "agent/AgentFixture.h"

#include <random>

namespace Testing {
namespace {

Lines const learnedOnce{"down0 239.1.1.1 exclude", "down0 239.1.1.2 include 10.0.0.1"};

TEST_F(AgentTest, NoWordWithoutAnAddressAndAllOfThemWithANewOne) {
    ASSERT_TRUE(startTells(twoOnUp0, joined));
    net->nearIp("addr del 10.99.0.2/24 dev up0");
    EXPECT_TRUE(reloadTells(groupsOn("up0", "'239.1.1.3' = {}\n"), {}));
    EXPECT_TRUE(agent->says("warning: up0: has no IPv4 address\n")) << agent->output();
    net->nearIp("addr add 10.99.0.2/24 dev up0");
    EXPECT_TRUE(
        wire->hearsOnly(twice({"TO_EX 239.1.1.3", "TO_IN 239.1.1.1", "BLOCK 239.1.1.2 10.0.0.1"})))
        << "also the leaves that nobody could be told";
    net->nearIp("addr add 10.97.0.2/24 dev up0");
    net->nearIp("addr del 10.99.0.2/24 dev up0");
    EXPECT_TRUE(wire->hears({"TO_EX 239.1.1.3"}));
    for (Lox::IpAddr const source : wire->sources()) EXPECT_EQ(source, Lox::IpAddr("10.97.0.2"));
}

TEST_F(AgentTest, ReportsFitTheMtuAfterItHasChanged) {
    auto const sources = [](int first, int last, char const* before, char const* behind = "") {
        std::string text;
        for (int i = first; i <= last; ++i)
            text += before + ("10.0.0." + std::to_string(i)) + behind;
        return text;
    };
    start(groupsOn("up0", ""));
    net->nearIp("link set up0 mtu 300");
    EXPECT_TRUE(reloadTells(
        groupsOn("up0", "'239.1.1.2' = { include = [" + sources(1, 100, "'", "', ") + "] }\n"),
        {"ALLOW 239.1.1.2" + sources(1, 65, " "), "ALLOW 239.1.1.2" + sources(66, 100, " ")}));
}

TEST_F(AgentTest, ChangedSettingsTakeEffectWithoutAWord) {
    net->farIp("link set br0 type bridge mcast_querier 0"); // only we ask
    ASSERT_TRUE(startTells(twoOnUp0, joined));
    EXPECT_TRUE(reloadTells(having("robustness = 3\nrequire-router-alert = true\nssm-only = true\n"
                                   "packets-per-100-ms = 7",
                                   twoOnUp0),
                            {}));
    Agent::Envelope const router{Agent::ip("10.99.0.1")};
    for (Agent::Bytes const& refused :
         {Agent::packetOf(Agent::v3Query(2), {.source = router.source, .options = {}}),
          Agent::packetOf(Agent::message(Agent::IgmpType::query, {}, 2), router)})
        EXPECT_EQ(wire->answersTo(refused, 0), Lines{});
    EXPECT_TRUE(wire->hearsOnly({}));
    EXPECT_EQ(wire->answersTo(Agent::packetOf(Agent::v3Query(2), router), 2),
              (Lines{"IS_EX 239.1.1.1", "IS_IN 239.1.1.2 10.0.0.1"}));

    agent->signal(SIGUSR1);
    ASSERT_TRUE(waitUntil([&] { return !folder.read("status").empty(); }));
    auto const counted = nlohmann::json::parse(folder.read("status"))["igmpHost"]["up0"];
    EXPECT_EQ(counted["receivedDropped"]["noRouterAlert"], 1);
    EXPECT_EQ(counted["v2GeneralQueryReceived"], 1);
    EXPECT_EQ(counted["sendDropped"], 0);
}

TEST_F(AgentTest, InterfaceThatRefusesPacketsHoldsUpNeitherReloadNorEnd) {
    ASSERT_TRUE(startTells(twoOnUp0, joined));
    if (!net->nearQdisc("add dev up0 root bfifo limit 1"))
        GTEST_SKIP() << "no bfifo in this kernel";
    wire->forget();
    reload(groupsOn("up0", "'239.1.1.3' = {}\n"));
    EXPECT_TRUE(agent->says("not sent, the last one because of: No buffer space"))
        << agent->output();
    EXPECT_TRUE(net->nearQdisc("del dev up0 root"));
    EXPECT_TRUE(wire->hears({"TO_EX 239.1.1.3"})) << "what was dropped is told later";
    EXPECT_TRUE(net->nearQdisc("add dev up0 root bfifo limit 1"));
    wire->forget();
    reload("");
    EXPECT_TRUE(agent->says("packets while leaving")) << agent->output();
    EXPECT_TRUE(net->nearQdisc("del dev up0 root"));
    EXPECT_TRUE(wire->hearsOnly({"TO_IN 239.1.1.3", "TO_IN 239.1.1.3"}))
        << "what it has not taken it is offered again";
    EXPECT_TRUE(net->nearQdisc("add dev up0 root bfifo limit 1"));
    reload(twoOnUp0);
    agent->signal(SIGTERM);
    EXPECT_EQ(agent->exitStatus(), 0);
    EXPECT_TRUE(wire->hearsOnly({}));
    EXPECT_NE(folder.read("state"), "") << "for the next run";
}

TEST_F(AgentTest, AfterADisorderOfEventsAllIsAsTheFileSays) {
    start(twoOnUp0);
    ASSERT_TRUE(learned(learnedOnce));
    std::size_t const descriptors = agent->openDescriptors();
    auto const heal = [&] {
        net->farIp("link set down0 up");
        net->nearIp("link set up0 up");
        net->nearIp("addr replace 10.99.0.2/24 dev up0");
    };
    auto const rewrite = [&](std::string const& text) {
        folder.write("ihproxyd.toml", text);
        agent->signal(SIGHUP);
    };
    std::function<void()> const events[] = {
        [&] { net->nearIp("link del up0"), net->plugInUpstream(); },
        [&] { net->farIp("link set down0 down"); },
        [&] { net->nearIp("addr flush dev up0"); },
        [&] { net->nearIp("link set up0 down"); },
        [&] { rewrite(groupsOn("up0", "'239.1.1.7' = {}\n")); },
        [&] { rewrite(""); },
    };
    std::mt19937 random(7);
    for (int i = 0; i < 60; ++i) {
        std::size_t const event = random() % (std::size(events) + 3);
        event < std::size(events) ? events[event]() : heal();
    }
    heal();
    rewrite(twoOnUp0);
    EXPECT_TRUE(learned(learnedOnce));
    EXPECT_TRUE(opens(descriptors));
    net->nearIp("link del up0");
    agent->signal(SIGTERM);
    EXPECT_EQ(agent->exitStatus(), 0) << agent->output();
}

} // namespace
} // namespace Testing
