// VRFs, their kernel interface tables and device names.
#include "Library.h"

namespace IgmpHostProxy {
namespace {

L3::VrfName const blue("blue");
L3::VrfName const defaultVrf("default");

class Vrf : public ::testing::Test {
  protected:
    Vrf() { world.start(); }
    Vardo::MountedTable const* mountOf(char const* ns) {
        return world.entityManager->mounted("kni/ns/" + std::string(ns) + "/status");
    }
    Interface::DeviceIntfStatusDir& directoryOf(L3::VrfName const& vrf) {
        return *world.root->kernelVrfIntfStatus(vrf)->deviceIntfStatusDir();
    }
    bool managed(char const* ns) {
        return world.root->intfStatusManagerRoot()->intfStatusManager(Lox::NamespaceName(ns));
    }

    World world;
};

TEST_F(Vrf, TheDefaultVrfIsSetUpOnceAndByItself) {
    ASSERT_NE(mountOf("default"), nullptr);
    EXPECT_EQ(mountOf("default")->typeName(), "KernelNetInfo::Status");
    EXPECT_EQ(mountOf("default")->mountInfoType(), 3u);
    EXPECT_EQ(directoryOf(defaultVrf).name(), "kvis-default");
    auto const* const view = world.root->kernelVrfIntfStatus(defaultVrf);

    world.vrf("default", "ns-other");
    world.vrf("", "ns-none");
    world.allVrfStatusLocal->vrfDel(defaultVrf);
    EXPECT_EQ(world.root->kernelVrfIntfStatus(defaultVrf), view);
    EXPECT_EQ(mountOf("ns-other"), nullptr);
    EXPECT_EQ(mountOf("ns-none"), nullptr);
    EXPECT_EQ(world.root->kernelVrfIntfStatus(L3::VrfName()), nullptr);
    EXPECT_TRUE(managed("default"));
}

TEST_F(Vrf, AViewLivesFromTheFirstNamespaceUntilTheVrfGoes) {
    auto const vrf = world.allVrfStatusLocal->vrfIs(blue);
    EXPECT_EQ(world.root->kernelVrfIntfStatus(blue), nullptr);
    vrf->networkNamespaceIs(Lox::NamespaceName("ns-blue"));
    ASSERT_NE(world.root->kernelVrfIntfStatus(blue), nullptr);
    EXPECT_EQ(mountOf("ns-blue")->typeName(), "KernelNetInfo::Status");
    EXPECT_EQ(mountOf("ns-blue")->mountInfoType(), 3u);
    EXPECT_EQ(directoryOf(blue).name(), "kvis-blue");
    EXPECT_TRUE(managed("ns-blue"));
    EXPECT_FALSE(world.root->kernelVrfIntfStatus(blue)->hasBackupSupport());

    // Without its namespace the VRF keeps what it has; in another one it gets a new directory.
    Nex::Ptr<KernelVrfIntfStatus> const view = world.root->kernelVrfIntfStatus(blue);
    Nex::Ptr<Interface::DeviceIntfStatusDir> const directory = view->deviceIntfStatusDir();
    vrf->networkNamespaceIs(Lox::NamespaceName());
    EXPECT_EQ(view->deviceIntfStatusDir(), directory);
    vrf->networkNamespaceIs(Lox::NamespaceName("ns-azure"));
    EXPECT_EQ(world.root->kernelVrfIntfStatus(blue), view.get());
    EXPECT_NE(view->deviceIntfStatusDir(), directory);
    EXPECT_TRUE(managed("ns-azure"));
    EXPECT_FALSE(managed("ns-blue"));

    world.allVrfStatusLocal->vrfDel(blue);
    EXPECT_EQ(world.root->kernelVrfIntfStatus(blue), nullptr);
    EXPECT_EQ(world.root->vrf(blue), nullptr);
    EXPECT_EQ(world.root->vrfIntfStatusDir(blue), nullptr);
    EXPECT_EQ(mountOf("ns-blue"), nullptr);
    EXPECT_FALSE(managed("ns-azure"));
}

// As when a VRF is renamed: the new one may come before the old one goes.
TEST_F(Vrf, TwoVrfsMayHaveOneNamespace) {
    world.vrf("azure", "ns-blue");
    world.vrf("blue", "ns-blue");
    EXPECT_EQ(mountOf("ns-blue")->mounts(), 2u);
    world.allVrfStatusLocal->vrfDel(L3::VrfName("azure"));
    world.usableIntf("up0", 2, "blue");
    EXPECT_EQ(mountOf("ns-blue")->mounts(), 1u);
    EXPECT_TRUE(directoryOf(blue).intfStatusAndDeviceNameHas(up0));
    world.allVrfStatusLocal->vrfDel(blue);
    EXPECT_FALSE(managed("ns-blue"));
}

TEST_F(Vrf, OneThatCouldNotMountItsTableUnmountsNobodyElses) {
    world.entityManager->factoryIs(
        "KernelNetInfo::Status",
        [](Nex::String const& path) -> Nex::Ptr<Nex::Entity> { throw Nex::RangeException(path); });
    EXPECT_THROW(world.vrf("azure", "ns-blue"), Nex::RangeException);
    world.entityManager->factoryIs(
        "KernelNetInfo::Status", [this](Nex::String const& path) { return world.kniTable(path); });
    world.vrf("blue", "ns-blue");
    world.allVrfStatusLocal->vrfDel(L3::VrfName("azure"));
    ASSERT_NE(mountOf("ns-blue"), nullptr);
    EXPECT_EQ(mountOf("ns-blue")->mounts(), 1u);
}

struct MountWatch : EntryWatch<Vardo::EntityManager, Nex::String> {
    using EntryWatch::EntryWatch;
    void onMounted(Nex::String key) override { hear(key, notifier()->mounted(key)); }
};

TEST_F(Vrf, TheRootsEndUnmountsWhatItHasMounted) {
    world.vrf("blue", "ns-blue");
    world.vrf("azure", "ns-azure");
    world.entityManager->doMount("kni/ns/ns-azure/status", "KernelNetInfo::Status", 3);
    Nex::Owned<MountWatch> watch; // an error there keeps no other table mounted
    watch.make(world.entityManager, [](Nex::String const& path, bool) {
        if (path == "kni/ns/ns-blue/status") throw Nex::Exception("from a callback");
        return false;
    });
    world.root = nullptr;
    EXPECT_EQ(mountOf("default"), nullptr);
    EXPECT_EQ(mountOf("ns-blue"), nullptr);
    ASSERT_NE(mountOf("ns-azure"), nullptr);
    EXPECT_EQ(mountOf("ns-azure")->mounts(), 1u) << "somebody else's";
}

TEST(VrfThatVanishes, TakesItsViewMountAndManagerAlong) {
    for (unsigned const moment : {0u, 1u, 2u, 3u}) {
        bool const beforeTheRoot = moment % 2 == 0;
        SCOPED_TRACE(moment);
        World world;
        Nex::Owned<InterfaceWatch> watch;
        Nex::Owned<MountWatch> mountWatch;
        auto const vanish = [&](auto const&, bool) {
            world.allVrfStatusLocal->vrfDel(blue);
            return false;
        };
        if (moment < 2) {
            watch.make(world.status, vanish);
        } else {
            mountWatch.make(world.entityManager, [&](Nex::String const& path, bool mounted) {
                return path == "kni/ns/ns-blue/status" && vanish(path, mounted);
            });
        }
        for (auto const* const name : {"up0", "up1"}) world.config->intfConfigIs(Lox::IntfId(name));
        if (!beforeTheRoot) world.start();
        world.tables("blue");
        world.usableIntf("up0", 2, "blue");
        world.usableIntf("up1", 3, "blue");
        world.vrf("blue", "ns-blue");
        if (beforeTheRoot) world.start();
        EXPECT_FALSE(world.allVrfStatusLocal->vrfHas(blue));
        EXPECT_EQ(world.root->kernelVrfIntfStatus(blue), nullptr);
        EXPECT_EQ(world.entityManager->mounted("kni/ns/ns-blue/status"), nullptr);
        EXPECT_FALSE(
            world.root->intfStatusManagerRoot()->intfStatusManager(Lox::NamespaceName("ns-blue")));
    }
}

class VrfWithInterface : public Vrf {
  protected:
    VrfWithInterface() {
        world.tables("blue");
        world.vrf("blue", "ns-blue");
        world.config->intfConfigIs(up0);
        world.usableIntf("up0", 2, "blue");
        table = world.kniTable("kni/ns/ns-blue/status");
    }
    void macIs(std::uint32_t ifIndex, std::uint8_t last, std::uint32_t named,
               char const* device = "up0") {
        table->interfaceIs(KernelNetInfo::InterfaceKey(ifIndex),
                           {named, device, Lox::EthAddr({2, 0, 0, 0, 0, last})});
    }
    /// A directory of our own making, with up0 in it.
    Nex::Ptr<Interface::DeviceIntfStatusDir> filledDirectory() {
        auto const directory = Interface::DeviceIntfStatusDir::DeviceIntfStatusDirIs("filled");
        directory->intfToDeviceNameIs(2, {up0, "up0"});
        directory->intfStatusAndDeviceNameIs(up0, {nullptr, "up0", 2});
        return directory;
    }
    std::string mac() { return Nex::textOf(world.intfStatus("up0")->macAddr()); }

    Nex::Ptr<KernelNetInfo::Status> table;
};

TEST_F(VrfWithInterface, TheMacAddressFollowsTheKernelsTable) {
    ASSERT_NE(world.intfStatus("up0"), nullptr);
    EXPECT_EQ(mac(), "02:00:00:00:00:02");
    macIs(2, 9, 2);
    EXPECT_EQ(mac(), "02:00:00:00:00:09");
    EXPECT_EQ(world.host("up0")->macAddr(), world.intfStatus("up0")->macAddr());

    macIs(3, 7, 3, "eth3");            // no interface at all
    world.listIntf("eth0", "ns-blue"); // an interface, but not of the proxy
    world.kernelDevice("eth0", 4, "ns-blue");
    world.root->getIntfEthAddr(blue, 99);
    EXPECT_EQ(world.status->intfStatusCount(), 1u);
    EXPECT_TRUE(world.sourceIntfSm->registered(up0)) << "nobody else was looked at";
    EXPECT_EQ(mac(), "02:00:00:00:00:09");

    world.root->kernelVrfIntfStatus(blue)->deviceIntfStatusDirIs(filledDirectory());
    macIs(2, 8, 77); // the entry of 2 names 77: corrupt, reported, not used
    EXPECT_EQ(table->corruptions(), 1u);
    EXPECT_EQ(mac(), "02:00:00:00:00:09");
}

TEST_F(VrfWithInterface, AnInterfaceWithoutANameHasAMacAddress) {
    world.config->intfConfigIs(Lox::IntfId());
    world.vrfOfIntf("", "blue");
    world.kernelDevice("eth3", 3, "ns-blue");
    auto const directory = filledDirectory();
    directory->intfToDeviceNameIs(3, {Lox::IntfId(), "eth3"});
    directory->intfStatusAndDeviceNameIs(Lox::IntfId(), {nullptr, "eth3", 3});
    world.root->kernelVrfIntfStatus(blue)->deviceIntfStatusDirIs(directory);
    ASSERT_NE(world.intfStatus(""), nullptr);
    EXPECT_EQ(world.intfStatus("")->macAddr(), World::macOf(3));
}

TEST_F(VrfWithInterface, ADeviceNameTakesTheInterfaceUpAndDown) {
    EXPECT_NE(world.root->igmpHostProxyIntfSm(up0), nullptr);
    TraceLog trace(7);
    world.delistIntf("up0");
    EXPECT_EQ(trace.take()[0], "7 devicename : ");
    EXPECT_EQ(world.root->igmpHostProxyIntfSm(up0), nullptr);
    EXPECT_EQ(world.intfStatus("up0"), nullptr);
    EXPECT_EQ(world.host("up0"), nullptr);
    world.listIntf("up0", "ns-blue");
    EXPECT_NE(world.root->igmpHostIntfSm(up0), nullptr);

    // Another kernel index is another device: everything anew, with its MAC address.
    world.kernelDevice("up0", 5, "ns-blue");
    EXPECT_EQ(mac(), "02:00:00:00:00:05");
}

// A directory that is handed to the view with interfaces in it takes them up as it comes.
TEST_F(VrfWithInterface, ADirectoryIsLookedThroughAsItArrives) {
    world.delistIntf("up0");
    auto const directory = filledDirectory();
    Nex::Ptr<Interface::DeviceIntfStatusDir> const before =
        world.root->kernelVrfIntfStatus(blue)->deviceIntfStatusDir();
    world.root->kernelVrfIntfStatus(blue)->deviceIntfStatusDirIs(directory);
    EXPECT_NE(world.root->igmpHostProxyIntfSm(up0), nullptr);
    directory->intfStatusAndDeviceNameDel(up0);
    EXPECT_EQ(world.root->igmpHostProxyIntfSm(up0), nullptr);
    before->intfStatusAndDeviceNameIs(up0, {nullptr, "up0", 2}); // nobody listens there any more
    EXPECT_EQ(world.intfStatus("up0"), nullptr);
    directory->intfStatusAndDeviceNameIs(up0, {nullptr, "up0", 2});
    directory->intfStatusAndDeviceNameIs(up0, {nullptr, "", 2}); // an index without a name
    EXPECT_NE(world.root->igmpHostProxyIntfSm(up0), nullptr);
    directory->intfStatusAndDeviceNameIs(up0, {nullptr, "up0", 0}); // a name without an index
    EXPECT_NE(world.root->igmpHostProxyIntfSm(up0), nullptr);
    directory->intfStatusAndDeviceNameDel(up0);
    EXPECT_EQ(world.root->igmpHostProxyIntfSm(up0), nullptr);

    // Not to its end, if what one of them brings about ends the VRF.
    world.config->intfConfigIs(up1);
    auto const two = filledDirectory();
    two->intfStatusAndDeviceNameIs(up1, {nullptr, "up1", 3});
    Nex::Owned<InterfaceWatch> watch;
    watch.make(world.status, [&](Lox::IntfId const&, bool) {
        world.allVrfStatusLocal->vrfDel(blue);
        return true;
    });
    world.root->kernelVrfIntfStatus(blue)->deviceIntfStatusDirIs(two);
    EXPECT_EQ(world.root->kernelVrfIntfStatus(blue), nullptr);
}

} // namespace
} // namespace IgmpHostProxy
