// The root machine: how interfaces come up and go down, its single slot for the source interface,
// start-up and destruction.
#include "Library.h"

namespace IgmpHostProxy {
namespace {

class Root : public ::testing::Test {
  protected:
    IgmpHostProxySm& root() { return *world.root; }
    bool proxying(Lox::IntfId const& intfId) {
        bool const machine = root().igmpHostProxyIntfSm(intfId) != nullptr;
        std::string const name = intfId.stringValue();
        EXPECT_EQ(machine, world.host(name) != nullptr) << name;
        EXPECT_EQ(machine, root().igmpHostIntfSm(intfId) != nullptr) << name;
        return machine;
    }
    /// up0 in the default VRF, then up1 in the VRF "blue", both at work; up1 has the slot.
    void twoInterfaces() {
        world.start();
        world.tables();
        world.tables("blue");
        world.vrf("blue", "ns-blue");
        world.usableIntf("up0", 2);
        world.usableIntf("up1", 3, "blue");
        world.config->intfConfigIs(up0);
        world.config->intfConfigIs(up1);
        ASSERT_TRUE(proxying(up0) && proxying(up1));
    }
    std::string slot() { return root().srcIntfIhpIntf()->intfId().stringValue(); }

    World world;
};

TEST_F(Root, AnInterfaceComesUpStepByStepAndSaysWhatIsMissing) {
    world.start();
    TraceLog trace(7);
    world.config->intfConfigIs(up0);
    EXPECT_EQ(trace.take(), (Lines{"7 Interface up0 has no IpStatus.",
                                   "7 VrfName not known from IpStatus. We retry again later."}));
    EXPECT_TRUE(root().checkInterfaceHas(up0));

    world.vrfOfIntf("up0", "blue");
    root().handleIntfConfig(up0);
    EXPECT_EQ(trace.take(), Lines{"7 Ignoring since Kernel Intf Status is not ready"});
    world.vrfOfIntf("up0", "default");
    root().handleIntfConfig(up0);
    EXPECT_EQ(trace.take(), Lines{"7 Interface device name is "});
    EXPECT_EQ(world.intfStatus("up0"), nullptr);

    world.addressOf("up0", "192.0.2.2");
    world.kernelDevice("up0", 2);
    world.listIntf("up0");
    EXPECT_EQ(trace.take(),
              (Lines{"7 devicename : up0",
                     "7 IgmpHostProxy configured for interface : up0 and devicename : up0",
                     "7 Registering interface:up0", "7 Adding intfStatus for up0",
                     "7 Setting interface MAC address",
                     "7 IGMP host-proxy configured on interface : up0", "7 Setting deviceName: up0",
                     "7 Initializing IgmpHostProxyIntfSm and IgmpHostIntfSm"}));
    ASSERT_NE(world.intfStatus("up0"), nullptr);
    EXPECT_EQ(world.intfStatus("up0")->deviceName(), "up0");
    EXPECT_EQ(world.intfStatus("up0")->macAddr(), World::macOf(2));
    EXPECT_TRUE(world.sourceIntfSm->registered(up0));
    EXPECT_FALSE(proxying(up0));

    world.tables();
    Lines const proxyLines = trace.take();
    auto const tail = proxyLines.begin() + 5; // after the lines above from "Registering" on
    ASSERT_GT(proxyLines.size(), 6u);
    EXPECT_EQ(*(tail + 1), "7 Adding igmpHostProxyIntfSm for intfId: up0");
    for (char const* const line :
         {"7 Setting IGMP version to0", "7 Setting unsolicited-report-interval=0",
          "7 Initialize IgmpHost", "7 Setting intfId : up0",
          "7 Adding igmpHostIntfSm for intfId : up0", "7 Setting ipAddr to : 192.0.2.2",
          "7 Setting devicename to :up0", "7 Setting unsolicited-report-interval:  0",
          "7 Setting version to: 0", "7 Setting source MAC address to 02:00:00:00:00:02",
          "7 Resetting packet counters to 0"})
        EXPECT_EQ(std::count(proxyLines.begin(), proxyLines.end(), line), 1) << line;
    EXPECT_TRUE(proxying(up0));
}

TEST_F(Root, LooksForTheVrfEverySecondWhileAnInterfaceWaits) {
    world.start();
    world.tables();
    world.kernelDevice("up0", 2);
    world.listIntf("up0");
    EXPECT_EQ(world.timerWheel->nextExpiry(), Nex::never);
    world.config->intfConfigIs(up0);
    EXPECT_DOUBLE_EQ(world.timerWheel->nextExpiry(), 101);
    world.pass(3.4);
    EXPECT_DOUBLE_EQ(world.timerWheel->nextExpiry(), 104);
    world.vrfOfIntf("up0", "default");
    EXPECT_FALSE(proxying(up0));
    world.pass(0.6);
    EXPECT_TRUE(proxying(up0));
    EXPECT_EQ(world.timerWheel->nextExpiry(), Nex::never);
    EXPECT_TRUE(root().checkInterface().empty());
}

// The retry takes an interface off its list after the call, so one that the call queues anew is
// off as well; the others stay, and keep the timer running.
TEST_F(Root, ARetryThatQueuesAnInterfaceAnewForgetsItAllTheSame) {
    world.start();
    world.config->intfConfigIs(up0);
    world.config->intfConfigIs(up1);
    world.ipStatus->ipIntfStatusIs(up0); // without a VRF
    world.pass(1);
    EXPECT_FALSE(root().checkInterfaceHas(up0));
    EXPECT_TRUE(root().checkInterfaceHas(up1));
    EXPECT_DOUBLE_EQ(world.timerWheel->nextExpiry(), 102);
    world.ipStatus->ipIntfStatusIs(up1);
    world.pass(1);
    EXPECT_EQ(world.timerWheel->nextExpiry(), Nex::never);
}

// What was configured before comes up by its device name or a table, not by start-up itself.
TEST_F(Root, StartUpItselfTakesNoInterfaceUp) {
    world.config->intfConfigIs(up0);
    world.config->intfConfigIs(up1);
    world.tables();
    world.usableIntf("up1", 3);
    TraceLog trace(7);
    world.start();
    Lines const lines = trace.take();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "7 Interface up0 has no IpStatus."), 0);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "7 Registering interface:up1"), 1);
    EXPECT_TRUE(root().initialized());
    EXPECT_TRUE(root().checkInterface().empty());
    EXPECT_TRUE(proxying(up1));
}

TEST_F(Root, TheSlotHoldsTheInterfaceRegisteredLastAndTheRootWatchesOnlyThat) {
    twoInterfaces();
    EXPECT_EQ(slot(), "up1");
    world.addressOf("up0", "0.0.0.0");
    EXPECT_TRUE(proxying(up0));
    EXPECT_EQ(world.host("up0")->ipAddr(), ip("192.0.2.2")); // never cleared
    world.addressOf("up0", "198.51.100.2");
    EXPECT_EQ(world.host("up0")->ipAddr(), ip("198.51.100.2")); // its binding watches

    TraceLog trace(7);
    world.addressOf("up1", "0.0.0.0");
    EXPECT_EQ(trace.take()[0], "7 Interface is down. Deleting intfStatus and state machines");
    EXPECT_FALSE(proxying(up1));
    EXPECT_EQ(world.intfStatus("up1"), nullptr);
    world.addressOf("up1", "198.51.100.3");
    EXPECT_TRUE(proxying(up1));
    EXPECT_EQ(world.host("up1")->ipAddr(), ip("198.51.100.3"));

    root().handleIntfConfig(up0);
    EXPECT_EQ(slot(), "up0");
    world.addressOf("up0", "0.0.0.0");
    EXPECT_FALSE(proxying(up0));
}

TEST_F(Root, AnInterfaceThatLeavesTheConfigurationGoesInOrderAndUnregistersTheSlot) {
    twoInterfaces();
    TraceLog trace(7);
    world.config->intfConfigDel(up0);
    EXPECT_EQ(
        trace.take(),
        (Lines{"7 IgmpHostProxy configured for interface: up0 Deleting intfStatus, igmpHost "
               "and SMs",
               "7 IgmpHost was deleted for : up0", "7 Deleting igmpHostIntfSm for intfId : up0",
               "7 Unregistering interface: up0"}));
    EXPECT_FALSE(proxying(up0));
    // Whichever interface the slot holds is unregistered, and the slot keeps it.
    EXPECT_EQ(slot(), "up1");
    EXPECT_FALSE(world.sourceIntfSm->registered(up1));
    EXPECT_TRUE(world.sourceIntfSm->registered(up0));
    EXPECT_TRUE(proxying(up1));
    root().handleIntfConfig(up1); // the same object is registered again: nothing is in the way
    EXPECT_TRUE(world.sourceIntfSm->registered(up1));
    EXPECT_TRUE(proxying(up1));
}

TEST_F(Root, AVrfsTableConcernsTheInterfacesOfAllVrfs) {
    twoInterfaces();
    TraceLog trace(7);
    world.mfibDir->keshCollDel(L3::VrfName("blue"));
    EXPECT_EQ(trace.take()[0], "7 Deleting IntfSm for intfId : up0");
    EXPECT_FALSE(proxying(up0));
    EXPECT_FALSE(proxying(up1));
    EXPECT_EQ(world.status->intfStatusCount(), 0u);
    world.tables("blue");
    EXPECT_TRUE(proxying(up0));
    EXPECT_TRUE(proxying(up1));
    world.mfibDir->keshCollDel(L3::VrfName("default"));
    EXPECT_FALSE(proxying(up1));
    world.tables("green"); // no interface's own, and still all are looked at
    EXPECT_FALSE(proxying(up0));
    EXPECT_TRUE(proxying(up1));
}

using All = void (IgmpHostProxySm::*)();
All const lookAtAll[] = {&IgmpHostProxySm::handleIntfConfig, &IgmpHostProxySm::handleMfibKesh};

TEST_F(Root, LooksAtAllInterfacesWhenItIsAsked) {
    twoInterfaces();
    for (All const all : lookAtAll) {
        for (auto const& intfId : {up0, up1}) root().deleteIntfSm(intfId);
        (root().*all)();
        EXPECT_TRUE(proxying(up0) && proxying(up1));
    }
}

TEST_F(Root, EveryHostEntityIsFilledInAndEachTimeAnnouncedAnew) {
    twoInterfaces();
    Igmp::IgmpHost const& host = *world.host("up1");
    EXPECT_EQ(host.intfId(), up1);
    EXPECT_EQ(host.ns(), Lox::NamespaceName("ns-blue"));
    EXPECT_EQ(world.host("up0")->ns(), Lox::NamespaceName::defaultNamespace());
    EXPECT_TRUE(host.enableRouterAlert() && host.enabled() && host.enablePeriodicReport());
    EXPECT_FALSE(host.useMux() || host.tagged());
    EXPECT_EQ(host.vlanId(), 1);
    world.host("up1")->useMuxIs(true);
    world.host("up1")->taggedIs(true);
    auto const config = host.configVersion();
    auto const intfConfig = host.intfConfigVersion();
    root().initializeIgmpHost("up1");
    EXPECT_FALSE(host.useMux() || host.tagged());
    EXPECT_EQ(host.configVersion(), config + 1);
    EXPECT_EQ(host.intfConfigVersion(), intfConfig + 1);
    TraceLog trace(7);
    root().initializeIgmpHost("none");
    EXPECT_EQ(trace.take(), Lines{"7 IgmpHost was deleted for : none"});
}

TEST_F(Root, TheBindingLivesAsLongAsTheHostStatus) {
    twoInterfaces();
    world.hostStatusDir->igmpHostStatusDel("up1");
    EXPECT_EQ(root().igmpHostIntfSm(up1), nullptr);
    EXPECT_NE(root().igmpHostProxyIntfSm(up1), nullptr);
    world.hostStatusDir->igmpHostStatusIs("up1");
    EXPECT_TRUE(proxying(up1));
    root().igmpHostIntfSmDel(up0);
    root().handleIntfConfig(up0); // takes the slot
    root().igmpHostIntfSmDel(up1);
    root().createOrDeleteIgmpHostIntfSm("up0");
    EXPECT_TRUE(proxying(up0));
    EXPECT_EQ(root().igmpHostIntfSm(up0)->srcIntfIhpIntf()->intfId(), up0);
}

template <class Error, class F>
std::string errorOf(F provoke) {
    try {
        provoke();
    } catch (Error const& error) {
        return error.what();
    }
    return "no error";
}

TEST_F(Root, ErrorsTellTheWholeStory) {
    twoInterfaces();
    auto const other = IntfStatus::IntfStatusIs(up0);
    IgmpHostIntfSm& binding = *root().igmpHostIntfSm(up0);
    std::string const reinstantiating =
        "Reinstantiating the pointer interface where constructor parameter attribute _";
    auto const bind = [&](auto status, auto host, auto source) {
        root().igmpHostIntfSmIs(up0, status, host, binding.igmpHostStatus(), source);
    };
    Nex::Ptr<IntfStatus> const present = world.intfStatus("up0");
    EXPECT_EQ(errorOf<Nex::NameInUseException>(
                  [&] { bind(other, binding.igmpHost(), binding.srcIntfIhpIntf()); }),
              reinstantiating + "intfStatus has a different value of " + Nex::textOf(present) +
                  ", " + Nex::textOf(other));
    EXPECT_EQ(errorOf<Nex::NameInUseException>([&] {
                  bind(present, binding.igmpHost(), root().srcIntfIhpIntf());
              }).find(reinstantiating + "srcIntfIhpIntf has a different value of "),
              0u);
    EXPECT_EQ(errorOf<Nex::RangeException>([&] { binding.groupSourceListStatusIs(nullptr); }),
              "null _groupSourceListStatus parameter to mutator for "
              "IgmpHostProxy::IgmpHostIntfSm::groupSourceListStatus not allowed\"");
}

/// Finds fault with the status of up0.
struct Objector : Nex::Reactor<Status::NotifieeConst, Nex::PtrInterface> {
    explicit Objector(Nex::Ptr<Status> status)
        : Reactor(std::move(status), static_cast<Nex::PtrInterface*>(nullptr)) {}
    void onIntfStatus(Lox::IntfId intfId) override {
        if (intfId == up0) throw Nex::NameInUseException("up0");
    }
};

TEST_F(Root, AnErrorOfOneInterfaceHoldsUpNoOther) {
    world.start();
    Nex::Owned<Objector> objector;
    objector.make(world.status);
    for (std::uint32_t const at : {0u, 1u, 2u}) {
        std::string const name = "up" + std::to_string(at);
        world.config->intfConfigIs(Lox::IntfId(name));
        world.kernelDevice(name, at + 2);
        world.listIntf(name);
        if (at != 2) world.vrfOfIntf(name, "default");
    }
    EXPECT_EQ(errorOf<Nex::NameInUseException>([&] { world.pass(1); }), "up0");
    EXPECT_NE(world.intfStatus("up1"), nullptr);
    EXPECT_DOUBLE_EQ(world.timerWheel->nextExpiry(), 102); // for up2
    root().deleteIntfSm(up1);
    EXPECT_EQ(errorOf<Nex::NameInUseException>([&] { root().deleteIntfSm(up0); }), "up0");
    EXPECT_EQ(errorOf<Nex::NameInUseException>([&] { world.tables(); }), "up0");
    EXPECT_TRUE(proxying(up1));
    for (All const all : lookAtAll) {
        errorOf<Nex::NameInUseException>([&] { root().deleteIntfSm(up0); });
        EXPECT_EQ(errorOf<Nex::NameInUseException>([&] { (root().*all)(); }), "up0");
    }
}

// A root that cannot be made leaves nothing behind that could be in another one's way.
TEST_F(Root, FailsToStartWithoutATrace) {
    bool refuses = true;
    world.entityManager->factoryIs("KernelNetInfo::Status", [&](Nex::String const& path) {
        if (refuses && path == "kni/ns/ns-red/status") throw Nex::RangeException(path);
        return world.kniTable(path);
    });
    world.config->intfConfigIs(up1);
    world.tables("blue");
    world.usableIntf("up1", 3, "blue");
    for (auto const* const name : {"blue", "red", "green"})
        world.vrf(name, "ns-" + std::string(name));
    EXPECT_EQ(errorOf<Nex::RangeException>([&] { world.start(); }), "kni/ns/ns-red/status");
    for (auto const& item : world.entityManager->mounted()) ADD_FAILURE() << item.key;
    EXPECT_EQ(world.root, nullptr);
    refuses = false;
    world.start();
    EXPECT_TRUE(proxying(up1));
    EXPECT_NE(root().kernelVrfIntfStatus(L3::VrfName("green")), nullptr);
}

/// The machines in the order in which they were destroyed.
struct Destructions : Nex::DestructionObserver {
    Destructions() { Nex::PtrInterface::destructionObserverIs(this); }
    ~Destructions() { Nex::PtrInterface::destructionObserverIs(nullptr); }
    void onDestruction(Nex::PtrInterface const& object) override {
        note<IgmpHostProxySm>(object, "root");
        note<KernelVrfIntfStatus>(object, "view");
        note<Interface::NetNsIntfStatusManagerRoot>(object, "manager root");
        note<IgmpHostProxyIntfSm>(object, "proxy machine");
        note<IgmpHostIntfSm>(object, "binding");
        note<IntfStatus>(object, "status record");
        note<Igmp::IgmpHost>(object, "host entity");
        note<GroupSource>(object, "group record");
    }
    template <class T>
    void note(Nex::PtrInterface const& object, char const* what) {
        if (dynamic_cast<T const*>(&object)) lines.push_back(what);
    }
    Lines lines;
};

TEST_F(Root, GoesInOrderDeletesNoRecordAndIsSilentAfterwards) {
    twoInterfaces();
    world.config->intfConfig(up0)->groupSourceListIs(groupG)->includeSourceListIs(sourceS);
    Lines const before = world.dump();
    {
        Destructions destructions;
        world.root = nullptr;
        EXPECT_EQ(destructions.lines,
                  (Lines{"root", "view", "view", "manager root", "proxy machine", "proxy machine",
                         "binding", "binding"}));
    }
    EXPECT_EQ(world.dump(), before);
    TraceLog trace(8);
    world.config->intfConfig(up0)->groupSourceListIs(groupG)->includeSourceListIs(sourceT);
    world.config->intfConfigDel(up1);
    world.addressOf("up0", "0.0.0.0");
    world.delistIntf("up0");
    world.mfibDir->keshCollDel(L3::VrfName("default"));
    world.intfStatus("up0")->groupSourceListDel(groupG);
    world.hostStatusDir->igmpHostStatus("up0")->v2ReportsSentIs(3);
    world.allVrfStatusLocal->vrfDel(L3::VrfName("blue"));
    world.pass(5);
    EXPECT_EQ(trace.take(), Lines());
    EXPECT_TRUE(world.host("up0")->v3groupHas(groupG));
}

TEST_F(Root, WithoutInputsItWaitsAndComplainsAboutNothing) {
    auto const root =
        igmpHostProxySmFactory(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_TRUE(root->initialized());
    root->handleIntfConfig();
    root->handleIntfConfig(up0);
    root->handleMfibKesh();
    root->handleMfibKesh(L3::VrfName("default"));
    root->handleIpAddrChange();
    root->ipStatusCheckTimerExpired();
    root->initializeIgmpHost("up0");
    root->createOrDeleteIgmpHostIntfSm();
    root->createOrDeleteIgmpHostIntfSm("up0");
    root->deleteIntfSm(up0);
    root->getIntfEthAddr(L3::VrfName("default"), 2);
    root->handleDeviceName(L3::VrfName("default"), up0);
    root->handleVrf();
    root->handleVrf(L3::VrfName("blue"));
    EXPECT_EQ(root->doGetVrfNameFromIntf(up0), L3::VrfName());
}

TEST(RootWithoutAnInput, LivesOnTheOthers) {
    using Inputs = PlatformState;
    auto const live = [](auto Inputs::*missing) {
        World world;
        Inputs inputs(world);
        inputs.*missing = nullptr;
        world.root = inputs.makeRoot();
        world.config->intfConfigIs(up0)->groupSourceListIs(groupG)->includeSourceListIs(sourceS);
        world.tables("blue");
        world.vrf("blue", "ns-blue");
        world.usableIntf("up0", 2, "blue");
        world.config->intfConfigIs(up1);
        world.hostStatusDir->igmpHostStatusIs("up0");
        world.pass(2);
        world.addressOf("up0", "0.0.0.0");
        world.delistIntf("up0");
        world.listIntf("up0", "ns-blue");
        world.mfibDir->keshCollDel(L3::VrfName("blue"));
        world.config->intfConfigDel(up0);
        world.hostStatusDir->igmpHostStatusDel("up0");
        world.allVrfStatusLocal->vrfDel(L3::VrfName("blue"));
        EXPECT_EQ(world.root->igmpHostProxyIntfSm(up0), nullptr);
    };
    live(&Inputs::config), live(&Inputs::status), live(&Inputs::mfibDir), live(&Inputs::aclConfig);
    live(&Inputs::hostDir), live(&Inputs::hostStatusDir), live(&Inputs::sourceIntfSm);
    live(&Inputs::ipStatus), live(&Inputs::allIntfStatusDir), live(&Inputs::allIntfStatusLocalDir);
    live(&Inputs::allVrfStatusLocal), live(&Inputs::timerWheel), live(&Inputs::entityManager);
}

// The binding can do without any of its objects, too.
TEST_F(Root, ABindingWithoutObjectsWaits) {
    auto const binding =
        Nex::newObject<IgmpHostIntfSm>(up0, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_TRUE(binding->initialized());
    binding->handleGroupList(groupG);
    binding->handleIgmpHostV3ReportsSent();
}

} // namespace
} // namespace IgmpHostProxy
