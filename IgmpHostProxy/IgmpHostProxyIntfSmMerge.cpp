// The membership merge: configured groups and access-list rules add and remove references to
// (source, group) pairs; the status lists what follows from them. (*,G) comes before (S,G), and
// exclude before include for the same source.
//
// A source in the status without a count came from the forwarding table.
//
// What becomes of a group: I is its include list, X its exclude list, * any source, S a specific
// one, c the pair's count. The first row that holds is taken; "goes" means that the entry is
// deleted.
//
//     every add first:   no pair of the group counted    I = X = {}
//                        always                          c = c + 1
//     add include *      * in I                          nothing more
//                        otherwise                       I = {*}, X = {}
//     add include S      * in I                          nothing more
//                        S in X                          * leaves X
//                        otherwise                       * leaves X, S joins I
//     add exclude *      I or X not empty                nothing more
//                        otherwise                       * joins X
//     add exclude S      * in I and counted              nothing more
//                        otherwise                       * leaves X, S leaves I, S joins X
//
//     remove with c = 0: exclude *                       all that is not counted leaves I and X
//                        any other                       the source leaves the list named
//                        then, I and X empty             goes
//     all other first:   always                          c = c - 1
//                        c > 0, still wanted there       nothing more
//     remove include S   c > 0                           S passes from I to X
//                        c = 0                           S leaves I
//                        then, I and X empty, no other   goes
//                        pair of the group counted
//     remove exclude S   as include, I and X exchanged
//     remove include *   always                          * leaves I; what the producers want now
//                                                        joins, * only where nothing else is wanted
//                        then, I and X empty             goes
//     remove exclude *   always                          c is forgotten; * leaves X
//                        * and more wanted in I          I = {*}, X = {}
//                        otherwise                       what the producers want now joins
//                        then, I and X empty             goes
#include "IgmpHostProxy/IgmpHostProxyIntfSm.h"
#include "IgmpHostProxy/Trace.h"

namespace IgmpHostProxy {

bool IgmpHostProxyIntfSm::listHas(GroupSource const& entry, List list, Lox::IpAddr source) {
    return list == List::include ? entry.includeSourceListHas(source)
                                 : entry.excludeSourceListHas(source);
}

void IgmpHostProxyIntfSm::listIs(GroupSource& entry, List list, Lox::IpAddr source) {
    if (list == List::include)
        entry.includeSourceListIs(source);
    else
        entry.excludeSourceListIs(source);
}

void IgmpHostProxyIntfSm::listDel(GroupSource& entry, List list, Lox::IpAddr source) {
    if (list == List::include)
        entry.includeSourceListDel(source);
    else
        entry.excludeSourceListDel(source);
}

void IgmpHostProxyIntfSm::addIncludeSourceGroup(Lox::IpAddr source, Lox::IpAddr group) {
    IHP_TRACE_ENTRY(". Source: %, Group: %", source, group);
    // The reference is counted before the rules below may find that nothing is to be done: a later
    // removal gives it back.
    Nex::Ptr<GroupSource> const entry = doCount({source, group});
    if (!entry) return;
    bool const any = source == anySource;
    if (entry->includeSourceListHas(anySource)) {
        if (any) return;
        IHP_TRACE(6, "0.0.0.0 present in includeSourceList.Takes precedence over (S,G).No-op");
        return;
    }
    if (!any && entry->excludeSourceListHas(anySource)) {
        IHP_TRACE(6, "0.0.0.0 in excludeSourceList. Deleting it.");
        entry->excludeSourceListDel(anySource);
    }
    if (any) {
        entry->includeSourceListDelAll();
        entry->excludeSourceListDelAll();
    } else if (entry->excludeSourceListHas(source)) {
        IHP_TRACE(6,
                  "Source :% present in excludeSourceList."
                  "This gets preference over include mode. No-op",
                  source);
        return;
    }
    IHP_TRACE(6, "Adding% to includeSourceList for group%", source, group);
    entry->includeSourceListIs(source);
}

void IgmpHostProxyIntfSm::addExcludeSourceGroup(Lox::IpAddr source, Lox::IpAddr group) {
    IHP_TRACE_ENTRY(". Source: %, Group: %", source, group);
    Nex::Ptr<GroupSource> const entry = doCount({source, group});
    if (!entry) return;
    bool const any = source == anySource;
    bool const anyCounted = groupSourceRefCounter({anySource, group}) > 0;
    if (entry->includeSourceListHas(anySource) && anyCounted) {
        IHP_TRACE(6, "0.0.0.0 present in includeSource list."
                     "Takes precedence over excludeSourceList. No-op");
        return;
    }
    if (any && entry->excludeSourceListHas(anySource)) return;
    // Excluding any source, which means all are wanted, is refused while specific ones are listed.
    if (any && !entry->empty()) {
        IHP_TRACE(6, "(S,G) present for this group.Adding (*,G) is a No-op");
        return;
    }
    if (!any && entry->excludeSourceListHas(anySource)) {
        IHP_TRACE(6, "0.0.0.0 not in includeSourceList. 0.0.0.0 in excludeSourceList.Deleting it");
        entry->excludeSourceListDel(anySource);
    }
    if (!any && entry->includeSourceListHas(source)) {
        IHP_TRACE(6, "Exclude source also found in includeSource list.");
        entry->includeSourceListDel(source);
    }
    entry->excludeSourceListIs(source);
    IHP_TRACE(6, "Exclude source% added to exclude list of group%", source, group);
}

void IgmpHostProxyIntfSm::removeIncludeSourceGroup(Lox::IpAddr source, Lox::IpAddr group) {
    IHP_TRACE_ENTRY(". Source: %, Group: %", source, group);
    doRemove(List::include, {source, group});
}

void IgmpHostProxyIntfSm::removeExcludeSourceGroup(Lox::IpAddr source, Lox::IpAddr group) {
    IHP_TRACE_ENTRY(" . Source: %, Group: %", source, group);
    doRemove(List::exclude, {source, group});
}

void IgmpHostProxyIntfSm::doRemove(List list, SourceGroup sg) {
    if (!intfStatus()) return;
    Nex::Ptr<GroupSource> const entry = intfStatus()->groupSourceList(sg.groupAddr);
    if (groupSourceRefCounter(sg) == 0) return doRemoveUncounted(list, entry.get(), sg);
    std::uint32_t const left = groupSourceRefCounterDec(sg, 1);
    IHP_TRACE(6, "Ref count for sg decremented, now is%", left);
    if (left > 0 && wanted(list, sg)) return;
    if (sg.sourceAddr != anySource) return doRemoveSpecific(list, entry.get(), sg, left);
    if (list == List::include)
        doRemoveAnyInclude(entry.get(), sg);
    else
        doRemoveAnyExclude(entry.get(), sg);
}

Nex::Ptr<GroupSource> IgmpHostProxyIntfSm::doCount(SourceGroup sg) {
    bool* const counted = std::exchange(counted_, nullptr); // not for an add by who is told below
    Nex::Ptr<GroupSource> entry = std::exchange(entry_, nullptr);
    if (!intfStatus()) return nullptr;
    if (!entry || entry->nexParent() != intfStatus())
        entry = intfStatus()->groupSourceList(sg.groupAddr);
    bool certain = bool(entry);
    if (entry) {
        IHP_TRACE(6, "Group is present in status.Checking if it was configured or added from mfib");
        if (!groupSourceRefCounter_.groupHas(sg.groupAddr)) {
            IHP_TRACE(6, "Deleting sources added from mfib for group:%", sg.groupAddr);
            certain = entry->empty();
            entry->includeSourceListDelAll();
            // What somebody contributes who is told of that stays.
            if (!groupSourceRefCounter_.groupHas(sg.groupAddr)) entry->excludeSourceListDelAll();
        }
    }
    std::uint32_t const count = groupSourceRefCounterInc(sg, 1);
    if (counted) *counted = true;
    if (count == 1) IHP_TRACE(6, "Adding sg into ref counter");
    IHP_TRACE(6, "Ref count for sg incremented, now is%", count);
    // Whoever was told of the entry as it came, or of what it lost, may have had it taken away. A
    // pair that is counted has one.
    if (!certain && intfStatus()) entry = intfStatus()->groupSourceListIs(sg.groupAddr);
    return entry;
}

void IgmpHostProxyIntfSm::doRemoveUncounted(List list, GroupSource* entry, SourceGroup sg) {
    IHP_TRACE(6, "(S,G) was added from Mfib. Has no refCounter. Deleting from status");
    if (!entry) return;
    if (list == List::exclude && sg.sourceAddr == anySource)
        doRemoveAllUncounted(*entry);
    else
        listDel(*entry, list, sg.sourceAddr);
    if (entry->empty()) doDeleteEntry(*entry);
}

void IgmpHostProxyIntfSm::doRemoveAllUncounted(GroupSource& entry) {
    auto const uncounted = [&](Lox::IpAddr source) {
        SourceGroup const sg(source, entry.group());
        if (groupSourceRefCounter(sg) > 0) return false;
        IHP_TRACE(6, "No ref count found for sg:%", sg);
        return true;
    };
    for (Lox::IpAddr const source : entry.includeSourceList())
        if (uncounted(source)) entry.includeSourceListDel(source);
    for (Lox::IpAddr const source : entry.excludeSourceList())
        if (uncounted(source)) entry.excludeSourceListDel(source);
}

void IgmpHostProxyIntfSm::doRemoveSpecific(List list, GroupSource* entry, SourceGroup sg,
                                           std::uint32_t left) {
    bool const include = list == List::include;
    if (left > 0) {
        // What is left are references in the other mode: the source changes lists.
        if (include) {
            IHP_TRACE(6, "Ref counter > 0, so adding source to excludeSource"
                         " and removing from includeSourceList");
        } else {
            IHP_TRACE(6, "Ref counter is greater than 0, so adding source to includeSource"
                         " and removing from excludeSourceList");
        }
        if (!entry) return;
        listDel(*entry, list, sg.sourceAddr);
        listIs(*entry, include ? List::exclude : List::include, sg.sourceAddr);
        return;
    }
    if (include)
        IHP_TRACE(6, "Ref count is 0. Deleting it from includeSourceList.");
    else
        IHP_TRACE(6, "Ref count is 0. Deleting it from excludeSourceList.");
    groupSourceRefCounterDel(sg);
    if (entry) listDel(*entry, list, sg.sourceAddr);
    doDeleteUnlessCounted(entry);
}

void IgmpHostProxyIntfSm::doDeleteUnlessCounted(GroupSource const* entry) {
    if (!entry || !entry->empty()) return;
    IHP_TRACE(6, "Include and exclude source list is empty.");
    if (groupSourceRefCounter_.groupHas(entry->group())) return;
    IHP_TRACE(6, "Deleting group:%", entry->group());
    doDeleteEntry(*entry);
}

void IgmpHostProxyIntfSm::doDeleteEntry(GroupSource const& entry) {
    if (intfStatus() && entry.nexParent() == intfStatus())
        intfStatus()->groupSourceListDel(entry.group());
}

void IgmpHostProxyIntfSm::doRemoveAnyInclude(GroupSource* entry, SourceGroup sg) {
    if (groupSourceRefCounter(sg) > 0) {
        IHP_TRACE(6, "Ref counter > 0.  Deleting from includeSourceList");
    } else {
        IHP_TRACE(6, "Ref counter is 0. Deleting (*,G) from status");
        groupSourceRefCounterDel(sg);
    }
    if (!entry) return;
    entry->includeSourceListDel(anySource);
    IHP_TRACE(6, "Creating local groupSource to restore sources after removing 0.0.0.0"
                 "from includeSourceList");
    Nex::Ptr<GroupSource> const local = restored(sg.groupAddr);
    // Everybody's wish for all sources stands only where nothing more specific is wanted. A single
    // excluded source does not count here, for it may be 0.0.0.0 itself.
    if (local->excludeSourceListCount() >= 2 || local->includeSourceListCount() > 0)
        local->excludeSourceListDel(anySource);
    doCopySources(*local, *entry);
    doDeleteIfEmpty(*entry);
}

/// Unlike its counterpart this forgets all references at once, whatever the count: it is reached
/// only when nobody wants all sources in exclude mode any more.
void IgmpHostProxyIntfSm::doRemoveAnyExclude(GroupSource* entry, SourceGroup sg) {
    IHP_TRACE(6, "Ref counter is 0. Deleting (*,G) from status");
    groupSourceRefCounterDel(sg);
    if (!entry) return;
    entry->excludeSourceListDel(anySource);
    IHP_TRACE(6, "Creating local groupSource to restore sources after removing 0.0.0.0"
                 "from excludeSourceList");
    Nex::Ptr<GroupSource> const local = restored(sg.groupAddr);
    // Only if somebody has counted (*,G) anew, told that it left the exclude list.
    if (local->includeSourceListCount() > 1 && local->includeSourceListHas(anySource)) {
        entry->includeSourceListDelAll();
        entry->excludeSourceListDelAll();
        entry->includeSourceListIs(anySource);
        return;
    }
    doCopySources(*local, *entry);
    doDeleteIfEmpty(*entry);
}

void IgmpHostProxyIntfSm::doCopySources(GroupSource const& from, GroupSource& to) const {
    for (Lox::IpAddr const source : from.includeSourceList()) to.includeSourceListIs(source);
    for (Lox::IpAddr const source : from.excludeSourceList()) to.excludeSourceListIs(source);
}

void IgmpHostProxyIntfSm::doDeleteIfEmpty(GroupSource const& entry) {
    if (!entry.empty()) return;
    IHP_TRACE(6, "Include and exclude source list is empty.Deleting group from intfStatus");
    doDeleteEntry(entry);
}

Nex::Ptr<GroupSource> IgmpHostProxyIntfSm::restored(Lox::IpAddr group) const {
    auto const local = GroupSource::GroupSourceIs(group);
    auto const include = [&](Lox::IpAddr source) {
        if (!local->excludeSourceListHas(source)) local->includeSourceListIs(source);
    };
    auto const exclude = [&](Lox::IpAddr source) {
        local->includeSourceListDel(source);
        local->excludeSourceListIs(source);
    };
    GroupSource const* const configured =
        intfConfig() ? intfConfig()->groupSourceList(group) : nullptr;
    groupSourceRefCounter_.forSources(group, [&](Lox::IpAddr source) {
        if (configured && configured->includeSourceListHas(source)) include(source);
        if (configured && configured->excludeSourceListHas(source)) exclude(source);
        for (auto const& item : igmpHostProxyAclHelper()) {
            GroupSource const* const contributed = item.value->groupSourceList(group);
            if (contributed && contributed->includeSourceListHas(source)) {
                IHP_TRACE(6, "Source found in includeSourceList");
                include(source);
            }
            if (contributed && contributed->excludeSourceListHas(source)) exclude(source);
        }
    });
    return local;
}

bool IgmpHostProxyIntfSm::wanted(List list, SourceGroup sg) const {
    GroupSource const* const configured =
        intfConfig() ? intfConfig()->groupSourceList(sg.groupAddr) : nullptr;
    if (configured && listHas(*configured, list, sg.sourceAddr)) return true;
    for (auto const& item : igmpHostProxyAclHelper())
        if (item.value->wanted({list == List::include, sg.sourceAddr}, sg.groupAddr)) return true;
    return false;
}

} // namespace IgmpHostProxy
