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

  private:
    Nex::Owned<StatusWatch> watch_;
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

// The helper is not left at work on the rule.
TEST_F(NestedChange, AnExceptionWhileARuleIsTakenBackDoesNotStopTheList) {
    config->aclListIs("iptv");
    ruleIs("iptv", 1, permit(sourceS, groupG));
    Nex::Owned<StatusWatch> watch;
    watch.make(status, [](Lox::IpAddr, bool present) -> bool {
        if (present) return false;
        throw Nex::Exception("from a callback");
    });
    EXPECT_THROW(ruleDel("iptv", 1), Nex::Exception);
    watch.del();
    ruleIs("iptv", 2, permit(sourceT, groupG));
    EXPECT_EQ(announced(), "include 10.0.0.2 exclude");
    EXPECT_EQ(count(sourceS), 0u);
}

} // namespace
} // namespace IgmpHostProxy
