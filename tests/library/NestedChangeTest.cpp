// Whoever hears of an announced group may take away, at once, what had announced it. What is left
// is what the writers want in the end.
#include "Producers.h"

#include <functional>

namespace IgmpHostProxy {
namespace {

/// Calls back when a group of a status or of a host appears, changes or goes; only the first time
/// that the callback takes it up.
template <class Record>
class GroupWatch : public Nex::Reactor<typename Record::NotifieeConst, Nex::PtrInterface> {
  public:
    /// The answer says whether the group was taken up.
    using Hear = std::function<bool(Lox::IpAddr group, bool present)>;

    GroupWatch(Nex::Ptr<Record> record, Hear hear)
        : Nex::Reactor<typename Record::NotifieeConst, Nex::PtrInterface>(
              Nex::Ptr<Record const>(record), static_cast<Nex::PtrInterface*>(nullptr)),
          hear_(std::move(hear)) {}
    void hear(Lox::IpAddr group, bool present) {
        if (!std::exchange(heard_, true)) heard_ = hear_(group, present);
    }

  private:
    Hear hear_;
    bool heard_ = false;
};
struct StatusWatch : GroupWatch<IntfStatus> {
    using GroupWatch::GroupWatch;
    void onGroupSourceList(Lox::IpAddr group) override {
        hear(group, notifier()->groupSourceListHas(group));
    }
};
struct HostWatch : GroupWatch<Igmp::IgmpHost> {
    using GroupWatch::GroupWatch;
    void onV3group(Lox::IpAddr group) override { hear(group, notifier()->v3groupHas(group)); }
};

/// Acts once, as the record is raised.
struct RecordWatch : Nex::Reactor<Igmp::IgmpV3GroupRecord::NotifieeConst, Nex::PtrInterface> {
    RecordWatch(Nex::Ptr<Igmp::IgmpV3GroupRecord const> record, std::function<void()> act)
        : Reactor(std::move(record), static_cast<Nex::PtrInterface*>(nullptr)),
          act_(std::move(act)) {}
    void onVersion() override {
        if (auto const act = std::exchange(act_, nullptr)) act();
    }
    std::function<void()> act_;
};

class NestedChange : public Producers {
  protected:
    /// Has `act` done within the notification that tells of the group.
    void whenAnnounced(Lox::IpAddr group, std::function<void()> act) {
        watch_.make(status, [=](Lox::IpAddr told, bool present) {
            bool const meant = told == group && present;
            if (meant) act();
            return meant;
        });
    }

    /// Has `act` done as the first of the group's sources comes or goes.
    void whenSourcesChange(Lox::IpAddr group, std::function<void()> act) {
        sourceWatch_.make(Nex::Ptr<GroupSource const>(status->groupSourceList(group)),
                          std::move(act));
    }

  private:
    struct SourceWatch : Nex::Reactor<GroupSource::NotifieeConst, Nex::PtrInterface> {
        SourceWatch(Nex::Ptr<GroupSource const> group, std::function<void()> act)
            : Reactor(std::move(group), static_cast<Nex::PtrInterface*>(nullptr)),
              act_(std::move(act)) {}
        void onIncludeSourceList(Lox::IpAddr) override {
            if (auto const act = std::exchange(act_, nullptr)) act();
        }
        std::function<void()> act_;
    };

    Nex::Owned<StatusWatch> watch_;
    Nex::Owned<SourceWatch> sourceWatch_;
};

TEST_F(NestedChange, AGroupThatGoesAsItsEntryComesBackIsCountedNoMore) {
    for (bool const include : {true, false}) {
        Nex::Ptr<GroupSource> const group = config->groupSourceListIs(groupG);
        group->includeSourceListIs(sourceS);
        removeInclude(*config, sourceS, groupG);
        ASSERT_EQ(announced(), "absent");
        whenAnnounced(groupG, [&] { config->groupSourceListDel(groupG); });
        if (include) {
            group->includeSourceListIs(sourceT);
        } else {
            group->excludeSourceListIs(sourceT);
        }
        EXPECT_EQ(count(sourceT), 0u);
        status->groupSourceListDel(groupG);
    }
}

TEST_F(NestedChange, AGroupThatIsTakenBackAsItsRecordGoesStaysAway) {
    Nex::Ptr<GroupSource> const group = config->groupSourceListIs(groupG);
    ASSERT_TRUE(host->v3groupHas(groupG));
    Nex::Owned<HostWatch> watch;
    watch.make(host, [&](Lox::IpAddr, bool present) {
        if (!present) removeInclude(*config, anySource, groupG);
        return !present;
    });
    group->includeSourceListIs(anySource);
    EXPECT_EQ(announced(), "absent");
    EXPECT_EQ(count(anySource), 0u);
    EXPECT_FALSE(host->v3groupHas(groupG));
}

TEST_F(NestedChange, AGroupThatGetsAnOwnerDuringItsReviewIsLeftToTheOwner) {
    auto const table = newTable();
    settle();
    enum Moment { appears, losesItsSourcesToAnyRoute, losesItsLastRoute };
    struct Case {
        char const* owner;
        std::function<void()> happen;
        std::string expected;
        std::function<void()> undo;
    };
    Case const cases[] = {
        {"configuration", [&] { config->groupSourceListIs(groupG)->includeSourceListIs(sourceT); },
         "include 10.0.0.2 exclude",
         [&] {
             removeInclude(*config, sourceT, groupG);
             config->groupSourceListDel(groupG);
         }},
        {"configuration without sources", [&] { config->groupSourceListIs(groupG); },
         "include exclude", [&] { config->groupSourceListDel(groupG); }},
        {"list",
         [&] {
             ruleIs("iptv", 1, permit(sourceT, groupG));
             config->aclListIs("iptv");
         },
         "include 10.0.0.2 exclude", [&] { config->aclListDel("iptv"); }},
        {"deny", [&] { status->denyMrouteIs(true); }, "absent",
         [&] { status->denyMrouteIs(false); }},
        {"deleted source",
         [&] { config->deletedGroupSourceListIs(groupG)->includeSourceListIs(sourceS); }, "absent",
         [&] { config->deletedGroupSourceListDel(groupG); }},
    };
    for (Case const& each : cases)
        for (Moment const moment : {appears, losesItsSourcesToAnyRoute, losesItsLastRoute}) {
            SCOPED_TRACE(std::string(each.owner) + " at moment " + std::to_string(moment));
            if (moment == appears) {
                whenAnnounced(groupG, each.happen);
                routeIs(*table, sourceS, groupG);
            } else {
                routeIs(*table, sourceS, groupG);
                settle();
                whenSourcesChange(groupG, each.happen);
                if (moment == losesItsLastRoute) {
                    routeDel(*table, sourceS, groupG);
                } else {
                    routeIs(*table, anySource, groupG);
                }
            }
            settle();
            EXPECT_EQ(announced(), each.expected);
            for (auto const source : {sourceS, anySource}) routeDel(*table, source, groupG);
            settle();
            each.undo();
            status->groupSourceListDel(groupG);
            settle();
        }
}

TEST_F(NestedChange, AStatusThatIsTakenAwayDuringItsReviewIsLeftAlone) {
    auto const table = newTable();
    Lox::IpAddr const other = ip("239.1.1.2");
    std::function<void()> const takeAway = [&] { machine().intfStatusIs(nullptr); };
    for (auto const& review :
         std::initializer_list<std::function<void()>>{[&] { status->denyMrouteIs(true); },
                                                      [&] {
                                                          routeDel(*table, sourceS, groupG);
                                                          settle();
                                                      }}) {
        for (auto const group : {groupG, other}) routeIs(*table, sourceS, group);
        settle();
        whenSourcesChange(groupG, takeAway);
        review();
        EXPECT_EQ(announced(), "include exclude");
        EXPECT_EQ(announced(other), "include 10.0.0.1 exclude");
        status->denyMrouteIs(false);
        machine().intfStatusIs(status);
    }
}

// The same of the merge, and of an entry in whose place another one has come.
TEST_F(NestedChange, AnEntryThatIsTakenAwayDuringAMergeIsLeftAlone) {
    Lox::IpAddr const next = ip("239.1.1.2");
    auto const takeAway = [&] { machine().intfStatusIs(nullptr); };
    auto const replace = [&] {
        status->groupSourceListDel(groupG);
        status->groupSourceListIs(groupG)->includeSourceListIs(sourceT);
    };
    auto const table = newTable();
    routeIs(*table, sourceS, groupG);
    settle();
    whenSourcesChange(groupG, takeAway);
    config->groupSourceListIs(groupG)->includeSourceListIs(sourceT);
    EXPECT_EQ(count(sourceT), 1u);
    machine().intfStatusIs(status);
    config->groupSourceListDel(groupG);
    for (bool const counted : {false, true})
        for (auto const& happen : std::initializer_list<std::function<void()>>{takeAway, replace}) {
            status->groupSourceListDelAll();
            machine().groupSourceRefCounterDelAll();
            if (counted) {
                status->groupSourceListIs(groupG);
                machine().addIncludeSourceGroup(sourceS, groupG);
            } else {
                status->groupSourceListIs(groupG)->includeSourceListIs(sourceS);
            }
            whenSourcesChange(groupG, happen);
            machine().removeIncludeSourceGroup(sourceS, groupG);
            bool const away = !machine().intfStatus();
            EXPECT_EQ(announced(), away ? "include exclude" : "include 10.0.0.2 exclude");
            machine().intfStatusIs(status);
        }
    status->groupSourceListDelAll();
    ruleIs("iptv", 1, permit(sourceS, groupG, ~std::uint32_t(3)));
    whenAnnounced(groupG, takeAway);
    config->aclListIs("iptv");
    EXPECT_EQ(announced(next), "absent");
}

TEST_F(NestedChange, AReviewThatFailsGoesOnAndTriesTheRouteAgain) {
    auto const table = newTable();
    settle();
    auto const groups = {groupG, ip("239.1.1.2"), ip("239.1.1.3")};
    for (bool const wholeTable : {true, false})
        for (auto const failing : groups) {
            SCOPED_TRACE(failing.stringValue() + (wholeTable ? " of all" : " of the changed"));
            for (auto const group : groups) routeIs(*table, sourceS, group);
            if (wholeTable) {
                machine().changedRouteDelAll();
                machine().handleDenyMroute();
            }
            whenAnnounced(failing, [] { throw std::runtime_error("full"); });
            EXPECT_THROW(settle(), std::runtime_error);
            // A watcher that will not have one route keeps no other from its turn.
            whenSourcesChange(failing, [] { throw std::runtime_error("still full"); });
            EXPECT_THROW(settle(), std::runtime_error);
            for (auto const group : groups)
                EXPECT_EQ(status->groupSourceListHas(group), true) << group;
            settle();
            for (auto const group : groups) EXPECT_EQ(announced(group), "include 10.0.0.1 exclude");
            EXPECT_FALSE(machine().syncAllRoutes());
            for (auto const group : groups) routeDel(*table, sourceS, group);
            settle();
            ASSERT_EQ(status->groupSourceListCount(), 0u);
        }
}

TEST_F(NestedChange, TablesThatAreForgottenAndFoundAgainAreFollowed) {
    auto const table = newTable();
    settle();
    machine().mfibKeshDirDel();
    machine().mfibKeshDelAll();
    machine().mfibKeshDirIs(Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl const>(tables()));
    routeIs(*table, sourceS, groupG);
    settle();
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
}

/// Will not have a group.
struct Refuser : Nex::Reactor<IntfStatus::Notifiee, Nex::PtrInterface> {
    Refuser(Nex::Ptr<IntfStatus> status, Lox::IpAddr group)
        : Reactor(std::move(status), static_cast<Nex::PtrInterface*>(nullptr)), group_(group) {}
    void onGroupSourceList(Lox::IpAddr group) override {
        if (group != group_ || !notifier()->groupSourceListHas(group)) return;
        ++tries;
        notifier()->groupSourceListDel(group);
        throw Nex::Exception("refused");
    }
    unsigned tries = 0;
    Lox::IpAddr const group_;
};

TEST_F(NestedChange, ARouteThatAlwaysFailsIsTriedLessAndLessAndHoldsUpNoOther) {
    auto const table = newTable();
    settle();
    Nex::Owned<Refuser> refuser;
    refuser.make(status, groupG);
    routeIs(*table, sourceS, groupG);
    auto const pass = [this](double seconds) {
        for (double const end = world.time.now() + seconds; world.time.now() < end;) try {
                world.pass(end - world.time.now());
            } catch (Nex::Exception const&) {
            }
    };
    pass(3600);
    EXPECT_GE(refuser->tries, 60u);
    EXPECT_LT(refuser->tries, 80u);
    routeIs(*table, sourceS, ip("239.1.1.2"));
    pass(0.02);
    EXPECT_EQ(announced(ip("239.1.1.2")), "include 10.0.0.1 exclude");
    refuser.del();
    pass(61);
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
}

TEST_F(NestedChange, AnExceptionWhileARuleIsTakenBackLeavesNothingOfIt) {
    config->aclListIs("iptv");
    ruleIs("iptv", 1, permit(sourceS, groupG, ~std::uint32_t(3)));
    auto const counts = [this](Lox::IpAddr source) {
        std::uint32_t sum = 0;
        for (std::uint32_t i = 0; i < 4; ++i)
            sum += count(source, Lox::IpAddr::fromHost(ip("239.1.1.0").host() + i));
        return sum;
    };
    auto const throwOnce = [this](Nex::Owned<StatusWatch>& watch) {
        watch.make(status, [](Lox::IpAddr, bool present) -> bool {
            if (present) return false;
            throw Nex::Exception("from a callback");
        });
    };
    Nex::Owned<StatusWatch> watch;
    throwOnce(watch);
    EXPECT_THROW(ruleDel("iptv", 1), Nex::Exception);
    watch.del();
    EXPECT_EQ(counts(sourceS), 0u);
    // The helper is not left at work on the rule.
    ruleIs("iptv", 2, permit(sourceT, groupG));
    EXPECT_EQ(announced(), "include 10.0.0.2 exclude");
    ruleIs("iptv", 3, permit(sourceT, groupG, ~std::uint32_t(3)));
    ruleIs("iptv", 4, permit(sourceS, groupG));
    throwOnce(watch);
    EXPECT_THROW(config->aclListDel("iptv"), Nex::Exception);
    EXPECT_EQ(counts(sourceS) + counts(sourceT), 0u);
    EXPECT_EQ(status->groupSourceListCount(), 0u);
    EXPECT_EQ(helper(), nullptr);
}

TEST_F(NestedChange, ARuleThatFailsHalfWayIsTakenBackAndAppliedTheNextTime) {
    Lox::IpAddr const configured = ip("239.1.1.2");
    Lox::IpAddr const other = ip("239.1.2.1");
    ruleIs("iptv", 1, permit(sourceS, groupG, ~std::uint32_t(3)));
    ruleIs("iptv", 2, permit(sourceT, other));
    config->groupSourceListIs(configured)->includeSourceListIs(sourceT);
    auto const fail = [] { throw Nex::Exception("from a callback"); };
    for (bool const counted : {false, true}) {
        SCOPED_TRACE(counted);
        if (counted) {
            whenSourcesChange(configured, fail);
        } else {
            whenAnnounced(groupG, fail);
            machine().groupSourceRefCounterIs({sourceS, groupG}, 1); // of somebody else
        }
        EXPECT_THROW(config->aclListIs("iptv"), Nex::Exception);
        for (auto const group : {ip("239.1.1.0"), groupG, configured, ip("239.1.1.3")})
            EXPECT_EQ(count(sourceS, group), !counted && group == groupG) << group;
        if (!counted) machine().groupSourceRefCounterDel({sourceS, groupG});
        EXPECT_EQ(announced(configured), "include 10.0.0.2 exclude");
        EXPECT_EQ(announced(other), "include 10.0.0.2 exclude");
        EXPECT_EQ(cachedRules(), 1u);
        rulesOf("iptv")->ruleBySequenceIs(9, Acl::UniqueId(counted)); // names no rule, or the first
        EXPECT_EQ(count(sourceS), 1u);
        EXPECT_EQ(announced(configured), "include 10.0.0.1 10.0.0.2 exclude");
        config->aclListDel("iptv");
        rulesOf("iptv")->ruleBySequenceDel(9);
        EXPECT_EQ(count(sourceS) + count(sourceT, other), 0u);
    }
}

TEST_F(NestedChange, WhatWasAskedOfAListIsDoneAlsoIfAnExceptionFollows) {
    ruleIs("iptv", 1, permit(sourceS, groupG));
    whenAnnounced(groupG, [&] {
        config->aclListDel("iptv");
        throw Nex::Exception("from a callback");
    });
    EXPECT_THROW(config->aclListIs("iptv"), Nex::Exception);
    EXPECT_EQ(helper(), nullptr);
}

// Whoever hears of a group or of its record may point the machines at other records.
TEST_F(NestedChange, GroupsOfTheRecordThatIsWatchedNowAreFollowed) {
    Lox::IpAddr const next = ip("239.1.1.2");
    auto const first = IntfConfig::IntfConfigIs(up0);
    for (auto const group : {groupG, next}) first->groupSourceListIs(group);
    auto const second = IntfConfig::IntfConfigIs(up0);
    second->groupSourceListIs(groupG);
    whenAnnounced(groupG, [&] { machine().intfConfigIs(Nex::Ptr<IntfConfig const>(second)); });
    machine().intfConfigIs(Nex::Ptr<IntfConfig const>(first));
    EXPECT_EQ(machine().groupSourceListConfig(groupG)->notifier(), second->groupSourceList(groupG));
    EXPECT_EQ(machine().groupSourceListConfig(next), nullptr);

    auto const other = IntfStatus::IntfStatusIs(up0);
    auto const third = IntfStatus::IntfStatusIs(up0);
    for (auto const group : {groupG, next})
        other->groupSourceListIs(group)->includeSourceListIs(sourceS);
    third->groupSourceListIs(groupG);
    Nex::Owned<RecordWatch> watch;
    watch.make(Nex::Ptr<Igmp::IgmpV3GroupRecord const>(host->v3group(groupG)),
               [&] { binding().intfStatusIs(third); });
    binding().intfStatusIs(other);
    EXPECT_EQ(binding().groupSourceListStatus(groupG)->notifier(), third->groupSourceList(groupG));
    EXPECT_EQ(binding().groupSourceListStatus(next), nullptr);
}

} // namespace
} // namespace IgmpHostProxy
