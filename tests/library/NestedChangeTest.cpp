// Whoever hears of an announced group may take away, at once, what had announced it. What is left
// is what the writers want in the end.
#include "Producers.h"

namespace IgmpHostProxy {
namespace {

struct HostWatch : EntryWatch<Igmp::IgmpHost, Lox::IpAddr> {
    using EntryWatch::EntryWatch;
    void onV3group(Lox::IpAddr key) override { hear(key, notifier()->v3groupHas(key)); }
};
struct RecordWatch : EntryWatch<Igmp::IgmpV3GroupRecord, Lox::IpAddr> {
    using EntryWatch::EntryWatch;
    void onVersion() override { hear(notifier()->group(), true); }
};

class NestedChange : public Producers {
  protected:
    using Act = std::function<void()>;

    /// Has `act` done once, within the notification that tells of the group.
    void whenAnnounced(Lox::IpAddr group, Act act) {
        watch_.make(status, [=](Lox::IpAddr told, bool present) {
            bool const meant = told == group && present;
            if (meant) act();
            return meant;
        });
    }
    static auto once(Act act) {
        return [act](Lox::IpAddr, bool) {
            act();
            return true;
        };
    }
    /// Has `act` done as the first of the group's sources comes or goes.
    void whenSourcesChange(Lox::IpAddr group, Act act) {
        sourceWatch_.make(status->groupSourceList(group), once(act));
    }
    void configure(Lox::IpAddr source, bool include = true) {
        auto const group = config->groupSourceListIs(groupG);
        include ? group->includeSourceListIs(source) : group->excludeSourceListIs(source);
    }
    void takeBack(Lox::IpAddr source, bool include = true) {
        IgmpHostProxy::takeBack(*config, source, groupG, include);
    }

  private:
    Nex::Owned<StatusWatch> watch_;
    Nex::Owned<SourceWatch> sourceWatch_;
};

TEST_F(NestedChange, AGroupThatGoesAsItsEntryComesBackIsCountedNoMore) {
    for (bool const include : {true, false}) {
        Nex::Ptr<GroupSource> const group = config->groupSourceListIs(groupG);
        configure(sourceS);
        takeBack(sourceS);
        ASSERT_EQ(announced(), "absent");
        whenAnnounced(groupG, [&] { config->groupSourceListDel(groupG); });
        configure(sourceT, include);
        EXPECT_EQ(count(sourceT), 0u);
        status->groupSourceListDel(groupG);

        // The same of a walk over the sources of another configuration.
        config->groupSourceListIs(groupG);
        auto const other = IntfConfig::IntfConfigIs(up0);
        auto const sources = other->groupSourceListIs(groupG);
        for (auto const source : {sourceS, sourceT})
            include ? sources->includeSourceListIs(source) : sources->excludeSourceListIs(source);
        whenSourcesChange(groupG, [&] { other->groupSourceListDel(groupG); });
        machine().intfConfigIs(Nex::Ptr<IntfConfig const>(other));
        EXPECT_EQ(count(sourceS), 1u);
        EXPECT_EQ(count(sourceT), 0u);
        machine().intfConfigIs(Nex::Ptr<IntfConfig const>(config));
        machine().groupSourceRefCounterDelAll();
        status->groupSourceListDelAll();
    }
}

TEST_F(NestedChange, AGroupThatIsTakenBackAsItsRecordGoesStaysAway) {
    config->groupSourceListIs(groupG);
    ASSERT_TRUE(host->v3groupHas(groupG));
    Nex::Owned<HostWatch> watch;
    watch.make(host, [&](Lox::IpAddr, bool present) {
        if (!present) takeBack(anySource);
        return !present;
    });
    configure(anySource);
    EXPECT_EQ(announced(), "absent");
    EXPECT_EQ(count(anySource), 0u);
    EXPECT_FALSE(host->v3groupHas(groupG));
}

// Any source that somebody includes as it leaves the exclude list, beside another one, hides what
// the table had put in.
TEST_F(NestedChange, AnySourceThatChangesListsAsItLeavesHidesAllOthers) {
    for (bool const another : {false, true}) {
        configure(anySource, false);
        whenSourcesChange(groupG, [&] {
            configure(anySource);
            if (another) configure(sourceS);
            status->groupSourceList(groupG)->excludeSourceListIs(sourceT);
        });
        takeBack(anySource, false);
        EXPECT_EQ(announced(),
                  another ? "include 0.0.0.0 exclude" : "include 0.0.0.0 exclude 10.0.0.2");
        config->groupSourceListDel(groupG);
        status->groupSourceListDel(groupG);
        machine().groupSourceRefCounterDelAll();
    }
}

// Pairs whose entry somebody has deleted are counted and given back all the same.
TEST_F(NestedChange, AnEntryThatIsGoneWhileItIsCountedComesBackWithTheNextSource) {
    for (bool const include : {true, false})
        for (auto const source : {sourceS, anySource})
            for (unsigned const references : {0u, 1u, 2u}) {
                for (unsigned n = 0; n < references; ++n)
                    include ? machine().addIncludeSourceGroup(source, groupG)
                            : machine().addExcludeSourceGroup(source, groupG);
                status->groupSourceListDel(groupG);
                include ? machine().removeIncludeSourceGroup(source, groupG)
                        : machine().removeExcludeSourceGroup(source, groupG);
                EXPECT_EQ(announced(), "absent");
                machine().groupSourceRefCounterDelAll();
            }
    for (unsigned const references : {0u, 1u}) { // without any status
        machine().groupSourceRefCounterIs({sourceS, groupG}, references);
        machine().intfStatusIs(nullptr);
        machine().addIncludeSourceGroup(sourceS, groupG);
        machine().addExcludeSourceGroup(sourceS, groupG);
        machine().removeIncludeSourceGroup(sourceS, groupG);
        machine().removeExcludeSourceGroup(sourceS, groupG);
        machine().intfStatusIs(status);
        EXPECT_EQ(count(sourceS), references);
    }
    machine().groupSourceRefCounterDelAll();
    for (bool const include : {true, false}) { // put in by the table
        auto const entry = status->groupSourceListIs(groupG);
        include ? entry->includeSourceListIs(sourceS) : entry->excludeSourceListIs(sourceS);
        whenSourcesChange(groupG, [&] { status->groupSourceListDel(groupG); });
        configure(sourceT);
        EXPECT_EQ(announced(), "include 10.0.0.2 exclude");
        takeBack(sourceT);
        EXPECT_EQ(announced(), "absent");
    }
}

TEST_F(NestedChange, AGroupThatGetsAnOwnerDuringItsReviewIsLeftToTheOwner) {
    auto const table = newTable();
    settle();
    enum Moment { appears, losesItsSourcesToAnyRoute, losesItsLastRoute };
    struct Case {
        char const* owner;
        Act happen;
        std::string expected;
        Act undo;
    };
    Case const cases[] = {
        {"configuration", [&] { configure(sourceT); }, "include 10.0.0.2 exclude",
         [&] {
             takeBack(sourceT);
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
    Act const takeAway = [&] { machine().intfStatusIs(nullptr); };
    for (auto const& review : std::initializer_list<Act>{[&] { status->denyMrouteIs(true); },
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
    configure(sourceT);
    EXPECT_EQ(count(sourceT), 1u);
    machine().intfStatusIs(status);
    config->groupSourceListDel(groupG);
    for (bool const counted : {false, true})
        for (auto const& happen : std::initializer_list<Act>{takeAway, replace}) {
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

TEST_F(NestedChange, ARouteThatGoesWhileItIsSyncedIsLookedAtAgain) {
    auto const table = newTable();
    settle();
    whenAnnounced(groupG, [&] {
        routeDel(*table, sourceS, groupG);
        machine().doReview(); // which leaves the changed routes to whoever is at it
    });
    routeIs(*table, sourceS, groupG);
    settle();
    EXPECT_EQ(announced(), "absent");
    EXPECT_TRUE(machine().changedRoute().empty());
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

// Whether the failing rule itself was counted does not show in the pair's count.
TEST_F(NestedChange, ARuleThatFailsTakesBackItsOwnReferencesOnly) {
    auto const fails = [this](Acl::Action action, std::function<void()> const& act) {
        ruleIs("iptv", 1, rule(action, sourceS, groupG));
        whenSourcesChange(groupG, [=] {
            act();
            throw Nex::Exception("from a callback");
        });
        EXPECT_THROW(config->aclListIs("iptv"), Nex::Exception);
    };
    auto const table = newTable();
    routeIs(*table, sourceT, groupG);
    settle();
    // As the route's source goes, before the rule is counted.
    fails(Acl::Action::permit,
          [this] { config->groupSourceListIs(groupG)->includeSourceListIs(sourceS); });
    EXPECT_EQ(count(sourceS), 1u);
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
    config->aclListDel("iptv");
    // As the source changes lists, after that.
    fails(Acl::Action::deny, [this] { takeBack(sourceS); });
    EXPECT_EQ(count(sourceS), 0u);
    EXPECT_EQ(announced(), "absent");
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
    machine().intfConfigIs(nullptr);
    EXPECT_EQ(machine().groupSourceListConfig(groupG), nullptr);

    auto const other = IntfStatus::IntfStatusIs(up0);
    auto const third = IntfStatus::IntfStatusIs(up0);
    for (auto const group : {groupG, next})
        other->groupSourceListIs(group)->includeSourceListIs(sourceS);
    third->groupSourceListIs(groupG);
    Nex::Owned<RecordWatch> watch;
    watch.make(host->v3group(groupG), once([&] { binding().intfStatusIs(third); }));
    binding().intfStatusIs(other);
    EXPECT_EQ(binding().groupSourceListStatus(groupG)->notifier(), third->groupSourceList(groupG));
    EXPECT_EQ(binding().groupSourceListStatus(next), nullptr);
}

} // namespace
} // namespace IgmpHostProxy
