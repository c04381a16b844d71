// The paced review of the VRF's multicast forwarding tables.
//
// Notifications only record which routes changed. Reviews, run by the review timer, do the work in
// slices of about `reviewQuantum` seconds: first the full sync, if one is wanted, which walks every
// route and may stop at a bookmark; then the changed routes. Groups that the configuration or an
// access list owns are left alone.
#include "IgmpHostProxy/IgmpHostProxyIntfSm.h"
#include "IgmpHostProxy/Trace.h"

#include <algorithm>
#include <optional>

namespace IgmpHostProxy {

namespace {

using Kesh::Multicast::Fib::MfibKeshCollRouteIteratorConst;
using Kesh::Multicast::Fib::MfibKeshDirRouteKey;
using Kesh::Multicast::Fib::Route;
using Routing::Multicast::Fib::IpGenRouteKey;
using Table = Kesh::Multicast::Fib::Status;

/// The group of no route that is announced.
constexpr Lox::IpAddr noGroup = Lox::IpAddr::fromHost(0xE0000000); // 224.0.0.0
/// The source of a (*,G) route key.
constexpr Lox::IpPrefix anyPrefix{};
/// The longest that routes wait for another try while they do nothing but fail.
constexpr double longestRetrySeconds = 60;

} // namespace

void IgmpHostProxyIntfSm::reviewTimerIs(Nex::Clock::NotifieeConst* reactor, float fillInterval,
                                        unsigned maxCredits, float minDelay, float maxDelay) {
    IHP_TRACE_ENTRY();
    if (reviewTimer() && reviewTimer()->reactor() == reactor) {
        reviewTimer()->pacingIs(fillInterval, maxCredits, minDelay, maxDelay);
    } else {
        reviewTimer_ =
            Nex::newObject<Olm::ReviewTimer>(reactor, fillInterval, maxCredits, minDelay, maxDelay);
    }
}

void IgmpHostProxyIntfSm::doKickReview() {
    IHP_TRACE_ENTRY();
    if (!initialized() || !reviewTimer() || reviewTimer()->reviewPending()) return;
    IHP_TRACE(3, "Kicking review");
    reviewTimer()->doUpdateNextReview();
}

void IgmpHostProxyIntfSm::doReviewSoon() {
    if (reviewTimer()) reviewTimer()->doUpdateNextReviewImmediately();
}

void IgmpHostProxyIntfSm::reviewTimerDel() {
    if (reviewTimer()) clock_->timeMinIs(Nex::never);
    reviewTimer_ = nullptr;
}

void IgmpHostProxyIntfSm::doWantSyncAllRoutes() {
    syncRestarted_ = true;
    syncAllRoutesIs(true);
    doClearBookmarks();
    doKickReview();
}

void IgmpHostProxyIntfSm::doReview() {
    IHP_TRACE_ENTRY();
    if (!initialized() || !mfibKeshDir()) return;
    IHP_TRACE(3, "Starting review");
    untried_ = false;
    try {
        doReviewRoutes();
        retryDelay_ = 0;
    } catch (...) {
        if (syncRestarted_) doClearBookmarks();
        doReviewAfterFailure();
        throw;
    }
}

/// Who has not had a turn does not wait for those that have failed. These are tried again, later
/// and later, and with whatever else is reviewed.
void IgmpHostProxyIntfSm::doReviewAfterFailure() {
    if (untried_) return doReviewSoon();
    retryDelay_ = std::min(std::max(2 * retryDelay_, minDelay()), longestRetrySeconds);
    if (reviewTimer()) reviewTimer()->doUpdateNextReviewAfter(retryDelay_);
}

void IgmpHostProxyIntfSm::doReviewRoutes() {
    if (syncAllRoutes()) {
        syncRestarted_ = false;
        doSyncAllRoutes();
        // Somebody wants all routes once more, those of this slice included.
        if (syncRestarted_) doClearBookmarks();
        if (syncInProgress() || syncRestarted_) {
            IHP_TRACE(3, "All mfib routes are not yet reviewed");
            doReviewSoon();
            return;
        }
        syncAllRoutesIs(false);
    }
    // With a budget of its own: what a long full sync has kept waiting waits no longer.
    doSyncChangedRoutes();
    IHP_TRACE(3, "Review finished");
    if (reviewTimer()) reviewTimer()->lastReviewTimeIs(Nex::System::currentTime());
    if (changedRoute_.empty()) return;
    IHP_TRACE(3, "% changed routes have not been reviewed", changedRoute_.size());
    doReviewSoon();
}

// The full sync

void IgmpHostProxyIntfSm::keshBookmarkIs(Table const* table) {
    keshBookmark_ = table;
    Nex::Ptr<Table const> const present = tableNamed(table);
    keshBookmarkSerial_ = present ? present->serial() : 0;
}

Nex::Ptr<Table const> IgmpHostProxyIntfSm::tableNamed(Table const* name) const {
    return mfibKeshDir() ? mfibKeshDir()->keshPtr(name) : nullptr;
}

bool IgmpHostProxyIntfSm::rkBookmarkNotNull() const { return rkBookmark_ != IpGenRouteKey(); }

void IgmpHostProxyIntfSm::doClearBookmarks() {
    keshBookmarkIs(nullptr);
    rkBookmarkIs(IpGenRouteKey());
}

Table const* IgmpHostProxyIntfSm::syncStart() const {
    if (!keshBookmark_) {
        for (auto const& item : mfibKeshDir()->keshPtr()) return item.key;
        return nullptr;
    }
    Nex::Ptr<Table const> const present = tableNamed(keshBookmark_);
    // Another table at the same address is not the one that was being walked.
    bool const replaced =
        present && keshBookmarkSerial_ != 0 && present->serial() != keshBookmarkSerial_;
    return mfibKeshDir()->keshPtrHas(keshBookmark_) && !replaced ? keshBookmark_ : nullptr;
}

void IgmpHostProxyIntfSm::doSyncAllRoutes() {
    IHP_TRACE_ENTRY();
    void const* const bookmark = keshBookmark_;
    if (!syncInProgress())
        IHP_TRACE(3, "Starting sync");
    else
        IHP_TRACE(3, "Resuming sync at %, %", bookmark, rkBookmark_);
    Table const* const start = syncStart();
    if (!start) {
        IHP_TRACE(3, "mfibKesh at % does not exist.", bookmark);
        return doClearBookmarks();
    }
    if (!tableNamed(start)) {
        void const* const missing = start;
        IHP_TRACE(3, "mfibKesh for % does not exist.", missing);
        return doClearBookmarks();
    }
    MfibKeshCollRouteIteratorConst at(
        mfibKeshDir(), start, rkBookmarkNotNull() ? std::optional(rkBookmark_) : std::nullopt);
    double const deadline = Nex::System::currentTime() + reviewQuantum();
    Nex::FirstError error;
    bool failed = false;
    while (!at.atEnd()) {
        void const* const table = at.table();
        IHP_TRACE(3, "Syncing % from kesh table %", at.routeKey(), table);
        doFetchAhead(at);
        if (!error.attempt([&] { doSyncKey(at.table(), at.routeKey()); })) {
            // It is tried again as a changed route, and holds up nobody who comes after it.
            handleRoute({*at.table(), at.routeKey()});
            failed = true;
        }
        // After the work: every slice syncs one route at least.
        bool const late = Nex::System::currentTime() >= deadline;
        at.updateToBestRouteIterators();
        if (late) break;
    }
    doEndSlice(at);
    if (!failed) return;
    untried_ = true;
    if (at.atEnd() && !syncRestarted_) syncAllRoutesIs(false);
    error.rethrow();
}

void IgmpHostProxyIntfSm::doFetchAhead(MfibKeshCollRouteIteratorConst const& at) const {
    IpGenRouteKey const* const key = at.aheadKey();
    if (!key || !intfStatus()) return;
    if (GroupSource const* const entry = intfStatus()->groupSourceList(key->group.address()))
        entry->fetch();
}

/// `at` stands on the first route that has not been synced.
void IgmpHostProxyIntfSm::doEndSlice(MfibKeshCollRouteIteratorConst const& at) {
    if (at.atEnd()) {
        doClearBookmarks();
        IHP_TRACE(3, "Sync completed");
        return;
    }
    keshBookmarkIs(at.table());
    rkBookmarkIs(at.routeKey());
    void const* const table = at.table();
    IHP_TRACE(3, "Suspending sync at %, %", table, at.routeKey());
}

// Changed routes

void IgmpHostProxyIntfSm::doSyncChangedRoutes() {
    IHP_TRACE_ENTRY();
    if (syncing_) return; // from inside the sync of one: whoever is at it goes on
    double const deadline = Nex::System::currentTime() + reviewQuantum();
    Nex::FirstError error;
    std::size_t failed = 0;
    // Those that come meanwhile, at the back, are left for the next review.
    for (std::size_t left = changedRoute_.size(); left > 0 && !changedRoute_.empty(); --left) {
        syncing_ = changedRoute_.front();
        syncAgain_ = false;
        bool const synced = error.attempt([&] { doSyncKey(*syncing_); });
        if (!synced) ++failed;
        doEndSyncChanged(syncAgain_ || !synced);
        if (Nex::System::currentTime() >= deadline) break;
    }
    untried_ = changedRoute_.size() > failed;
    error.rethrow();
}

void IgmpHostProxyIntfSm::doEndSyncChanged(bool again) {
    if (again)
        changedRoute_.toBack(*syncing_);
    else
        changedRoute_.take(*syncing_);
    syncing_.reset();
}

/// Asks for the review at once: what traffic has brought about is to be announced while it lasts.
void IgmpHostProxyIntfSm::handleRoute(MfibKeshDirRouteKey const& changed) {
    if (syncing_ == changed) syncAgain_ = true;
    changedRouteIs(changed);
    doReviewSoon();
}

void IgmpHostProxyIntfSm::doReleaseGroups(Lox::IpAddrWithFullMask groups) {
    IHP_TRACE_ENTRY();
    for (auto const& item : igmpHostProxyAclHelper()) item.value->doForgetUnwantedGroups(groups);
    if (!mfibKeshDir()) return;
    IpGenRouteKey const first{{}, {groups.lowest(), 0}};
    for (auto const& item : mfibKeshDir()->keshPtr()) {
        if (!item.value) continue;
        for (auto at = item.value->routeFrom(first);
             !at.atEnd() && at.key().group.address() <= groups.highest(); at.advance())
            if (groups.has(at.key().group.address())) handleRoute({*item.value, at.key()});
    }
}

void IgmpHostProxyIntfSm::handleKeshPtr(Table const* key) {
    IHP_TRACE_ENTRY();
    if (!mfibKeshDir()) return mfibKeshDel(key);
    if (Nex::Ptr<Table const> const table = mfibKeshDir()->keshPtr(key))
        mfibKeshIs(key, table);
    else
        mfibKeshDel(key);
}

void IgmpHostProxyIntfSm::handleKeshPtr() {
    IHP_TRACE_ENTRY();
    if (mfibKeshDir())
        for (auto const& item : mfibKeshDir()->keshPtr())
            if (item.value) mfibKeshIs(item.key, item.value);
    mfibKesh_.delUnless(
        [&](Table const* key) { return mfibKeshDir() && mfibKeshDir()->keshPtrHas(key); });
}

Nex::Ptr<IgmpHostProxyIntfSm::NexMfibKesh>
IgmpHostProxyIntfSm::mfibKeshIs(Table const* key, Nex::Ptr<Table const> table) {
    Nex::refuseNull(!table, nexTypeName, "mfibKesh");
    return mfibKesh_.is(key, std::move(table), this);
}

IgmpHostProxyIntfSm::NexMfibKesh::NexMfibKesh(Nex::Ptr<Table const> table,
                                              IgmpHostProxyIntfSm* machine)
    : Reactor(std::move(table), machine) {
    hasNotificationActiveIs(true);
    doNotifyChangedRoutes();
}

void IgmpHostProxyIntfSm::NexMfibKesh::doNotifyChangedRoutes() {
    IHP_TRACE_ENTRY();
    machine()->doKickReview();
}

void IgmpHostProxyIntfSm::NexMfibKesh::doNotifyChangedRoutes(IpGenRouteKey const& key) {
    IHP_TRACE_ENTRY();
    if (key.group.address() == noGroup) return; // not even worth a review
    MfibKeshDirRouteKey const changed(*notifier(), key);
    IHP_TRACE(3, "Route changed in MfibKesh Table%", changed);
    machine()->handleRoute(changed);
}

// One route

/// The routes of a table that has gone went with it, also if another one has come to its address.
void IgmpHostProxyIntfSm::doSyncKey(MfibKeshDirRouteKey const& changed) {
    Nex::Ptr<Table const> const present = tableNamed(changed.table);
    bool const meant = present && present->serial() == changed.serial;
    doSyncKey(meant ? changed.table : nullptr, changed.route);
}

void IgmpHostProxyIntfSm::doSyncKey(Table const* name, IpGenRouteKey const& key) {
    IHP_TRACE_ENTRY();
    if (!intfStatus() || !intfConfig()) return;
    if (intfStatus()->denyMroute()) {
        IHP_TRACE(6, "Rule to deny mfib configurations is enabled.");
        return;
    }
    if (key.group.address() == noGroup) return;
    Nex::Ptr<Table const> const table = tableNamed(name);
    if (table && table->route(key) != Route())
        doSyncPresent(*table, key);
    else
        doSyncAbsent(key);
}

void IgmpHostProxyIntfSm::doSyncPresent(Table const& table, IpGenRouteKey const& key) {
    IHP_TRACE(6, "RouteKey found in mfib");
    Lox::IpAddr const group = key.group.address();
    Lox::IpAddr const source = key.source.address();
    if (intfConfig()->groupSourceListHas(group)) {
        IHP_TRACE(6, "Group found in GroupSourceList.");
        return;
    }
    if (aclHas(group) || routeDeleted(source, group)) return;
    // The exact key: a (*,G) route with a shorter group prefix does not stand for the group.
    bool const anySourceRoute = table.route({anyPrefix, Lox::IpPrefix(group, 32)}) != Route();
    Nex::Ptr<IntfStatus> const status(intfStatus());
    Nex::Ptr<GroupSource> entry = status->groupSourceList(group);
    // Whoever is told of the entry may give the group an owner, or want none of it.
    auto const stillWanted = [&] {
        if (!routesOwn(*status, *entry) || status->denyMroute()) return false;
        GroupSource const* const deleted = intfConfig()->deletedGroupSourceList(group);
        return !deleted || !listsAsDeleted(*deleted, source);
    };
    if (!anySourceRoute) {
        IHP_TRACE(6, "( *,G ) not found in mroute for group : %", group);
        if (!entry) {
            entry = status->groupSourceListIs(group);
            if (!stillWanted()) return;
        }
        IHP_TRACE(6, "Adding source to include list");
        entry->includeSourceListIs(source);
        return;
    }
    if (entry)
        entry->includeSourceListDelAll();
    else
        entry = status->groupSourceListIs(group);
    if (!stillWanted()) return;
    IHP_TRACE(6, "0.0.0.0 source.Adding to exclude source list");
    entry->excludeSourceListIs(anySource);
}

bool IgmpHostProxyIntfSm::routesOwn(IntfStatus const& status, GroupSource const& entry) const {
    return intfStatus() == &status && entry.nexParent() == &status && intfConfig() &&
           !groupKept(entry.group());
}

/// Whether the operator removed the source, or the whole group, from the configuration.
bool IgmpHostProxyIntfSm::routeDeleted(Lox::IpAddr source, Lox::IpAddr group) const {
    GroupSource const* const deleted = intfConfig()->deletedGroupSourceList(group);
    if (!deleted) return false;
    IHP_TRACE(6, "Group: % found in deletedGroupSourceList", group);
    return listsAsDeleted(*deleted, source);
}

bool IgmpHostProxyIntfSm::listsAsDeleted(GroupSource const& deleted, Lox::IpAddr source) {
    return deleted.excludeSourceListHas(anySource) || deleted.includeSourceListHas(source) ||
           deleted.excludeSourceListHas(source);
}

void IgmpHostProxyIntfSm::doSyncAbsent(IpGenRouteKey const& key) {
    IHP_TRACE(6, "Routekey not found in mfib");
    Lox::IpAddr const group = key.group.address();
    // Whether the operator had removed the group makes no difference to a route that is gone.
    if (groupKept(group)) return;
    IHP_TRACE(6, "Group was not configured, so deleting it from intfStatus");
    if (key.source.address() == anySource) {
        IHP_TRACE(6, "Routekey is ( *,G ).");
        intfStatus()->groupSourceListDel(group);
        // The group's (S,G) routes had lost their sources to the (*,G) route. A full sync brings
        // those back that are still there, and nobody need remember which they were.
        IHP_TRACE(6, "Restarting the review to add the mfib sources back.");
        doWantSyncAllRoutes();
        return;
    }
    IHP_TRACE(6, "Routekey is ( S,G )");
    Nex::Ptr<IntfStatus> const status(intfStatus());
    Nex::Ptr<GroupSource> const entry = status->groupSourceList(group);
    if (!entry) return;
    entry->includeSourceListDel(key.source.address());
    if (!entry->empty() || !routesOwn(*status, *entry)) return;
    IHP_TRACE(6, "No sources present for the group. Deleting group");
    status->groupSourceListDel(group);
}

// Keeping the tables' groups out

void IgmpHostProxyIntfSm::handleDenyMroute() {
    IHP_TRACE_ENTRY();
    Nex::Ptr<IntfStatus> const status(intfStatus());
    if (!status) return;
    if (!status->denyMroute()) {
        IHP_TRACE(7, "Restarting the review to add the mfib sources back");
        doWantSyncAllRoutes();
        return;
    }
    IHP_TRACE(7, "Deleting mfib-only sources from the status");
    for (auto const& [group, entry] : status->groupSourceList()) {
        for (Lox::IpAddr const source : entry->includeSourceList()) {
            if (groupSourceRefCounter({source, group}) > 0) continue;
            IHP_TRACE(6, "Deleting included source IP% added only through mfib", source);
            entry->includeSourceListDel(source);
        }
        for (Lox::IpAddr const source : entry->excludeSourceList()) {
            if (groupSourceRefCounter({source, group}) > 0) continue;
            IHP_TRACE(6, "Deleting excluded source IP% added only through mfib", source);
            entry->excludeSourceListDel(source);
        }
        if (intfStatus() != status.get()) return; // another one was looked at as it came
        if (!entry->empty() || entry->nexParent() != status.get()) continue;
        IHP_TRACE(7, "Deleting group since there are no included/excluded sources");
        status->groupSourceListDel(group);
    }
}

} // namespace IgmpHostProxy
