// Whoever watches the library's records may change an interface from inside a callback, or throw:
// each interface is still set up and taken down in one piece.
#include "Disturber.h"
#include "Library.h"

namespace IgmpHostProxy {
namespace {

Lox::IpAddr const groupH = ip("239.1.1.2");

/// An interface in the VRF "blue" comes up. Returns its configuration.
Nex::Ptr<IntfConfig> comeUp(World& world) {
    if (!world.root) world.start();
    world.tables("blue");
    world.vrf("blue", "ns-blue");
    Nex::Ptr<IntfConfig> const config = world.config->intfConfigIs(up0);
    auto const group = config->groupSourceListIs(groupG);
    for (auto const source : {sourceS, sourceT, ip("10.0.0.3")}) group->includeSourceListIs(source);
    config->groupSourceListIs(groupH)->excludeSourceListIs(anySource);
    world.usableIntf("up0", 2, "blue");
    return config;
}

/// Disturbs `world` at one notification of the records that the library writes.
Nex::Ptr<Disturber> disturb(World& world, unsigned at, std::function<void(World&)> const& happen) {
    auto const disturber = Nex::newObject<Disturber>(at, [&world, happen] { happen(world); });
    disturber->follow(world.status.get());
    disturber->follow(world.hostDir.get());
    disturber->follow(world.hostStatusDir.get());
    disturber->follow(world.sourceIntfSm.get());
    return disturber;
}

/// Runs `life` again and again, each time disturbed one notification later, until it ends before.
/// `expect` tells what holds afterwards, whatever the moment.
void disturbEverywhere(char const* name, std::function<void(World&)> const& life,
                       std::function<void(World&)> const& happen,
                       std::function<void(World&)> const& expect) {
    for (unsigned at = 0; !::testing::Test::HasFailure(); ++at) {
        SCOPED_TRACE(name + std::string(", at notification ") + std::to_string(at));
        World world;
        auto const disturber = disturb(world, at, happen);
        try {
            life(world);
        } catch (Nex::Exception const& error) {
            ADD_FAILURE() << error.what();
        }
        if (!disturber->disturbed()) return;
        disturber->stop();
        expect(world);
    }
}

/// What there is of an interface belongs together, and to that interface.
void expectSound(World& world, Lox::IntfId const& intfId) {
    std::string const name = intfId.stringValue();
    IgmpHostProxySm& root = *world.root;
    auto const* const machine = root.igmpHostProxyIntfSm(intfId);
    auto const* const binding = root.igmpHostIntfSm(intfId);
    ASSERT_TRUE(machine && binding && world.host(name) && world.intfStatus(name)) << name;
    EXPECT_EQ(machine->intfStatus(), world.intfStatus(name));
    EXPECT_EQ(machine->srcIntfIhpIntf()->intfId(), intfId);
    EXPECT_EQ(binding->srcIntfIhpIntf()->intfId(), intfId);
    EXPECT_EQ(world.host(name)->ipAddr(), binding->srcIntfIhpIntf()->ipAddr());
}

TEST(Reentrance, EachInterfaceIsSetUpAndTakenDownInOnePiece) {
    auto const expectUp0 = [](World& world) { expectSound(world, up0); };
    auto const comeAndGo = [](World& world) {
        comeUp(world);
        world.addressOf("up0", "0.0.0.0");
        world.addressOf("up0", "192.0.2.2");
    };
    auto const lookAnew = [](World& world) { world.root->handleIntfConfig(up0); };
    disturbEverywhere("looked at anew as it comes up", comeUp, lookAnew, expectUp0);
    disturbEverywhere("looked at anew as it goes", comeAndGo, lookAnew, expectUp0);
    disturbEverywhere(
        "its address goes and comes", comeUp,
        [](World& world) {
            world.addressOf("up0", "0.0.0.0");
            world.addressOf("up0", "192.0.2.2");
        },
        expectUp0);
    disturbEverywhere(
        "another interface comes up", comeUp,
        [](World& world) {
            world.config->intfConfigIs(up1);
            world.usableIntf("up1", 3, "blue");
        },
        [](World& world) {
            expectSound(world, up0);
            expectSound(world, up1);
        });
}

// A watcher that throws interrupts whoever wrote. The host is filled in the next time, the
// interface goes as a whole, and comes up complete when it is configured anew.
TEST(Reentrance, WhatAnErrorInterruptedIsMadeGood) {
    World calm;
    comeUp(calm);
    for (unsigned at = 0;; ++at) {
        SCOPED_TRACE("thrown at notification " + std::to_string(at));
        World world;
        auto const disturber =
            disturb(world, at, [](World&) { throw Nex::RangeException("thrown by a watcher"); });
        auto const attempt = [&](auto const& act) {
            try {
                act();
            } catch (Nex::RangeException const&) {
            }
        };
        attempt([&] { comeUp(world); });
        comeUp(world);
        world.root->handleIntfConfig(up0);
        ASSERT_NE(world.host("up0"), nullptr);
        EXPECT_TRUE(world.host("up0")->enablePeriodicReport());
        bool const cameUpCalmly = !disturber->disturbed();
        attempt([&] { world.config->intfConfigDel(up0); });
        EXPECT_EQ(world.status->intfStatusCount() + world.hostDir->igmpHostCount(), 0u);
        EXPECT_EQ(world.root->igmpHostProxyIntfSm(up0), nullptr);
        if (!disturber->disturbed()) break;
        if (cameUpCalmly) continue; // the host agent may have missed the host's end
        comeUp(world);
        EXPECT_EQ(world.dump(), calm.dump());
        if (::testing::Test::HasFailure()) break;
    }
}

} // namespace
} // namespace IgmpHostProxy
