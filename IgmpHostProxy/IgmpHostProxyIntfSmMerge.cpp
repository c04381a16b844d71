// The membership merge: configured groups and access-list rules add and remove references to
// (source, group) pairs; the status lists what follows from them. (*,G) comes before (S,G), and
// exclude before include for the same source.
//
// A source in the status without a count came from the forwarding table.
#include "IgmpHostProxy/IgmpHostProxyIntfSm.h"

#include "IgmpHostProxy/Trace.h"

namespace IgmpHostProxy {

void IgmpHostProxyIntfSm::addIncludeSourceGroup(Lox::IpAddr source, Lox::IpAddr group) {
    IHP_TRACE_ENTRY(". Source: %, Group: %", source, group);
    if (!intfStatus()) return;
    // The reference is counted before the rules below may find that nothing is to be done: a later
    // removal gives it back.
    Nex::Ptr<GroupSource> const entry = doCount({source, group});
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
    if (!intfStatus()) return;
    Nex::Ptr<GroupSource> const entry = doCount({source, group});
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
    if (!intfStatus()) return;
    Nex::Ptr<GroupSource> const entry = intfStatus()->groupSourceList(group);
    SourceGroup const sg(source, group);
    if (groupSourceRefCounter(sg) == 0) return doRemoveUncountedInclude(entry.get(), sg);
    std::uint32_t const left = groupSourceRefCounterDec(sg, 1);
    IHP_TRACE(6, "Ref count for sg decremented, now is%", left);
    if (left > 0 && includeWanted(source, group)) return;
    if (source == anySource) {
        doRemoveAnyInclude(entry.get(), sg);
    } else {
        doRemoveSpecificInclude(entry.get(), sg);
    }
}

void IgmpHostProxyIntfSm::removeExcludeSourceGroup(Lox::IpAddr source, Lox::IpAddr group) {
    IHP_TRACE_ENTRY(" . Source: %, Group: %", source, group);
    if (!intfStatus()) return;
    Nex::Ptr<GroupSource> const entry = intfStatus()->groupSourceList(group);
    SourceGroup const sg(source, group);
    if (groupSourceRefCounter(sg) == 0) return doRemoveUncountedExclude(entry.get(), sg);
    std::uint32_t const left = groupSourceRefCounterDec(sg, 1);
    IHP_TRACE(6, "Ref count for sg decremented, now is%", left);
    if (left > 0 && excludeWanted(source, group)) return;
    if (source == anySource) {
        doRemoveAnyExclude(entry.get(), sg);
    } else {
        doRemoveSpecificExclude(entry.get(), sg);
    }
}

Nex::Ptr<GroupSource> IgmpHostProxyIntfSm::doCount(SourceGroup sg) {
    Nex::Ptr<GroupSource> entry = intfStatus()->groupSourceList(sg.groupAddr);
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
    if (count == 1) IHP_TRACE(6, "Adding sg into ref counter");
    IHP_TRACE(6, "Ref count for sg incremented, now is%", count);
    // Whoever was told of the entry as it came, or of what it lost, may have had it taken away. A
    // pair that is counted has one.
    if (!certain && intfStatus()) entry = intfStatus()->groupSourceListIs(sg.groupAddr);
    return entry;
}

void IgmpHostProxyIntfSm::doRemoveUncountedInclude(GroupSource* entry, SourceGroup sg) {
    IHP_TRACE(6, "(S,G) was added from Mfib. Has no refCounter. Deleting from status");
    if (!entry) return;
    entry->includeSourceListDel(sg.sourceAddr);
    if (entry->empty()) doDeleteEntry(*entry);
}

void IgmpHostProxyIntfSm::doRemoveUncountedExclude(GroupSource* entry, SourceGroup sg) {
    IHP_TRACE(6, "(S,G) was added from Mfib. Has no refCounter. Deleting from status");
    if (!entry) return;
    if (sg.sourceAddr != anySource) {
        entry->excludeSourceListDel(sg.sourceAddr);
    } else {
        auto const uncounted = [&](Lox::IpAddr source) {
            SourceGroup const listed(source, sg.groupAddr);
            if (groupSourceRefCounter(listed) > 0) return false;
            IHP_TRACE(6, "No ref count found for sg:%", listed);
            return true;
        };
        for (Lox::IpAddr const source : entry->includeSourceList())
            if (uncounted(source)) entry->includeSourceListDel(source);
        for (Lox::IpAddr const source : entry->excludeSourceList())
            if (uncounted(source)) entry->excludeSourceListDel(source);
    }
    if (entry->empty()) doDeleteEntry(*entry);
}

void IgmpHostProxyIntfSm::doRemoveSpecificInclude(GroupSource* entry, SourceGroup sg) {
    if (groupSourceRefCounter(sg) > 0) {
        // What is left are exclude references: the source changes lists.
        IHP_TRACE(6, "Ref counter > 0, so adding source to excludeSource"
                     " and removing from includeSourceList");
        if (!entry) return;
        entry->includeSourceListDel(sg.sourceAddr);
        entry->excludeSourceListIs(sg.sourceAddr);
        return;
    }
    IHP_TRACE(6, "Ref count is 0. Deleting it from includeSourceList.");
    groupSourceRefCounterDel(sg);
    if (entry) entry->includeSourceListDel(sg.sourceAddr);
    doDeleteUnlessCounted(entry);
}

void IgmpHostProxyIntfSm::doRemoveSpecificExclude(GroupSource* entry, SourceGroup sg) {
    if (groupSourceRefCounter(sg) > 0) {
        IHP_TRACE(6, "Ref counter is greater than 0, so adding source to includeSource"
                     " and removing from excludeSourceList");
        if (!entry) return;
        entry->excludeSourceListDel(sg.sourceAddr);
        entry->includeSourceListIs(sg.sourceAddr);
        return;
    }
    IHP_TRACE(6, "Ref count is 0. Deleting it from excludeSourceList.");
    groupSourceRefCounterDel(sg);
    if (entry) entry->excludeSourceListDel(sg.sourceAddr);
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

bool IgmpHostProxyIntfSm::includeWanted(Lox::IpAddr source, Lox::IpAddr group) const {
    GroupSource const* const configured =
        intfConfig() ? intfConfig()->groupSourceList(group) : nullptr;
    if (configured && configured->includeSourceListHas(source)) return true;
    for (auto const& item : igmpHostProxyAclHelper())
        if (item.value->includeWanted(source, group)) return true;
    return false;
}

bool IgmpHostProxyIntfSm::excludeWanted(Lox::IpAddr source, Lox::IpAddr group) const {
    GroupSource const* const configured =
        intfConfig() ? intfConfig()->groupSourceList(group) : nullptr;
    if (configured && configured->excludeSourceListHas(source)) return true;
    for (auto const& item : igmpHostProxyAclHelper())
        if (item.value->excludeWanted(source, group)) return true;
    return false;
}

} // namespace IgmpHostProxy
