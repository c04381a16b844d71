// The directory of device names, over every order in which its three inputs may arrive.
#include "Interface/NetNsIntfStatusManager.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

namespace Interface {
namespace {

using KernelNetInfo::InterfaceKey;

/// Watches the directory as a machine does, and looks up at once what it is told of.
struct Reader : Nex::Reactor<DeviceIntfStatusDir::NotifieeConst, Nex::PtrInterface> {
    explicit Reader(Nex::Ptr<DeviceIntfStatusDir> directory)
        : Reactor(std::move(directory), static_cast<Nex::PtrInterface*>(nullptr)) {
        hasNotificationActiveIs(true);
    }
    void onIntfStatusAndDeviceName(Lox::IntfId intfId) override {
        auto const entry = notifier()->intfStatusAndDeviceName(intfId);
        told += intfId.stringValue() + '=' + Nex::textOf(entry.ifIndex) + ' ';
        if (entry.ifIndex != 0) {
            EXPECT_EQ(notifier()->intfToDeviceName(entry.ifIndex),
                      (IntfToDeviceName{intfId, entry.deviceName}));
        }
        if (act) act();
    }
    Nex::String told;
    std::function<void()> act;
};

struct Inputs {
    void kernel(std::uint32_t ifIndex, Nex::String const& device) {
        if (device.empty()) {
            kni->interfaceDel(InterfaceKey(ifIndex));
        } else {
            kni->interfaceIs(InterfaceKey(ifIndex), {ifIndex, device, {}});
        }
    }
    void local(Nex::String const& intf, Nex::String const& device, Nex::String const& ns = "ns1") {
        auto const status = allLocal->intfStatusLocalIs(Lox::IntfId(intf));
        status->networkNamespaceIs(Lox::NamespaceName(ns));
        status->deviceNameIs(device);
    }
    void operUp(Nex::String const& intf, bool up) {
        all->intfStatusIs(Lox::IntfId(intf))->operUpIs(up);
    }
    void start() {
        root->intfStatusManagerIs(directory, kni, ns1);
        reader = Nex::newObject<Reader>(directory);
    }
    /// The entries as the inputs demand them, "intf=device ..."; an index must name the device.
    Nex::String demanded() const {
        Nex::String text;
        for (auto const& key : Nex::sortedKeys(all->intfStatus())) {
            auto const* const local = allLocal->intfStatusLocal(key);
            if (!all->intfStatus(key)->operUp() || !local || local->networkNamespace() != ns1)
                continue;
            bool found = false;
            for (auto const& item : kni->interface())
                found |= item.value.deviceName == local->deviceName();
            if (found) text += key.stringValue() + '=' + local->deviceName() + ' ';
        }
        return text;
    }
    Nex::String listed() const {
        Nex::String text;
        std::size_t consistent = 0;
        for (auto const& key : Nex::sortedKeys(directory->intfStatusAndDeviceName())) {
            auto const entry = directory->intfStatusAndDeviceName(key);
            text += key.stringValue() + '=' + entry.deviceName + ' ';
            consistent +=
                entry.intfStatus.get() == all->intfStatus(key) &&
                kni->interface(InterfaceKey(entry.ifIndex)).deviceName == entry.deviceName &&
                directory->intfToDeviceName(entry.ifIndex).intfId == key;
        }
        EXPECT_EQ(consistent, directory->intfStatusAndDeviceNameCount());
        EXPECT_EQ(consistent, directory->intfToDeviceNameCount());
        return text;
    }
    Nex::String take() { return std::exchange(reader->told, ""); }

    Lox::NamespaceName const ns1{"ns1"};
    Nex::Ptr<AllIntfStatusDir> all = AllIntfStatusDir::AllIntfStatusDirIs("all");
    Nex::Ptr<AllIntfStatusLocalDir> allLocal =
        AllIntfStatusLocalDir::AllIntfStatusLocalDirIs("local");
    Nex::Ptr<DeviceIntfStatusDir> directory = DeviceIntfStatusDir::DeviceIntfStatusDirIs("ns1");
    Nex::Ptr<KernelNetInfo::Status> kni = KernelNetInfo::Status::StatusIs("kni");
    Nex::Ptr<NetNsIntfStatusManagerRoot> root =
        Nex::newObject<NetNsIntfStatusManagerRoot>(all, allLocal, true);
    Nex::Ptr<Reader> reader;
};

TEST(DeviceDirectory, DeviceThatVanishesIsRenamedOrReindexed) {
    Inputs in;
    in.start();
    in.operUp("a", true);
    in.local("a", "eth0");
    in.kernel(7, "eth0");
    EXPECT_EQ(in.take(), "a=7 ");
    in.kernel(7, "other");
    EXPECT_EQ(in.take(), "a=0 ");
    in.kernel(7, "eth0");
    in.kernel(7, "");
    EXPECT_EQ(in.take(), "a=7 a=0 ");
    in.kernel(8, "eth0");
    in.kernel(9, "eth0"); // the successor is seen before the end of the device before it
    EXPECT_EQ(in.take(), "a=8 a=0 a=9 ");
    in.kernel(8, "");
    EXPECT_EQ(in.take(), "") << "another device now";
}

TEST(DeviceDirectory, WhatHappensWhileAnInterfaceIsTakenOutCounts) {
    Inputs in;
    in.start();
    in.operUp("a", true);
    in.local("a", "eth0");
    in.kernel(7, "eth0");
    in.reader->act = [&] {
        // The device that was to be listed next.
        if (in.directory->intfStatusAndDeviceNameCount() == 0) in.kernel(8, "");
    };
    in.kernel(8, "eth0");
    EXPECT_EQ(in.listed(), in.demanded());
}

TEST(DeviceDirectory, ManagerThatGoesOrMakesWayFillsNoMore) {
    Inputs in;
    in.start();
    in.operUp("a", true);
    in.local("a", "eth0");
    Nex::Ptr<NetNsIntfStatusManager> const held(in.root->intfStatusManager(in.ns1));
    auto const other = DeviceIntfStatusDir::DeviceIntfStatusDirIs("other");
    in.root->intfStatusManagerIs(other, in.kni, in.ns1);
    in.kernel(7, "eth0");
    EXPECT_EQ(in.take(), "");
    EXPECT_EQ(other->intfStatusAndDeviceNameCount(), 1u);
    in.root->intfStatusManagerDel(in.ns1);
    EXPECT_EQ(in.root->intfStatusManager(in.ns1), nullptr);
    in.kernel(7, "");
    EXPECT_EQ(other->intfStatusAndDeviceNameCount(), 1u);

    auto const idle = Nex::newObject<NetNsIntfStatusManagerRoot>(in.all, in.allLocal, false);
    idle->intfStatusManagerIs(in.directory, in.kni, in.ns1);
    in.kernel(7, "eth0");
    EXPECT_EQ(in.listed(), "");
}

RC_GTEST_PROP(DeviceDirectory, FollowsItsInputsThroughEveryHistory, ()) {
    Inputs in;
    bool started = false;
    auto const intf = [] { return Nex::String(1, *rc::gen::element('a', 'b', 'c')); };
    // Two device names of each interface's own, so that no two want one device.
    auto const device = [&](Nex::String const& owner) {
        return owner + *rc::gen::element('0', '1');
    };
    int const steps = *rc::gen::inRange(0, 100);
    for (int i = 0; i < steps; ++i) {
        Nex::String const name = intf();
        switch (*rc::gen::inRange(0, 8)) {
        case 0:
            in.operUp(name, *rc::gen::element(false, true));
            break;
        case 1:
            in.all->intfStatusDel(Lox::IntfId(name));
            break;
        case 2:
            in.allLocal->intfStatusLocalDel(Lox::IntfId(name));
            break;
        case 3:
            in.local(name, device(name), *rc::gen::element("ns1", "ns1", "ns2"));
            break;
        case 4:
            if (!std::exchange(started, true)) in.start();
            break;
        default:
            in.kernel(*rc::gen::inRange(1u, 6u),
                      *rc::gen::element(true, true, false) ? device(name) : "");
        }
        if (!started) continue;
        RC_ASSERT(in.listed() == in.demanded());
    }
}

} // namespace
} // namespace Interface
