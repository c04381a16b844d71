// Whatever comes first, the same state comes out: of two interfaces in two VRFs, which share the
// root's one slot, and of one whose root starts before, among or after its inputs.
#include "Library.h"

#include <random>

namespace IgmpHostProxy {
namespace {

void configure(World& world, Lox::IntfId const& intfId) {
    auto const config = world.config->intfConfigIs(intfId);
    config->igmpVersionIs(IgmpVersion::v2);
    config->unsolicitedReportIntvlIs(UnsolicitedReportInterval(2.5));
    config->groupSourceListIs(groupG)->includeSourceListIs(sourceS);
    config->groupSourceListIs(ip("239.1.1.2"))->excludeSourceListIs(anySource);
}

struct Event {
    char const* name;
    std::function<void(World&)> happen;
};

Lines stateAfter(std::vector<Event> const& events) {
    World world;
    for (auto const& event : events) {
        event.happen(world);
        world.pass(0.3);
    }
    world.pass(2);
    EXPECT_EQ(world.timerWheel->nextExpiry(), Nex::never);
    return world.dump();
}

TEST(ArrivalOrder, TheInputsOfOneOrTwoInterfacesEndAlike) {
    Event const start{"start", [](World& w) { w.start(); }};
    std::vector<Event> const one{
        {"configuration of up0", [](World& w) { configure(w, up0); }},
        {"IP status of up0", [](World& w) { w.vrfOfIntf("up0", "default"); }},
        {"device name of up0", [](World& w) { w.listIntf("up0"); }},
        {"tables", [](World& w) { w.tables(); }},
        {"kernel device of up0", [](World& w) { w.kernelDevice("up0", 2); }},
        {"address of up0", [](World& w) { w.addressOf("up0", "192.0.2.2"); }},
    };
    std::vector<Event> both{
        {"configuration of up1", [](World& w) { configure(w, up1); }},
        {"IP status of up1", [](World& w) { w.vrfOfIntf("up1", "blue"); }},
        {"device name of up1", [](World& w) { w.listIntf("up1", "ns-blue"); }},
        {"tables of blue", [](World& w) { w.tables("blue"); }},
        {"kernel device of up1", [](World& w) { w.kernelDevice("up1", 3, "ns-blue"); }},
        {"address of up1", [](World& w) { w.addressOf("up1", "192.0.2.3"); }},
        {"VRF", [](World& w) { w.vrf("blue", "ns-blue"); }},
    };
    both.insert(both.begin(), one.begin(), one.end());
    std::mt19937 random(1);
    Lines expected[2];
    for (unsigned i = 0; i < 800; ++i) {
        std::size_t const two = i % 2;
        std::vector<Event> events = two ? both : one;
        if (i > 1) std::shuffle(events.begin(), events.end(), random);
        // A root that starts late finds the one slot taken by the last of several interfaces.
        std::size_t const at = i > 1 && !two ? random() % (events.size() + 1) : 0;
        events.insert(events.begin() + std::ptrdiff_t(at), start);
        if (i < 2) expected[two] = stateAfter(events);
        std::string order;
        for (auto const& event : events) order += std::string(event.name) + ", ";
        ASSERT_EQ(stateAfter(events), expected[two]) << order;
    }
    for (char const* const line :
         {"intfStatus[up0]/groupSourceList[239.1.1.1]/includeSourceList has 10.0.0.1",
          "intfStatus[up0]/macAddr = 02:00:00:00:00:02", "igmpHost[up0]/ipAddr = 192.0.2.2",
          "igmpHost[up0]/deviceName = up0", "igmpHost[up0]/igmpVersion = 2",
          "igmpHost[up0]/unsolicitedReportInterval = 2.5",
          "igmpHost[up0]/v3group[239.1.1.1]/filterMode = 1",
          "igmpHost[up0]/v3group[239.1.1.1]/sourceList/sourceIp[10.0.0.1] = 1",
          "igmpHost[up0]/v3group[239.1.1.2]/filterMode = 2", "igmpHost[up1]/ipAddr = 192.0.2.3",
          "igmpHost[up1]/ns = ns-blue", "igmpHost[up1]/macAddr = 02:00:00:00:00:03"})
        EXPECT_EQ(std::count(expected[1].begin(), expected[1].end(), line), 1) << line;
}

} // namespace
} // namespace IgmpHostProxy
