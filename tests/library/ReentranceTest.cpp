// Whoever watches the library's records may change the world from inside a callback. Here somebody
// does, in many ways, at one notification after the other.
#include "Library.h"

#include <functional>

namespace IgmpHostProxy {
namespace {

/// Watches every record that the library writes, those too that appear later, and calls `disturb`
/// at one notification, counted from 0.
class Disturber : public Nex::PtrInterface {
  public:
    Disturber(World& watched, unsigned at, std::function<void(World&)> disturb)
        : world_(watched), at_(at), disturb_(std::move(disturb)) {
        add<StatusWatch>(world_.status);
        add<HostDirWatch>(world_.hostDir);
        add<HostStatusDirWatch>(world_.hostStatusDir);
        add<SourceIntfSmWatch>(world_.sourceIntfSm);
    }
    ~Disturber() override {
        for (auto const& watch : watches_) watch->nexRetire();
    }
    bool disturbed() const { return count_ > at_; }

  private:
    template <class Watch, class Watched>
    void add(Nex::Ptr<Watched> const& watched) {
        auto const watch = Nex::newObject<Watch>(watched, this);
        watch->hasNotificationActiveIs(true);
        watches_.push_back(watch);
    }
    /// Follows a record of a collection if it was added.
    template <class Watch>
    void follow(auto* record) {
        if (record) add<Watch>(Nex::Ptr(record));
        tick();
    }
    void tick() {
        if (count_++ == at_) disturb_(world_);
    }

    template <class Interface>
    using Watch = Nex::Reactor<Interface, Disturber>;

    struct SourceListWatch : Watch<Igmp::IgmpV3HostGroupSourceList::NotifieeConst> {
        using Reactor::Reactor;
        void onSourceIp(Lox::IpAddr) override { machine()->tick(); }
    };
    struct RecordWatch : Watch<Igmp::IgmpV3GroupRecord::NotifieeConst> {
        using Reactor::Reactor;
        void onFilterMode() override { machine()->tick(); }
        void onVersion() override { machine()->tick(); }
        void onSourceList() override { machine()->follow<SourceListWatch>(notifier()->source()); }
    };
    struct HostWatch : Watch<Igmp::IgmpHost::NotifieeConst> {
        using Reactor::Reactor;
        void onNs() override { machine()->tick(); }
        void onDeviceName() override { machine()->tick(); }
        void onMacAddr() override { machine()->tick(); }
        void onIpAddr() override { machine()->tick(); }
        void onConfigVersion() override { machine()->tick(); }
        void onIntfConfigVersion() override { machine()->tick(); }
        void onV3group(Lox::IpAddr group) override {
            machine()->follow<RecordWatch>(notifier()->v3group(group));
        }
    };
    struct HostDirWatch : Watch<Igmp::IgmpHostDir::NotifieeConst> {
        using Reactor::Reactor;
        void onIgmpHost(Nex::Name name) override {
            machine()->follow<HostWatch>(notifier()->igmpHost(name));
        }
    };
    struct HostStatusDirWatch : Watch<Igmp::IgmpHostStatusDir::NotifieeConst> {
        using Reactor::Reactor;
        void onIgmpHostStatus(Nex::Name) override { machine()->tick(); }
    };
    struct SourceIntfSmWatch : Watch<Ip::SourceIntf::SourceIntfSm::NotifieeConst> {
        using Reactor::Reactor;
        void onSourceIntf(Lox::IntfId) override { machine()->tick(); }
    };
    struct GroupWatch : Watch<GroupSource::NotifieeConst> {
        using Reactor::Reactor;
        void onIncludeSourceList(Lox::IpAddr) override { machine()->tick(); }
        void onExcludeSourceList(Lox::IpAddr) override { machine()->tick(); }
    };
    struct IntfStatusWatch : Watch<IntfStatus::NotifieeConst> {
        using Reactor::Reactor;
        void onMacAddr() override { machine()->tick(); }
        void onDeviceName() override { machine()->tick(); }
        void onIgmpVersion() override { machine()->tick(); }
        void onUnsolicitedReportIntvl() override { machine()->tick(); }
        void onV2ReportsSent() override { machine()->tick(); }
        void onGroupSourceList(Lox::IpAddr group) override {
            machine()->follow<GroupWatch>(notifier()->groupSourceList(group));
        }
    };
    struct StatusWatch : Watch<Status::NotifieeConst> {
        using Reactor::Reactor;
        void onIntfStatus(Lox::IntfId intfId) override {
            machine()->follow<IntfStatusWatch>(notifier()->intfStatus(intfId));
        }
    };

    World& world_;
    unsigned at_;
    unsigned count_ = 0;
    std::function<void(World&)> disturb_;
    std::vector<Nex::Ptr<Nex::NotifieeBase>> watches_;
};

Lox::IpAddr const groupH = ip("239.1.1.2");
L3::VrfName const blue("blue");

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

/// Its whole life, with a change of everything that can change.
void live(World& world) {
    Nex::Ptr<IntfConfig> const config = comeUp(world);
    auto const group = config->groupSourceListIs(groupG);
    config->igmpVersionIs(IgmpVersion::v2);
    config->unsolicitedReportIntvlIs(UnsolicitedReportInterval(2));
    group->excludeSourceListIs(sourceS);
    config->groupSourceListIs(groupH)->includeSourceListIs(sourceS);
    config->groupSourceListIs(groupH)->includeSourceListIs(anySource);
    removeInclude(*config, anySource, groupH);
    removeInclude(*config, sourceS, groupH);
    removeExclude(*config, anySource, groupH);
    config->groupSourceListIs(groupH)->includeSourceListIs(sourceT);
    if (auto* const hostStatus = world.hostStatusDir->igmpHostStatus("up0"))
        hostStatus->v2ReportsSentIs(3);
    world.kernelDevice("up0", 5, "ns-blue");
    world.addressOf("up0", "198.51.100.1");
    world.addressOf("up0", "0.0.0.0");
    world.addressOf("up0", "198.51.100.2");
    world.delistIntf("up0");
    world.listIntf("up0", "ns-blue");
    world.mfibDir->keshCollDel(blue);
    world.tables("blue");
    world.pass(3);
}

struct Disturbance {
    char const* name;
    std::function<void(World&)> happen;
    /// What must hold afterwards, whatever the moment.
    std::function<void(World&)> expect = [](World&) {};
};

void expectNothingOf(World& world) {
    EXPECT_EQ(world.status->intfStatusCount(), 0u);
    EXPECT_EQ(world.hostDir->igmpHostCount(), 0u);
    EXPECT_EQ(world.hostStatusDir->igmpHostStatusCount(), 0u);
    EXPECT_EQ(world.root->igmpHostProxyIntfSm(up0), nullptr);
    EXPECT_EQ(world.root->igmpHostIntfSm(up0), nullptr);
}

void withConfig(World& world, std::function<void(IntfConfig&)> const& change) {
    if (Nex::Ptr<IntfConfig> const config = world.config->intfConfig(up0)) change(*config);
}

Disturbance const disturbances[] = {
    {"the interface leaves the configuration",
     [](World& world) { world.config->intfConfigDel(up0); }, expectNothingOf},
    {"the root goes", [](World& world) { world.root = nullptr; }},
    {"a configured group goes",
     [](World& world) {
         withConfig(world, [](IntfConfig& config) { config.groupSourceListDel(groupG); });
     }},
    {"the device goes",
     [](World& world) {
         if (world.allIntfStatusDir->intfStatus(up0)) world.delistIntf("up0");
     }},
    {"the address goes", [](World& world) { world.addressOf("up0", "0.0.0.0"); }},
    {"the tables go", [](World& world) { world.mfibDir->keshCollDel(blue); }},
    {"the VRF goes", [](World& world) { world.allVrfStatusLocal->vrfDel(blue); }},
    {"the host agent withdraws",
     [](World& world) { world.hostStatusDir->igmpHostStatusDel("up0"); }},
};

/// Runs `life` again and again, each time disturbed `stride` notifications later, until it ends
/// before. Returns where that was.
unsigned disturbEverywhere(Disturbance const& disturbance, std::function<void(World&)> const& life,
                           unsigned stride = 1) {
    for (unsigned at = 0;; at += stride) {
        SCOPED_TRACE(disturbance.name + std::string(", at notification ") + std::to_string(at));
        World world;
        auto const disturber = Nex::newObject<Disturber>(world, at, disturbance.happen);
        try {
            life(world);
        } catch (Nex::Exception const& error) {
            ADD_FAILURE() << error.what();
        }
        if (!disturber->disturbed()) return at;
        disturbance.expect(world);
        if (::testing::Test::HasFailure()) return at;
    }
}

// What follows in a whole life may tidy up what a disturbance left behind, so the beginning is
// looked at by itself, too. All notifications of the whole would take too long under a sanitizer.
TEST(Reentrance, SurvivesDisturbancesAllThroughAnInterfacesLife) {
    EXPECT_GT(disturbEverywhere({"nothing", [](World&) {}}, live, 50), 100u);
    for (auto const& disturbance : disturbances) {
        disturbEverywhere(disturbance, comeUp);
        disturbEverywhere(disturbance, live, 4);
    }
}

TEST(Reentrance, AnInterfaceConfiguredAnewWhileItComesUpFollowsTheNewConfiguration) {
    disturbEverywhere({"configured anew",
                       [](World& world) {
                           world.config->intfConfigDel(up0);
                           world.config->intfConfigIs(up0)->groupSourceListIs(ip("239.1.1.9"));
                       },
                       [](World& world) {
                           ASSERT_NE(world.root->igmpHostIntfSm(up0), nullptr);
                           EXPECT_EQ(world.root->igmpHostProxyIntfSm(up0)->intfConfig(),
                                     world.config->intfConfig(up0));
                           EXPECT_TRUE(world.host("up0")->v3groupHas(ip("239.1.1.9")));
                       }},
                      comeUp);
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
    disturbEverywhere({"another interface comes up",
                       [](World& world) {
                           world.config->intfConfigIs(up1);
                           world.usableIntf("up1", 3, "blue");
                       },
                       [](World& world) {
                           expectSound(world, up0);
                           expectSound(world, up1);
                       }},
                      comeUp);
    Disturbance const anew = {"looked at anew",
                              [](World& world) { world.root->handleIntfConfig(up0); },
                              [](World& world) { expectSound(world, up0); }};
    disturbEverywhere(anew, comeUp);
    disturbEverywhere(anew, [](World& world) {
        comeUp(world);
        world.addressOf("up0", "0.0.0.0");
        world.addressOf("up0", "192.0.2.2");
    });
    // Taken down and up again at one moment.
    disturbEverywhere({"its address goes and comes",
                       [](World& world) {
                           world.addressOf("up0", "0.0.0.0");
                           world.addressOf("up0", "192.0.2.2");
                       },
                       [](World& world) { expectSound(world, up0); }},
                      comeUp);
}

// A watcher that throws interrupts whoever wrote. The host is filled in the next time, the
// interface goes as a whole, and comes up complete when it is configured anew.
TEST(Reentrance, WhatAnErrorInterruptedIsMadeGood) {
    World calm;
    comeUp(calm);
    for (unsigned at = 0;; ++at) {
        SCOPED_TRACE("thrown at notification " + std::to_string(at));
        World world;
        auto const disturber = Nex::newObject<Disturber>(
            world, at, [](World&) { throw Nex::RangeException("thrown by a watcher"); });
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
