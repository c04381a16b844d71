// The running agent and the routers: queries, older versions, and packets that are none.
#include "agent/AgentFixture.h"

#include <nlohmann/json.hpp>

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

TEST_F(AgentTest, ChangedSettingsTakeEffectWithoutAWord) {
    auto const text = [](std::string const& settings) {
        return "[interface.up0]\nunsolicited-report-interval = 0.1\n" + settings +
               "[interface.up0.group]\n" + groups;
    };
    net->farIp("link set br0 type bridge mcast_querier 0"); // only we ask
    ASSERT_TRUE(startTells(text(""), joined));
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
    ASSERT_TRUE(startTells(groupsOn("up0", groups), joined));

    Bytes const query = toGroup(v3Query(1, ip("239.1.1.2"), {ip("10.0.0.1")}), ip("239.1.1.2"));
    for (std::size_t const size : {1500u, 9216u, 9217u, 11900u}) {
        Bytes oversized = query;
        oversized.resize(size, 0xff);
        oversized[2] = oversized[3] = 0xff; // an IPv4 length of 65535
        Agent::setChecksum(std::span(oversized).first(Agent::ipHeaderOctets), 10);
        wire->send(oversized);
    }
    wire->send(toGroup(Agent::message(Agent::IgmpType::query, {}), ip("192.0.2.9"))); // in transit
    EXPECT_EQ(wire->answers(), Lines{}) << "none of these is a question";
    EXPECT_EQ(wire->heard(), Lines{});
    Bytes const question = toGroup(v3Query(1), ip("10.97.0.2")); // another of its addresses
    EXPECT_EQ(wire->answersTo(question, state.size()), state) << agent->output();
}

} // namespace
} // namespace Testing
