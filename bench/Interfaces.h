// Interfaces and VRFs that come and go, at one and at thousands: what one of them costs should not
// depend on how many there are.
#pragma once

#include "Harness.h"
#include "support/InProcessPlatform.h"

#include <cstdint>
#include <string>

namespace Bench {

inline std::string intfName(std::uint32_t at) { return "up" + std::to_string(at); }

/// A device with its interfaces; a proxy machine works on each.
struct IntfWorld : Support::InProcessPlatform {
    explicit IntfWorld(std::uint32_t interfaces, bool up) : count(interfaces) {
        start();
        tables();
        if (up) comeUp();
    }
    void comeUp() {
        for (std::uint32_t at = 0; at < count; ++at) {
            std::string const name = intfName(at);
            config->intfConfigIs(Lox::IntfId(name));
            vrfOfIntf(name, "default");
            addressOf(name, "192.0.2.2");
            kernelDevice(name, at + 1);
            listIntf(name);
        }
        expectProxying(count);
    }
    /// As a device does when it is reconfigured: the interface goes, then its kernel device.
    void go() {
        for (std::uint32_t at = 0; at < count; ++at) {
            config->intfConfigDel(Lox::IntfId(intfName(at)));
            delistIntf(intfName(at));
            kni()->interfaceDel(KernelNetInfo::InterfaceKey(at + 1));
        }
        expectProxying(0);
    }
    void macIs(std::uint32_t at, std::uint8_t last) {
        kni()->interfaceIs(KernelNetInfo::InterfaceKey(at + 1),
                           {at + 1, intfName(at), Lox::EthAddr({2, 0, 0, 0, 1, last})});
    }
    void expectProxying(std::size_t expected) const {
        if (root->igmpHostProxyIntfSm().size() != expected)
            fail("an interface is not where it should be");
    }

    std::uint32_t count;
};

/// A device with as many VRFs, each with one interface that the proxy leaves alone.
struct VrfWorld : Support::InProcessPlatform {
    explicit VrfWorld(std::uint32_t vrfs, bool up) : count(vrfs) {
        start();
        if (up) comeUp();
    }
    static std::string name(std::uint32_t at) { return "vrf" + std::to_string(at); }
    void comeUp() {
        for (std::uint32_t at = 0; at < count; ++at) {
            std::string const ns = "ns-" + name(at);
            allVrfStatusLocal->vrfIs(L3::VrfName(name(at)))
                ->networkNamespaceIs(Lox::NamespaceName(ns));
            kernelDevice(intfName(at), 1, ns);
            listIntf(intfName(at), ns);
        }
        expectListed(count - 1);
    }
    void go() {
        for (std::uint32_t at = 0; at < count; ++at) {
            delistIntf(intfName(at));
            allVrfStatusLocal->vrfDel(L3::VrfName(name(at)));
        }
        if (root->kernelVrfIntfStatus(L3::VrfName(name(count - 1))))
            fail("an interface is not where it should be");
    }
    void expectListed(std::uint32_t at) const {
        auto const* const view = root->kernelVrfIntfStatus(L3::VrfName(name(at)));
        if (!view->deviceIntfStatusDir()->intfStatusAndDeviceNameHas(Lox::IntfId(intfName(at))))
            fail("an interface is not where it should be");
    }

    std::uint32_t count;
};

/// All come up, or those that are there go; and the world looks that they have.
template <class World, bool there>
struct Passage {
    explicit Passage(std::uint32_t count) : world(count, there) {}
    void run() { there ? world.go() : world.comeUp(); }
    bool done() const { return true; }

    World world;
};
template <class World>
using ComingUp = Passage<World, false>;
template <class World>
using Going = Passage<World, true>;

/// The kernel tells a new MAC address of each interface.
struct MacChanges {
    explicit MacChanges(std::uint32_t count) : world(count, true) {}
    void run() {
        for (std::uint32_t at = 0; at < world.count; ++at) world.macIs(at, 0xFF);
    }
    bool done() const {
        return world.intfStatus(intfName(world.count - 1))->macAddr().octets()[5] == 0xFF;
    }

    IntfWorld world;
};

/// One interface out of as many VRFs is delisted and listed again, as often.
struct Relistings {
    explicit Relistings(std::uint32_t count) : world(count, true) {}
    void run() {
        for (std::uint32_t at = 0; at < world.count; ++at) {
            world.delistIntf(intfName(0));
            world.listIntf(intfName(0), "ns-" + VrfWorld::name(0));
        }
        world.expectListed(0);
    }
    bool done() const { return true; }

    VrfWorld world;
};

} // namespace Bench
