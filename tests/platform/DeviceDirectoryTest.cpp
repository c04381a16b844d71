// The directory of device names, over every order in which its three inputs may arrive.
#include "Interface/NetNsIntfStatusManager.h"
#include "TestRecords.h"

#include <gtest/gtest.h>
#include <random>

namespace Interface {
namespace {

using KernelNetInfo::InterfaceKey;

/// A namespace with its directory, watched as a machine does: what it is told it looks up at once.
struct Namespace : Nex::Listener<DeviceIntfStatusDir::NotifieeConst> {
    explicit Namespace(Nex::String const& name)
        : Listener(DeviceIntfStatusDir::DeviceIntfStatusDirIs(name)),
          ns(name),
          directory(const_cast<DeviceIntfStatusDir*>(notifier())) {}
    void kernel(std::uint32_t ifIndex, Nex::String const& device) {
        if (device.empty())
            kni->interfaceDel(InterfaceKey(ifIndex));
        else
            kni->interfaceIs(InterfaceKey(ifIndex), {ifIndex, device, {}});
    }
    void onIntfStatusAndDeviceName(Lox::IntfId intfId) override {
        auto const entry = notifier()->intfStatusAndDeviceName(intfId);
        told += intfId.stringValue() + '=' + Nex::textOf(entry.ifIndex) + ' ';
        if (other && entry.ifIndex != 0) {
            EXPECT_EQ(notifier()->intfToDeviceName(entry.ifIndex),
                      (IntfToDeviceName{intfId, entry.deviceName}));
            EXPECT_FALSE(other->directory->intfStatusAndDeviceNameHas(intfId));
        }
        if (act) act();
    }
    void onIntfToDeviceName(std::uint32_t) override {
        if (act) act();
    }
    Nex::String take() { return std::exchange(told, ""); }

    Lox::NamespaceName ns;
    Nex::Ptr<DeviceIntfStatusDir> directory;
    Nex::Ptr<KernelNetInfo::Status> kni = KernelNetInfo::Status::StatusIs("kni");
    Namespace* other = nullptr; ///< unless a change is nested: then halves of entries may be seen
    Nex::String told;
    std::function<void()> act;
};

struct Inputs {
    void local(Nex::String const& intf, Nex::String const& device, Nex::String const& ns = "ns1") {
        auto const status = allLocal->intfStatusLocalIs(Lox::IntfId(intf));
        status->networkNamespaceIs(Lox::NamespaceName(ns));
        status->deviceNameIs(device);
    }
    void operUp(Nex::String const& intf, bool up) {
        all->intfStatusIs(Lox::IntfId(intf))->operUpIs(up);
    }
    void start(Namespace const& in) { root->intfStatusManagerIs(in.directory, in.kni, in.ns); }
    /// The entries as the inputs demand them, "intf=device ..."; an index must name the device.
    Nex::String demanded(Namespace const& in) const {
        Nex::String text;
        for (auto const& key : Nex::sortedKeys(all->intfStatus())) {
            auto const* const local = allLocal->intfStatusLocal(key);
            if (!all->intfStatus(key)->operUp() || !local || local->networkNamespace() != in.ns)
                continue;
            bool found = false;
            for (auto const& item : in.kni->interface())
                found |= item.value.deviceName == local->deviceName();
            if (found) text += key.stringValue() + '=' + local->deviceName() + ' ';
        }
        return text;
    }
    Nex::String listed(Namespace const& in) const {
        Nex::String text;
        std::size_t consistent = 0;
        for (auto const& key : Nex::sortedKeys(in.directory->intfStatusAndDeviceName())) {
            auto const entry = in.directory->intfStatusAndDeviceName(key);
            text += key.stringValue() + '=' + entry.deviceName + ' ';
            consistent +=
                entry.intfStatus.get() == all->intfStatus(key) &&
                in.kni->interface(InterfaceKey(entry.ifIndex)).deviceName == entry.deviceName &&
                in.directory->intfToDeviceName(entry.ifIndex).intfId == key;
        }
        EXPECT_EQ(consistent, in.directory->intfStatusAndDeviceNameCount());
        EXPECT_EQ(consistent, in.directory->intfToDeviceNameCount());
        return text;
    }

    Nex::Ptr<AllIntfStatusDir> all = AllIntfStatusDir::AllIntfStatusDirIs("all");
    Nex::Ptr<AllIntfStatusLocalDir> allLocal =
        AllIntfStatusLocalDir::AllIntfStatusLocalDirIs("local");
    Nex::Ptr<NetNsIntfStatusManagerRoot> root =
        Nex::newObject<NetNsIntfStatusManagerRoot>(all, allLocal, true);
    Nex::Ptr<Namespace> one = Nex::newObject<Namespace>("ns1");
};

/// Interface a, up on a device that the kernel has not shown yet.
struct DeviceDirectory : testing::Test, Inputs {
    DeviceDirectory() {
        start(*one);
        operUp("a", true);
        local("a", "eth0");
    }
};

TEST_F(DeviceDirectory, WhatWasThereBeforeTheManagersIsFollowedToo) {
    root = Nex::newObject<NetNsIntfStatusManagerRoot>(all, allLocal, true);
    one->kernel(7, "eth0");
    start(*one);
    operUp("a", false);
    operUp("a", true);
    local("a", "eth1");
    EXPECT_EQ(one->take(), "a=7 a=0 a=7 a=0 ");
}

// Two VRFs may have one namespace, and be it until one of them has gone.
TEST_F(DeviceDirectory, ManagerThatGoesOrMakesWayFillsNoMore) {
    Nex::Ptr<NetNsIntfStatusManager> const held(root->intfStatusManager(one->ns));
    auto const second = Nex::newObject<Namespace>("ns1");
    root->intfStatusManagerIs(second->directory, one->kni, one->ns);
    one->kernel(7, "eth0");
    EXPECT_EQ(one->take() + second->take(), "a=7 a=7 ");
    root->intfStatusManagerDel(one->ns, one->directory);
    one->kernel(7, "");
    EXPECT_EQ(one->take() + second->take(), "a=0 ");
    root->intfStatusManagerIs(second->directory, second->kni, one->ns);
    one->kernel(7, "eth0");
    second->kernel(8, "eth0");
    EXPECT_EQ(second->take(), "a=8 ");
    root->intfStatusManagerDel(one->ns);
    EXPECT_EQ(root->intfStatusManager(one->ns), nullptr);
    second->kernel(8, "");
    root = Nex::newObject<NetNsIntfStatusManagerRoot>(all, allLocal, false);
    start(*second);
    second->kernel(9, "eth0");
    EXPECT_EQ(second->take(), "");
}

// An interface is in one directory at a time, whichever way it moves, and an error of whoever is
// told of one interface keeps no other from being listed.
TEST(DeviceDirectoryModel, FollowsItsInputsThroughEveryHistory) {
    for (unsigned seed = 0; seed < 100 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        auto const draw = [&](unsigned count) { return unsigned(random()) % count; };
        Inputs in;
        Nex::Ptr<Namespace> const two = Nex::newObject<Namespace>("ns2");
        Nex::Set<Namespace*> started;
        bool const throws = draw(2) == 0;
        bool thrown = false, caught = false;
        unsigned at = 0; // the notification in which another step is taken
        std::function<void()> const step = [&] {
            Nex::String const name(1, char('a' + draw(3)));
            // Two device names of each interface's own, so that no two want one device.
            Nex::String const device = name + char('0' + draw(2));
            Namespace* const place = draw(2) == 0 ? in.one.get() : two.get();
            switch (draw(8)) {
            case 0:
                return in.operUp(name, draw(2) == 0);
            case 1:
                return in.all->intfStatusDel(Lox::IntfId(name));
            case 2:
                return in.allLocal->intfStatusLocalDel(Lox::IntfId(name));
            case 3:
                return in.local(name, device, "ns" + Nex::textOf(1 + draw(3)));
            case 4:
                if (started.findOrInsert(place).second) in.start(*place);
                return;
            default:
                place->kernel(1 + draw(5), draw(3) > 0 ? device : "");
            }
        };
        in.one->act = two->act = [&] {
            bool const now = throws && draw(4) == 0;
            thrown |= now;
            if (now) throw Nex::RangeException("as told");
            if (at-- != 0) return;
            in.one->other = two->other = nullptr;
            step();
        };
        for (unsigned steps = 100; steps > 0 && !testing::Test::HasFailure(); --steps) {
            at = draw(4);
            in.one->other = two.get();
            two->other = in.one.get();
            thrown = caught = false;
            try {
                step();
            } catch (Nex::RangeException const&) {
                caught = true;
            }
            EXPECT_EQ(caught, thrown) << "whoever made the change hears of it";
            for (Namespace* const each : started.walk())
                EXPECT_EQ(in.listed(*each), in.demanded(*each));
        }
    }
}

} // namespace
} // namespace Interface
