// Whatever comes first, the same state comes out.
#include "Library.h"

#include <functional>
#include <random>

namespace IgmpHostProxy {
namespace {

struct Event {
    char const* name;
    std::function<void(World&)> happen;
};
using Events = std::vector<Event>;

void configure(World& world, Lox::IntfId const& intfId) {
    auto const config = world.config->intfConfigIs(intfId);
    config->igmpVersionIs(IgmpVersion::v2);
    config->unsolicitedReportIntvlIs(UnsolicitedReportInterval(2.5));
    config->groupSourceListIs(groupG)->includeSourceListIs(sourceS);
    config->groupSourceListIs(ip("239.1.1.2"))->excludeSourceListIs(anySource);
}

Lines stateAfter(Events const& events) {
    World world;
    for (auto const& event : events) {
        event.happen(world);
        world.pass(0.3);
    }
    world.pass(2);
    EXPECT_EQ(world.timerWheel->nextExpiry(), Nex::never);
    return world.dump();
}
/// With the root's start behind the first `count` events.
Events startedAfter(std::size_t count, Events events) {
    events.insert(events.begin() + std::ptrdiff_t(count),
                  {"start", [](World& world) { world.start(); }});
    return events;
}
std::string namesOf(Events const& events) {
    std::string names;
    for (auto const& event : events) names += std::string(event.name) + ", ";
    return names;
}

TEST(ArrivalOrder, AllOrdersOfAnInterfacesInputsEndAlike) {
    Events events{
        {"configuration", [](World& w) { configure(w, up0); }},
        {"IP status", [](World& w) { w.vrfOfIntf("up0", "default"); }},
        {"device name", [](World& w) { w.listIntf("up0"); }},
        {"tables", [](World& w) { w.tables(); }},
        {"kernel device", [](World& w) { w.kernelDevice("up0", 2); }},
        {"address", [](World& w) { w.addressOf("up0", "192.0.2.2"); }},
    };
    Lines const expected = stateAfter(startedAfter(0, events));
    for (char const* const line :
         {"intfStatus[up0]/groupSourceList[239.1.1.1]/includeSourceList has 10.0.0.1",
          "intfStatus[up0]/macAddr = 02:00:00:00:00:02", "igmpHost[up0]/ipAddr = 192.0.2.2",
          "igmpHost[up0]/deviceName = up0", "igmpHost[up0]/igmpVersion = 2",
          "igmpHost[up0]/unsolicitedReportInterval = 2.5",
          "igmpHost[up0]/v3group[239.1.1.1]/filterMode = 1",
          "igmpHost[up0]/v3group[239.1.1.1]/sourceList/sourceIp[10.0.0.1] = 1",
          "igmpHost[up0]/v3group[239.1.1.2]/filterMode = 2"})
        EXPECT_EQ(std::count(expected.begin(), expected.end(), line), 1) << line;

    auto const byName = [](Event const& a, Event const& b) {
        return std::string_view(a.name) < b.name;
    };
    std::sort(events.begin(), events.end(), byName);
    unsigned orders = 0;
    do {
        // The root starts first, or somewhere among them, or last.
        std::size_t const before = std::vector<std::size_t>{0, orders % 7, 6}[orders % 3];
        Events const order = startedAfter(before, events);
        ASSERT_EQ(stateAfter(order), expected) << namesOf(order);
        ++orders;
    } while (std::next_permutation(events.begin(), events.end(), byName));
    EXPECT_EQ(orders, 720u);
}

// Two interfaces in two VRFs share the root's one slot, and each still ends with its own address.
TEST(ArrivalOrder, TwoInterfacesDoNotGetInEachOthersWay) {
    Events events{
        {"configuration of up0", [](World& w) { configure(w, up0); }},
        {"configuration of up1", [](World& w) { configure(w, up1); }},
        {"IP status of up0", [](World& w) { w.vrfOfIntf("up0", "default"); }},
        {"IP status of up1", [](World& w) { w.vrfOfIntf("up1", "blue"); }},
        {"device name of up0", [](World& w) { w.listIntf("up0"); }},
        {"device name of up1", [](World& w) { w.listIntf("up1", "ns-blue"); }},
        {"tables", [](World& w) { w.tables(); }},
        {"tables of blue", [](World& w) { w.tables("blue"); }},
        {"kernel device of up0", [](World& w) { w.kernelDevice("up0", 2); }},
        {"kernel device of up1", [](World& w) { w.kernelDevice("up1", 3, "ns-blue"); }},
        {"address of up0", [](World& w) { w.addressOf("up0", "192.0.2.2"); }},
        {"address of up1", [](World& w) { w.addressOf("up1", "192.0.2.3"); }},
        {"VRF", [](World& w) { w.vrf("blue", "ns-blue"); }},
    };
    Lines const expected = stateAfter(startedAfter(0, events));
    for (char const* const line :
         {"igmpHost[up0]/ipAddr = 192.0.2.2", "igmpHost[up1]/ipAddr = 192.0.2.3",
          "igmpHost[up1]/ns = ns-blue", "igmpHost[up1]/macAddr = 02:00:00:00:00:03"})
        EXPECT_EQ(std::count(expected.begin(), expected.end(), line), 1) << line;
    std::mt19937 random(1);
    for (int i = 0; i < 300; ++i) {
        std::shuffle(events.begin(), events.end(), random);
        ASSERT_EQ(stateAfter(startedAfter(0, events)), expected) << namesOf(events);
    }
}

} // namespace
} // namespace IgmpHostProxy
