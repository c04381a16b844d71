// The running agent and the routers: queries, older versions, and packets that are none.
#include "agent/AgentFixture.h"

#include <nlohmann/json.hpp>
#include <random>

namespace Testing {
namespace {

using Agent::allSystems;
using Agent::Bytes;
using Agent::ip;
using Agent::packetOf;
using Agent::v3Query;

std::string const groups = "'239.1.1.1' = {}\n'239.1.1.2' = { include = ['10.0.0.1'] }\n";
Lines const state{"IS_EX 239.1.1.1", "IS_IN 239.1.1.2 10.0.0.1"};

Bytes toGroup(Bytes const& payload, Lox::IpAddr group) {
    return packetOf(payload, {ip("10.99.0.1"), group});
}

TEST_F(AgentTest, EveryOneOfManyGroupsIsLeft) {
    net->farIp("link set br0 type bridge mcast_snooping 0");
    std::string const group = "[[access-list.many]]\nsequence = 1\naction = 'permit'\n"
                              "source = 'any'\ndestination = '239.1.0.0/21'\n";
    start("[interface.up0]\nigmp-version = 2\npackets-per-100-ms = 10000\n"
          "unsolicited-report-interval = 0.1\naccess-lists = ['many']\n" +
          group);
    auto const comesToHear = [&](std::size_t count) {
        return waitUntil([&] { return wire->heard().size() >= count; });
    };
    EXPECT_TRUE(comesToHear(2 * 2048u));
    wire->forget();
    agent->signal(SIGTERM);
    EXPECT_EQ(agent->exitStatus(), 0) << agent->output();
    EXPECT_TRUE(comesToHear(2048));
    Lines left = wire->heard();
    left.erase(std::unique(left.begin(), left.end()), left.end());
    EXPECT_EQ(left.size(), 2048u);
    EXPECT_EQ(left.front(), "leave 239.1.0.0");
}

TEST_F(AgentTest, ChangedVersionAnnouncesAllGroupsInTheNewOne) {
    net->farIp("link set br0 type bridge mcast_querier 0"); // an answer in version 2 is a report
    start(groupsOn("up0", groups));
    ASSERT_TRUE(wire->hearsOnly(twice(joined)));
    reload(groupsOn("up0", groups, "2"));
    Lines const reports = twice({"v2 239.1.1.1", "v2 239.1.1.2"});
    EXPECT_TRUE(wire->hearsOnly(reports));
    reload(groupsOn("up0", groups));
    EXPECT_TRUE(wire->hearsOnly(twice(joined)));
    EXPECT_TRUE(learned({"down0 239.1.1.1 exclude", "down0 239.1.1.2 include 10.0.0.1"}));
}

TEST_F(AgentTest, ChangedSettingsTakeEffectWithoutAWord) {
    auto const text = [](std::string const& settings) {
        return "[interface.up0]\nunsolicited-report-interval = 0.1\n" + settings +
               "[interface.up0.group]\n" + groups;
    };
    net->farIp("link set br0 type bridge mcast_querier 0"); // only we ask
    start(text(""));
    ASSERT_TRUE(wire->hearsOnly(twice(joined)));
    reload(text("robustness = 3\nrequire-router-alert = true\nssm-only = true\n"
                "packets-per-100-ms = 7\n"));
    EXPECT_TRUE(wire->hearsOnly({}));
    wire->send(packetOf(v3Query(2), {.source = ip("10.99.0.1"), .options = {}}));
    wire->send(toGroup(Agent::message(Agent::IgmpType::query, {}, 2), allSystems));
    EXPECT_EQ(wire->answers(), Lines{});
    EXPECT_EQ(wire->heard(), Lines{});
    EXPECT_EQ(wire->answersTo(toGroup(v3Query(2), allSystems), state.size()), state);

    agent->signal(SIGUSR1);
    ASSERT_TRUE(waitUntil([&] { return !folder.read("status").empty(); }));
    auto const counted = nlohmann::json::parse(folder.read("status"))["igmpHost"]["up0"];
    EXPECT_EQ(counted["receivedDropped"]["noRouterAlert"], 1);
    EXPECT_EQ(counted["v2GeneralQueryReceived"], 1);
    EXPECT_EQ(counted["sendDropped"], 0);
}

TEST_F(AgentTest, GarbageIsDroppedAndTheNextQueryAnswered) {
    net->nearIp("link set up0 mtu 12000");
    net->farIp("link set down0 mtu 12000");
    net->nearIp("addr add 10.97.0.2/24 dev up0");
    net->farIp("link set br0 type bridge mcast_querier 0"); // only we ask
    start(groupsOn("up0", groups));
    ASSERT_TRUE(wire->hearsOnly(twice(joined)));

    Bytes const query = toGroup(v3Query(1, ip("239.1.1.2"), {ip("10.0.0.1")}), ip("239.1.1.2"));
    for (std::size_t const size : {1500u, 9216u, 9217u, 11900u}) {
        Bytes oversized = query;
        oversized.resize(size, 0xff);
        oversized[2] = oversized[3] = 0xff; // an IPv4 length of 65535
        Agent::setChecksum(std::span(oversized).first(Agent::ipHeaderOctets), 10);
        wire->send(oversized);
    }
    std::mt19937 random(1);
    for (int i = 0; i < 500; ++i) {
        Bytes noise(20 + random() % 200);
        for (auto& octet : noise) octet = std::uint8_t(random());
        noise[0] = std::uint8_t(0x40 | (noise[0] & 0x0f));
        noise[9] = IPPROTO_IGMP;
        wire->send(noise);
    }
    wire->send(toGroup(Agent::message(Agent::IgmpType::query, {}), ip("192.0.2.9"))); // in transit
    EXPECT_EQ(wire->answers(), Lines{}) << "none of these is a question";
    EXPECT_EQ(wire->heard(), Lines{});
    Bytes const question = toGroup(v3Query(1), ip("10.97.0.2")); // another of its addresses
    EXPECT_EQ(wire->answersTo(question, state.size()), state) << agent->output();
}

} // namespace
} // namespace Testing
