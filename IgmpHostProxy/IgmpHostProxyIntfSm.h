// The proxy machine of one interface.
//
// It watches the interface's configuration and writes the interface's status: the settings, and the
// merged list of groups to announce. The root machine owns it, from the moment that the interface
// is resolved until it leaves the configuration.
//
// Its rules stand in files of their own:
//     IgmpHostProxyIntfSm.cpp         start-up, settings, configured and deleted groups
//     IgmpHostProxyIntfSmMerge.cpp    the membership merge with its reference counts
//     IgmpHostProxyIntfSmAcl.cpp      the attachment of access lists
//     IgmpHostProxyIntfSmReview.cpp   the paced review of the forwarding tables
//
// Timers: `reviewTimer`, on the clock, runs `doReview` once something asked for a review.
//
// The configuration and the access lists share a group: each counts the (source, group) pairs that
// it brings, and the merge says what follows. The forwarding tables count nothing. They keep off a
// group that one of the two has, give way as soon as a pair of it is counted, and come back only as
// their routes are looked at again (`doReleaseGroups`).
//
// Everything but reviews is done inside the call that brings it about. A review is a slice of work
// of `reviewQuantum` seconds and one route at most; the one that ends a full sync adds a slice of
// changed routes. So long a loop may be kept from its other work.
#pragma once

#include "Acl/AclConfig.h"
#include "IgmpHostProxy/Config.h"
#include "IgmpHostProxy/GroupSourceRefCounter.h"
#include "IgmpHostProxy/IgmpHostProxyAclHelper.h"
#include "IgmpHostProxy/NexGroupSource.h"
#include "IgmpHostProxy/Status.h"
#include "Ip/SourceIntf.h"
#include "Kesh/Mfib.h"
#include "Nex/Clock.h"
#include "Nex/LinkedSet.h"
#include "Nex/Machine.h"
#include "Olm/ReviewTimer.h"

#include <optional>

namespace IgmpHostProxy {

class IgmpHostProxySm;

class IgmpHostProxyIntfSm : public Nex::PtrInterface {
  public:
    static constexpr char nexTypeName[] = "IgmpHostProxy::IgmpHostProxyIntfSm";

    /// Starts up at once: the status is in step with the configuration when this returns, the lists
    /// are applied, and the first slice of a full sync is done. `parent` is not owned, all else is
    /// held. A null `clock` is a programming error and ends the process; whatever else is null,
    /// what depends on it stays away. Throws what watchers of the status throw; what stands there
    /// by then stays.
    static Nex::Ptr<IgmpHostProxyIntfSm> IgmpHostProxyIntfSmIs(
        Lox::IntfId intfId, Nex::Ptr<IntfConfig const> intfConfig, Nex::Ptr<IntfStatus> intfStatus,
        Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl const> mfibKeshDir,
        Nex::Ptr<Acl::AclTypeConfig const> ipAclConfig, Nex::Ptr<Nex::Clock const> clock,
        Nex::Ptr<Ip::SourceIntf::SourceIntf> srcIntfIhpIntf, IgmpHostProxySm* parent);
    IgmpHostProxyIntfSm(Lox::IntfId intfId, Nex::Ptr<IntfConfig const> intfConfig,
                        Nex::Ptr<IntfStatus> intfStatus,
                        Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl const> mfibKeshDir,
                        Nex::Ptr<Acl::AclTypeConfig const> ipAclConfig,
                        Nex::Ptr<Nex::Clock const> clock,
                        Nex::Ptr<Ip::SourceIntf::SourceIntf> srcIntfIhpIntf,
                        IgmpHostProxySm* parent);
    /// Takes nothing back: the status keeps its groups.
    ~IgmpHostProxyIntfSm() override;

    Lox::IntfId const& intfId() const { return intfId_; }
    /// The root that owns this; not used here.
    IgmpHostProxySm* parent() const { return parent_; }
    /// The constructor's arguments as they are now.
    auto nexArguments() const {
        return std::make_tuple(Nex::Ptr(intfConfig()), Nex::Ptr(intfStatus()),
                               Nex::Ptr(mfibKeshDir()), Nex::Ptr(ipAclConfig()), Nex::Ptr(clock()),
                               srcIntfIhpIntf_);
    }
    static constexpr char const* nexArgumentNames[] = {
        "intfConfig", "intfStatus", "mfibKeshDir", "ipAclConfig", "clock", "srcIntfIhpIntf"};

    // Handlers do nothing while an input that they need is null. Whatever notifies, here nearly
    // everything, may run code of others that changes the configuration, the lists, the tables or
    // the machine itself; what was asked before a notification is asked again after it. An error of
    // those who are told reaches whoever changed the input. Handlers may be called at any time and
    // again; those of lists count again what they apply again.

    /// The last step of construction: from here on reviews may run.
    void handleInitialized();
    /// Copies the setting into the status.
    void handleIgmpVersion();
    void handleUnsolicitedReportInterval();
    /// Start-up only: every configured group gets its status entry, and groups that nobody asks for
    /// any more go with their counts.
    void handleGroupList();
    /// A configured group came or went; its reactor follows.
    void handleGroupSourceListConfig(Lox::IpAddr group);
    /// All of them; those of groups that are configured no longer go. What they announced stays
    /// until it is listed as deleted.
    void handleGroupSourceListConfig();
    /// The same for the groups that are listed as deleted; their reactors take sources back.
    void handleDeletedGroupSourceListConfig(Lox::IpAddr group);
    void handleDeletedGroupSourceListConfig();

    // The membership merge: one reference to (source, group) comes or goes, in one of the modes.
    // The status entry of the group exists before an add; a remove tolerates that it is gone. What
    // becomes of the group is written down in IgmpHostProxyIntfSmMerge.cpp.
    //
    // Who adds takes back as often, in the same mode; the count does not know the mode. An add
    // counts even where the status stays as it is because something else takes precedence. Where
    // watchers throw, the count stands and the status may be between two steps. A pair takes
    // constant time, but for what displaces the other sources of its group or brings them back.
    void addIncludeSourceGroup(Lox::IpAddr source, Lox::IpAddr group);
    void addExcludeSourceGroup(Lox::IpAddr source, Lox::IpAddr group);
    void removeIncludeSourceGroup(Lox::IpAddr source, Lox::IpAddr group);
    void removeExcludeSourceGroup(Lox::IpAddr source, Lox::IpAddr group);

    /// For the add that is called next, and for no other: the status entry of its group, which it
    /// need not look for then, and where to tell that its reference is counted; what it throws may
    /// come before that or after, and the count, which others change meanwhile, can't tell. Neither
    /// is held, and nobody is told of anything in between. They are no arguments of the adds, whose
    /// traces show what their signature is.
    void prepareAdd(GroupSource* entry, bool* counted = nullptr) {
        entry_ = entry;
        counted_ = counted;
    }

    // The counts as they are. Changing them by hand changes no group, and makes a pair without a
    // count pass for a route's.
    GroupSourceRefCounter const& groupSourceRefCounter() const { return groupSourceRefCounter_; }
    std::uint32_t groupSourceRefCounter(SourceGroup sg) const {
        return groupSourceRefCounter_.count(sg);
    }
    std::uint32_t groupSourceRefCounterIs(SourceGroup sg, std::uint32_t count) {
        return groupSourceRefCounter_.is(sg, count);
    }
    std::uint32_t groupSourceRefCounterInc(SourceGroup sg, std::uint32_t n) {
        return groupSourceRefCounter_.inc(sg, n);
    }
    std::uint32_t groupSourceRefCounterDec(SourceGroup sg, std::uint32_t n) {
        return groupSourceRefCounter_.dec(sg, n);
    }
    void groupSourceRefCounterDel(SourceGroup sg) { groupSourceRefCounter_.del(sg); }
    void groupSourceRefCounterDelAll() { groupSourceRefCounter_.delAll(); }

    /// Attaches, purges or detaches the lists that the configuration names, or one of them. A list
    /// that is attached already is applied, and counted, once more.
    void handleAclList();
    void handleAclList(Nex::String name);
    /// The same for all lists that exist, in the order of their names.
    void handleAclConfig();
    void handleAclConfig(Nex::String name);
    /// A list came or went; its own reactor follows, and applies the list's rules as they change.
    /// Without a name, for all: an error of one list keeps no other waiting.
    void handleAcl(Nex::Name name);
    void handleAcl();

    /// Null when the list is not attached or never existed. Of a list that is attached and has gone
    /// the helper stays, without rules. Lent.
    IgmpHostProxyAclHelper* igmpHostProxyAclHelper(Nex::String name) const;
    auto igmpHostProxyAclHelper() const { return igmpHostProxyAclHelper_.walk(); }
    /// Makes the helper where there is none. It applies nothing by itself.
    Nex::Ptr<IgmpHostProxyAclHelper> igmpHostProxyAclHelperIs(Nex::String name);
    /// Lets go of it. What its rules did stays, and can no longer be taken back: purge it first.
    void igmpHostProxyAclHelperDel(Nex::String name) { igmpHostProxyAclHelper_.take(name); }
    void igmpHostProxyAclHelperDelAll();
    /// Whether an attached list contributes, or has contributed, the group: routes keep off it
    /// either way. A lookup for each list.
    bool aclHas(Lox::IpAddr group) const;

    /// Calls `visit(group)` for every group with a status entry or a count, some twice. Wants a
    /// status.
    template <class Visit>
    void forKnownGroups(Visit visit) const {
        for (auto const& item : intfStatus()->groupSourceList()) visit(item.key);
        groupSourceRefCounter_.forGroups(visit);
    }
    /// At least as many as these groups.
    std::uint64_t knownGroupsBound() const;

    /// Asks for a review unless one is pending. No review runs before `handleInitialized`, and none
    /// without tables. Runs nothing itself.
    void doKickReview();
    /// One review step: a slice of a full sync, if one is wanted; once that has ended, a slice of
    /// the changed routes. Asks for the next one as long as anything is left. Throws what watchers
    /// of the status throw; routes at which they did are kept and tried again.
    void doReview();
    /// One slice of the full sync, from the bookmark on: as many routes as `reviewQuantum` seconds
    /// allow, and one at least. Without a table to begin with the sync is over. A route at which
    /// somebody throws is noted as changed, and the rest of the slice done, before the first error
    /// reaches the caller.
    void doSyncAllRoutes();
    /// One slice over the changed routes, likewise, the first to change first. Routes that change
    /// meanwhile wait for the next. A call from inside itself does nothing.
    void doSyncChangedRoutes();
    /// Brings the status in step with one route of a table, as it is there now; one that is not, or
    /// whose table is not, has gone. The pointer names the table and is not followed. A (*,G) route
    /// that has gone has all routes looked at again, for those of the group that it displaced.
    void doSyncKey(Kesh::Multicast::Fib::Status const* table,
                   Routing::Multicast::Fib::IpGenRouteKey const& key);
    void doSyncKey(Kesh::Multicast::Fib::MfibKeshDirRouteKey const& changed);
    /// Strips the forwarding table's sources from the status, or has the tables reviewed again.
    void handleDenyMroute();
    /// The configuration or an access list has let go of these groups, and the forwarding tables
    /// may have those that no other owner wants. Their routes are reviewed soon. Nobody calls this
    /// but whoever writes configuration and lists, once for all that a change has let go of: it
    /// walks the routes from the lowest group to the highest.
    void doReleaseGroups(Lox::IpAddrWithFullMask groups);
    /// A route of a table came, changed or went: noted, once, and a review asked for. Constant
    /// time; throws std::bad_alloc, and the change is lost then.
    void handleRoute(Kesh::Multicast::Fib::MfibKeshDirRouteKey const& changed);
    /// A table came or went. Its routes are watched from now on, or no longer; those that it has,
    /// or had, are not looked at by this.
    void handleKeshPtr(Kesh::Multicast::Fib::Status const* key);
    void handleKeshPtr();

    /// The table at which a suspended full sync resumes, or null. Only its name: it may be gone,
    /// and the sync is over at the next slice then.
    Kesh::Multicast::Fib::Status const* keshBookmark() const { return keshBookmark_; }
    void keshBookmarkIs(Kesh::Multicast::Fib::Status const* table);

    /// Routes that changed and have not been reviewed, the first to change in front, each once. As
    /// many as changed since the last review: they wait for a clock that is told the time, and for
    /// tables.
    using ChangedRoutes = Nex::LinkedSet<Kesh::Multicast::Fib::MfibKeshDirRouteKey>;
    ChangedRoutes const& changedRoute() const { return changedRoute_; }
    bool changedRouteHas(Kesh::Multicast::Fib::MfibKeshDirRouteKey key) const {
        return changedRoute_.has(key);
    }
    /// Asks for no review.
    void changedRouteIs(Kesh::Multicast::Fib::MfibKeshDirRouteKey key) {
        changedRoute_.insert(key);
    }
    void changedRouteDel(Kesh::Multicast::Fib::MfibKeshDirRouteKey key) { changedRoute_.take(key); }
    void changedRouteDelAll() { changedRoute_.clear(); }

    /// Whether a full sync stands somewhere in the middle of a table.
    bool rkBookmarkNotNull() const;

    class NexIntfConfig : public Nex::Reactor<IntfConfig::NotifieeConst, IgmpHostProxyIntfSm> {
      public:
        using Reactor::Reactor;
        void onIgmpVersion() override { machine()->handleIgmpVersion(); }
        void onUnsolicitedReportIntvl() override { machine()->handleUnsolicitedReportInterval(); }
        void onGroupSourceList(Lox::IpAddr group) override {
            machine()->handleGroupSourceListConfig(group);
        }
        void onGroupSourceListnexImmediate() override { machine()->handleGroupSourceListConfig(); }
        void onDeletedGroupSourceList(Lox::IpAddr group) override {
            machine()->handleDeletedGroupSourceListConfig(group);
        }
        void onDeletedGroupSourceListnexImmediate() override {
            machine()->handleDeletedGroupSourceListConfig();
        }
        void onAclList(Nex::String name) override { machine()->handleAclList(name); }
    };

    class NexIpAclConfig
        : public Nex::Reactor<Acl::AclTypeConfig::NotifieeConst, IgmpHostProxyIntfSm> {
      public:
        using Reactor::Reactor;
        void onAcl(Nex::Name name) override { machine()->handleAcl(name); }
        void onAclnexImmediate() override { machine()->handleAcl(); }
    };

    /// One access list, attached or not. Brings the helper of the list, if there is one, in step
    /// with the list's rules: rules are told apart by their ids.
    class NexAcl : public Nex::Reactor<Acl::AclConfig::NotifieeConst, IgmpHostProxyIntfSm> {
      public:
        /// Starts up at once, as on any change of the rules. `acl` is not null.
        NexAcl(Nex::Ptr<Acl::AclConfig const> acl, IgmpHostProxyIntfSm* machine);
        /// The list has another version of its rules, or none, which takes nothing back.
        void handleCfg();
        /// Reconciles, or has that done by whoever is applying a rule of the list right now.
        void handleRule();
        /// Applies the list's new rules and takes the vanished ones back. Ends early when something
        /// is asked of the helper meanwhile. In the order of sequence numbers, new ones first, so
        /// that a group that passes from one rule to another stays. A rule that throws keeps no
        /// other waiting; the caller hears the first error, and one that could not be applied is
        /// tried again at the next change.
        void doReconcile();
        void cfgIs(Nex::Ptr<Acl::AclSubConfig const> cfg);
        void cfgDel() { cfg_.del(); }

        void onCurrCfg() override;
        void onNotifier() override { onCurrCfg(); }
        void nexRetire() override;

        /// The rules in force.
        class NexCfg : public Nex::Reactor<Acl::AclSubConfig::NotifieeConst, NexAcl> {
          public:
            using Reactor::Reactor;
            void onRuleBySequence(std::uint32_t) override { machine()->handleRule(); }
        };

      private:
        Nex::Owned<NexCfg> cfg_;
    };

    class NexIntfStatus : public Nex::Reactor<IntfStatus::Notifiee, IgmpHostProxyIntfSm> {
      public:
        using Reactor::Reactor;
        void onDenyMroute() override { machine()->handleDenyMroute(); }
        void onNotifier() override { machine()->handleDenyMroute(); }
    };

    class NexMfibKeshDir : public Nex::Reactor<Kesh::Multicast::Fib::MfibKeshColl::NotifieeConst,
                                               IgmpHostProxyIntfSm> {
      public:
        using Reactor::Reactor;
        void onKeshPtr(Kesh::Multicast::Fib::Status const* key) override {
            machine()->handleKeshPtr(key);
        }
        void onKeshPtrnexImmediate() override { machine()->handleKeshPtr(); }
    };

    /// One table. Only records which routes changed; that it came asks for a review, too, but not
    /// for a look at all of its routes.
    class NexMfibKesh
        : public Nex::Reactor<Kesh::Multicast::Fib::Status::NotifieeConst, IgmpHostProxyIntfSm> {
      public:
        NexMfibKesh(Nex::Ptr<Kesh::Multicast::Fib::Status const> table,
                    IgmpHostProxyIntfSm* machine);
        void doNotifyChangedRoutes();
        void doNotifyChangedRoutes(Routing::Multicast::Fib::IpGenRouteKey const& key);
        void onRoute(Routing::Multicast::Fib::IpGenRouteKey key) override {
            doNotifyChangedRoutes(key);
        }
    };

    /// Its wake time is the review timer's: nobody else sets it.
    class NexClock : public Nex::Reactor<Nex::Clock::NotifieeConst, IgmpHostProxyIntfSm> {
      public:
        using Reactor::Reactor;
        void onTime() override { machine()->doReview(); }
        void onNotifier() override {
            if (notifier()) machine()->doReview();
        }
    };

    /// One configured group. A source that is gone from the watched list is ignored: its removal is
    /// told through the list of deleted groups. As it comes, the group gets its status entry, with
    /// or without sources, then each source a reference.
    class NexGroupSourceListConfig
        : public NexGroupSource<NexGroupSourceListConfig, IgmpHostProxyIntfSm> {
      public:
        NexGroupSourceListConfig(Nex::Ptr<GroupSource const> groupSource,
                                 IgmpHostProxyIntfSm* machine);
        void handleInitialized();
        using NexGroupSource::handleExcludeSourceList;
        using NexGroupSource::handleIncludeSourceList;
        void handleIncludeSourceList(Lox::IpAddr source);
        void handleExcludeSourceList(Lox::IpAddr source);

      private:
        /// Makes the status entry where there is none. Wants a status.
        void doEnsureEntry();

        /// The group's, as long as the status is its parent: it loses that as it is taken out.
        Nex::Ptr<GroupSource> entry_;
    };

    /// One group with sources that the operator removed. Each source takes one reference back as it
    /// comes into the list; what leaves the list brings nothing back.
    class NexDeletedGroupSourceListConfig
        : public NexGroupSource<NexDeletedGroupSourceListConfig, IgmpHostProxyIntfSm> {
      public:
        NexDeletedGroupSourceListConfig(Nex::Ptr<GroupSource const> groupSource,
                                        IgmpHostProxyIntfSm* machine);
        void handleInitialized();
        using NexGroupSource::handleExcludeSourceList;
        using NexGroupSource::handleIncludeSourceList;
        void handleIncludeSourceList(Lox::IpAddr source);
        void handleExcludeSourceList(Lox::IpAddr source);
    };

    /// Creates the review timer on a clock reactor, or replaces the numbers of the one that is
    /// bound to it. Interval and delays in seconds. `reactor` is not held, and is this machine's.
    void reviewTimerIs(Nex::Clock::NotifieeConst* reactor, float fillInterval, unsigned maxCredits,
                       float minDelay, float maxDelay);
    /// Disarms it, too. Routes that change are still recorded; nothing reviews them.
    void reviewTimerDel();
    /// Null before `handleInitialized`.
    Olm::ReviewTimer* reviewTimer() const { return reviewTimer_.get(); }

    /// One reactor per table of the collection, by the table's name. Null for a table is refused by
    /// Nex::RangeException. Without it routes are no longer watched; what they brought stays.
    Nex::Ptr<NexMfibKesh> mfibKeshIs(Kesh::Multicast::Fib::Status const* key,
                                     Nex::Ptr<Kesh::Multicast::Fib::Status const> table);
    void mfibKeshDel(Kesh::Multicast::Fib::Status const* key) { mfibKesh_.del(key); }
    void mfibKeshDelAll() { mfibKesh_.delAll(); }
    NexMfibKesh* mfibKesh(Kesh::Multicast::Fib::Status const* key) const {
        return mfibKesh_.get(key);
    }
    void mfibKeshDirDel() { mfibKeshDir_.del(); }

  private:
    /// Attaches, purges or detaches a list whose helper, if there is one, is not at work.
    void doAclConfig(Nex::String const& name);
    /// Calls `act`, which works on a list's helper, then does what was asked of that meanwhile, be
    /// there an exception.
    template <class Act>
    void doAndFollowUp(Nex::String const& name, Act act);
    void doReviewSoon();
    void doReviewAfterFailure();
    void doReviewRoutes();
    /// Has the next review walk every route from the start.
    void doWantSyncAllRoutes();
    void doClearBookmarks();
    /// Null also when there are no tables at all.
    Nex::Ptr<Kesh::Multicast::Fib::Status const>
    tableNamed(Kesh::Multicast::Fib::Status const* name) const;
    bool syncInProgress() const { return keshBookmark_ || rkBookmarkNotNull(); }
    /// The table to begin a slice with; null when there is none, or the bookmarked one is gone.
    Kesh::Multicast::Fib::Status const* syncStart() const;
    /// The status entry of the next route lies anywhere: it comes while the one before is synced.
    void doFetchAhead(Kesh::Multicast::Fib::MfibKeshCollRouteIteratorConst const& at) const;
    void doEndSlice(Kesh::Multicast::Fib::MfibKeshCollRouteIteratorConst const& at);
    void doEndSyncChanged(bool again);
    void doSyncPresent(Kesh::Multicast::Fib::Status const& table,
                       Routing::Multicast::Fib::IpGenRouteKey const& key);
    void doSyncAbsent(Routing::Multicast::Fib::IpGenRouteKey const& key);
    /// Whether `entry` is still its group's in `status`, and nobody owns the group. To be asked
    /// anew after every notification.
    bool routesOwn(IntfStatus const& status, GroupSource const& entry) const;
    bool routeDeleted(Lox::IpAddr source, Lox::IpAddr group) const;
    static bool listsAsDeleted(GroupSource const& deleted, Lox::IpAddr source);

    /// The two lists of a group; what goes alike for both is written once.
    enum class List { include, exclude };
    static bool listHas(GroupSource const& entry, List list, Lox::IpAddr source);
    static void listIs(GroupSource& entry, List list, Lox::IpAddr source);
    static void listDel(GroupSource& entry, List list, Lox::IpAddr source);

    /// The first steps of both adds: a group that only the forwarding table contributed so far
    /// loses what the table put in, and the reference is counted. Returns the group's entry; null,
    /// with nothing counted, where there is no status.
    Nex::Ptr<GroupSource> doCount(SourceGroup sg);
    void doRemove(List list, SourceGroup sg);
    /// The removal of a pair that nobody counts: it came from the forwarding table.
    void doRemoveUncounted(List list, GroupSource* entry, SourceGroup sg);
    void doRemoveAllUncounted(GroupSource& entry);
    /// `left` is the pair's count.
    void doRemoveSpecific(List list, GroupSource* entry, SourceGroup sg, std::uint32_t left);
    void doRemoveAnyInclude(GroupSource* entry, SourceGroup sg);
    void doRemoveAnyExclude(GroupSource* entry, SourceGroup sg);
    /// The last reference of a specific source went: an empty group goes, too, unless other pairs
    /// of it are counted.
    void doDeleteUnlessCounted(GroupSource const* entry);
    void doDeleteIfEmpty(GroupSource const& entry);
    /// Nothing, where whoever was told of the entry has taken it away or replaced it.
    void doDeleteEntry(GroupSource const& entry);
    /// The sources that (*,G) had displaced, as the producers want them now, in a scratch record.
    Nex::Ptr<GroupSource> restored(Lox::IpAddr group) const;
    void doCopySources(GroupSource const& from, GroupSource& to) const;
    /// Whether the configuration or a list's rule still contributes the pair in that mode.
    bool wanted(List list, SourceGroup sg) const;
    /// Whether the configuration, which must be there, or a list owns it: no route touches it.
    bool groupKept(Lox::IpAddr group) const;
    void doDropCount(SourceGroup sg);

    Lox::IntfId intfId_;
    NEX_WATCHED(IntfConfig const, intfConfig, NexIntfConfig)
    NEX_WATCHED(IntfStatus, intfStatus, NexIntfStatus)
    NEX_WATCHED(Kesh::Multicast::Fib::MfibKeshColl const, mfibKeshDir, NexMfibKeshDir)
    NEX_WATCHED(Acl::AclTypeConfig const, ipAclConfig, NexIpAclConfig)
    NEX_WATCHED(Nex::Clock const, clock, NexClock)
    NEX_INPUT(Ip::SourceIntf::SourceIntf, srcIntfIhpIntf)
    IgmpHostProxySm* parent_;
    Nex::Ptr<Olm::ReviewTimer> reviewTimer_;
    // The review. A quantum of 0 syncs one route per slice; one that is changed holds from the next
    // slice on. The delays reach the timer as the machine starts; after that `reviewTimerIs` sets
    // its numbers. Wanting a full sync asks for no review by itself.
    NEX_FIELD(double, reviewQuantum, 0.1) // seconds of work per slice
    NEX_FIELD(bool, syncAllRoutes, true)  // a full sync is wanted or in progress
    NEX_FIELD(double, minDelay, 0.01)     // seconds
    NEX_FIELD(double, maxDelay, 0.05)     // seconds
    bool syncRestarted_ = false;          // asked for while a slice of a full sync was under way
    Kesh::Multicast::Fib::Status const* keshBookmark_ = nullptr;
    std::uint64_t keshBookmarkSerial_ = 0; ///< of the table meant, 0 for whichever has the name
    /// The first route that a suspended full sync has not reached.
    NEX_FIELD(Routing::Multicast::Fib::IpGenRouteKey, rkBookmark, {})
    ChangedRoutes changedRoute_;
    /// Of `changedRoute`, the route that is being synced; and whether it changed again meanwhile.
    std::optional<Kesh::Multicast::Fib::MfibKeshDirRouteKey> syncing_;
    bool syncAgain_ = false;
    bool untried_ = false;  ///< the slice under way ends before all routes have had their turn
    double retryDelay_ = 0; ///< seconds, between reviews that do nothing but fail
    Nex::ReactorMap<Kesh::Multicast::Fib::Status const*, NexMfibKesh> mfibKesh_;
    GroupSourceRefCounter groupSourceRefCounter_;
    bool* counted_ = nullptr;      ///< of the next add
    GroupSource* entry_ = nullptr; ///< likewise
    Nex::Map<Nex::String, Nex::Ptr<IgmpHostProxyAclHelper>> igmpHostProxyAclHelper_;
    NEX_REACTORS(Nex::Name, NexAcl, acl, Acl::AclConfig const, name)
    NEX_REACTORS(Lox::IpAddr, NexGroupSourceListConfig, groupSourceListConfig, GroupSource const,
                 group)
    NEX_REACTORS(Lox::IpAddr, NexDeletedGroupSourceListConfig, deletedGroupSourceListConfig,
                 GroupSource const, group)
    NEX_FIELD(bool, initialized, false)
};

} // namespace IgmpHostProxy
