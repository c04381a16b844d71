// What scenarios cannot say of the machines: how they are made and destroyed, and what they do with
// inputs that are null.
#include "Play.h"

#include <typeindex>

namespace IgmpHostProxy {
namespace {

/// Interface up0, configured and usable, with its machines at work.
struct Machines : ::testing::Test, Play {
    Machines() { doEvents("start; tables; intf up0 2; configure up0"); }
};

TEST_F(Machines, ErrorsTellTheWholeStory) {
    Nex::Ptr<Ip::SourceIntf::SourceIntf> const other =
        Ip::SourceIntf::SourceIntf::SourceIntfIs(up0);
    attempt([&] {
        root->igmpHostIntfSmIs(up0, intfStatus("up0"), host("up0"), binding().igmpHostStatus(),
                               other);
    });
    EXPECT_EQ(thrown_, "Reinstantiating the pointer interface where constructor parameter "
                       "attribute _srcIntfIhpIntf has a different value of " +
                           Nex::textOf(binding().srcIntfIhpIntf()) + ", " + Nex::textOf(other));
    EXPECT_THROW(binding().groupSourceListStatusIs(nullptr), Nex::RangeException);
    attempt([&] { binding().groupSourceListStatusIs(nullptr); });
    EXPECT_EQ(thrown_, "null _groupSourceListStatus parameter to mutator for "
                       "IgmpHostProxy::IgmpHostIntfSm::groupSourceListStatus not allowed\"");
}

/// The machines in the order in which they were destroyed.
struct Destructions : Nex::DestructionObserver {
    Destructions() { Nex::PtrInterface::destructionObserverIs(this); }
    ~Destructions() { Nex::PtrInterface::destructionObserverIs(nullptr); }
    void onDestruction(Nex::PtrInterface const& object) override {
        static std::map<std::type_index, char const*> const names{
            {typeid(IgmpHostProxySm), "root"},
            {typeid(KernelVrfIntfStatus), "view"},
            {typeid(Interface::NetNsIntfStatusManagerRoot), "manager root"},
            {typeid(IgmpHostProxyIntfSm), "proxy machine"},
            {typeid(IgmpHostIntfSm), "binding"}};
        if (names.contains(typeid(object))) lines.push_back(names.at(typeid(object)));
    }
    Lines lines;
};

TEST_F(Machines, GoInOrderAndDeleteNoRecord) {
    doEvents("tables blue; vrf blue ns-blue; intf up1 3 blue; configure up1; +i1; d+; d-");
    EXPECT_EQ(machine().deletedGroupSourceListConfig(groupG), nullptr);
    EXPECT_TRUE(machine().groupSourceListConfig(groupG)->initialized());
    Lines const before = dump();
    Destructions destructions;
    root = nullptr;
    EXPECT_EQ(destructions.lines, (Lines{"root", "view", "view", "manager root", "proxy machine",
                                         "proxy machine", "binding", "binding"}));
    EXPECT_EQ(dump(), before);
}

TEST_F(Machines, ARootWithoutInputsWaitsAndComplainsAboutNothing) {
    root = igmpHostProxySmFactory(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                  nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_TRUE(root->initialized());
    doEvents("decide-all; decide up0; decide-tables; fill-host up0; bind up0; bind-all;"
             "take-down up0; copy-mac default 2");
    root->handleMfibKesh(L3::VrfName("default"));
    root->handleIpAddrChange();
    root->ipStatusCheckTimerExpired();
    root->handleDeviceName(L3::VrfName("default"), up0);
    root->handleVrf();
    root->handleVrf(L3::VrfName("blue"));
    EXPECT_EQ(root->doGetVrfNameFromIntf(up0), L3::VrfName());
}

TEST(MachinesWithoutAnInput, LiveOnTheOthers) {
    using Inputs = PlatformState;
    auto const live = [](auto Inputs::*missing) {
        Play world;
        Inputs inputs(world);
        inputs.*missing = nullptr;
        world.root = inputs.makeRoot();
        world.doEvents("configure up0; +i1; tables blue; vrf blue ns-blue; intf up0 2 blue;"
                       "configure up1; host-status up0; +2; address up0 0.0.0.0; delist-intf up0;"
                       "list-intf up0 ns-blue; no-tables blue; unconfigure up0; no-host-status up0;"
                       "no-vrf blue");
        EXPECT_EQ(world.root->igmpHostProxyIntfSm(up0), nullptr);
    };
    live(&Inputs::config), live(&Inputs::status), live(&Inputs::mfibDir), live(&Inputs::aclConfig);
    live(&Inputs::hostDir), live(&Inputs::hostStatusDir), live(&Inputs::sourceIntfSm);
    live(&Inputs::ipStatus), live(&Inputs::allIntfStatusDir), live(&Inputs::allIntfStatusLocalDir);
    live(&Inputs::allVrfStatusLocal), live(&Inputs::timerWheel), live(&Inputs::entityManager);
}

// The binding can do without any of its objects, too.
TEST_F(Machines, ABindingWithoutObjectsWaits) {
    auto const binding =
        Nex::newObject<IgmpHostIntfSm>(up0, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_TRUE(binding->initialized());
    binding->handleGroupList(groupG);
    binding->handleIgmpHostV3ReportsSent();
}

TEST_F(Machines, CountersHaveNoFloor) {
    SourceGroup const sg(address("1"), groupG);
    EXPECT_EQ(machine().groupSourceRefCounterInc(sg, 3), 3u);
    EXPECT_EQ(machine().groupSourceRefCounterDec(sg, 4), ~std::uint32_t(0));
}

TEST(MachinesDeathTest, AMissingClockIsAProgrammingError) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(IgmpHostProxyIntfSm::IgmpHostProxyIntfSmIs(up0, IntfConfig::IntfConfigIs(up0),
                                                            IntfStatus::IntfStatusIs(up0), nullptr,
                                                            nullptr, nullptr, nullptr, nullptr),
                 "clock_");
}

} // namespace
} // namespace IgmpHostProxy
