// Start-up of the interface machine, its settings, and the configured and deleted groups.
#include "IgmpHostProxy/IgmpHostProxyIntfSm.h"

#include "IgmpHostProxy/Trace.h"

namespace IgmpHostProxy {

Nex::Ptr<IgmpHostProxyIntfSm> IgmpHostProxyIntfSm::IgmpHostProxyIntfSmIs(
    Lox::IntfId intfId, Nex::Ptr<IntfConfig const> intfConfig, Nex::Ptr<IntfStatus> intfStatus,
    Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl const> mfibKeshDir,
    Nex::Ptr<Acl::AclTypeConfig const> ipAclConfig, Nex::Ptr<Nex::Clock const> clock,
    Nex::Ptr<Ip::SourceIntf::SourceIntf> srcIntfIhpIntf, IgmpHostProxySm* parent) {
    return Nex::newObject<IgmpHostProxyIntfSm>(
        std::move(intfId), std::move(intfConfig), std::move(intfStatus), std::move(mfibKeshDir),
        std::move(ipAclConfig), std::move(clock), std::move(srcIntfIhpIntf), parent);
}

IgmpHostProxyIntfSm::IgmpHostProxyIntfSm(
    Lox::IntfId intfId, Nex::Ptr<IntfConfig const> intfConfig, Nex::Ptr<IntfStatus> intfStatus,
    Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl const> mfibKeshDir,
    Nex::Ptr<Acl::AclTypeConfig const> ipAclConfig, Nex::Ptr<Nex::Clock const> clock,
    Nex::Ptr<Ip::SourceIntf::SourceIntf> srcIntfIhpIntf, IgmpHostProxySm* parent)
    : intfId_(std::move(intfId)), srcIntfIhpIntf_(std::move(srcIntfIhpIntf)), parent_(parent) {
    Nex::watch(intfConfig_, intfConfig, this);
    Nex::watch(intfStatus_, intfStatus, this);
    Nex::watch(mfibKeshDir_, mfibKeshDir, this);
    Nex::watch(ipAclConfig_, ipAclConfig, this);
    Nex::watch(clock_, clock, this);
    handleAclConfig();
    handleKeshPtr();
    if (ipAclConfig)
        for (Nex::Name const& name : Nex::sortedKeys(ipAclConfig->acl()))
            if (Acl::AclConfig const* const acl = ipAclConfig->acl(name)) aclIs(acl);
    handleGroupSourceListConfig();
    handleDeletedGroupSourceListConfig();
    handleInitialized();
}

IgmpHostProxyIntfSm::~IgmpHostProxyIntfSm() {
    nexDoZombieReactors(true);
    reviewTimerDel();
    igmpHostProxyAclHelperDelAll();
}

void IgmpHostProxyIntfSm::handleInitialized() {
    IHP_TRACE_ENTRY();
    initializedIs(true);
    if (!clock()) Nex::assertionFailed("clock_");
    reviewTimerIs(clock_.get(), 1.0F, 4, float(minDelay()), float(maxDelay()));
    handleIgmpVersion();
    handleUnsolicitedReportInterval();
    handleDenyMroute();
    handleGroupList();
    // A list that was attached and existed before the machine was built is applied here for the
    // second time: each of its pairs counts 2.
    handleAclList();
    doReview();
}

void IgmpHostProxyIntfSm::handleIgmpVersion() {
    IHP_TRACE_ENTRY();
    if (!intfConfig() || !intfStatus()) return;
    IHP_TRACE(7, "Setting IGMP version to%", unsigned(intfConfig()->igmpVersion()));
    intfStatus()->igmpVersionIs(intfConfig()->igmpVersion());
}

void IgmpHostProxyIntfSm::handleUnsolicitedReportInterval() {
    IHP_TRACE_ENTRY();
    if (!intfConfig() || !intfStatus()) return;
    IHP_TRACE(7, "Setting unsolicited-report-interval=%", intfConfig()->unsolicitedReportIntvl());
    intfStatus()->unsolicitedReportIntvlIs(intfConfig()->unsolicitedReportIntvl());
}

void IgmpHostProxyIntfSm::handleGroupList() {
    IHP_TRACE_ENTRY();
    Nex::Ptr<IntfConfig const> const config = intfConfig();
    Nex::Ptr<IntfStatus> const status = intfStatus();
    if (!config || !status) return;
    // Whoever hears of a group may point the machine elsewhere.
    auto const same = [&] { return intfConfig() == config.get() && intfStatus() == status.get(); };
    for (auto const& [group, configured] : config->groupSourceList()) {
        if (!same()) return;
        if (status->groupSourceListHas(group)) continue;
        IHP_TRACE(7, "Adding group =% to status", group);
        status->groupSourceListIs(group);
    }
    for (auto const& [group, entry] : status->groupSourceList()) {
        if (!same()) return;
        if (groupKept(group)) continue;
        IHP_TRACE(7, "Deleting group :%from intfStatus, since it is not in intfConfig", group);
        for (Lox::IpAddr const source : entry->includeSourceList()) doDropCount({source, group});
        for (Lox::IpAddr const source : entry->excludeSourceList()) doDropCount({source, group});
        status->groupSourceListDel(group);
    }
}

bool IgmpHostProxyIntfSm::groupKept(Lox::IpAddr group) const {
    return intfConfig()->groupSourceListHas(group) || aclHas(group);
}

/// All references of the pair go at once, however many there were.
void IgmpHostProxyIntfSm::doDropCount(SourceGroup sg) {
    if (groupSourceRefCounter(sg) > 0) {
        std::uint32_t const left = groupSourceRefCounterDec(sg, 1);
        IHP_TRACE(6, "Ref count is for sg decremented, now is%", left);
    }
    groupSourceRefCounterDel(sg);
}

void IgmpHostProxyIntfSm::handleGroupSourceListConfig(Lox::IpAddr group) {
    IHP_TRACE_ENTRY();
    if (!intfConfig()) return;
    if (GroupSource const* const configured = intfConfig()->groupSourceList(group))
        groupSourceListConfigIs(configured);
    else
        groupSourceListConfigDel(group);
}

void IgmpHostProxyIntfSm::handleGroupSourceListConfig() {
    IHP_TRACE_ENTRY();
    Nex::Ptr<IntfConfig const> const config = intfConfig();
    if (config)
        for (auto const& item : config->groupSourceList()) {
            if (intfConfig() != config.get()) break; // another one was looked at as it came
            groupSourceListConfigIs(item.value);
        }
    groupSourceListConfig_.delUnless(
        [&](Lox::IpAddr group) { return intfConfig() && intfConfig()->groupSourceListHas(group); });
}

void IgmpHostProxyIntfSm::handleDeletedGroupSourceListConfig(Lox::IpAddr group) {
    IHP_TRACE_ENTRY();
    if (!intfConfig()) return;
    if (GroupSource const* const deleted = intfConfig()->deletedGroupSourceList(group))
        deletedGroupSourceListConfigIs(deleted);
    else
        deletedGroupSourceListConfigDel(group);
}

void IgmpHostProxyIntfSm::handleDeletedGroupSourceListConfig() {
    IHP_TRACE_ENTRY();
    Nex::Ptr<IntfConfig const> const config = intfConfig();
    if (config)
        for (auto const& item : config->deletedGroupSourceList()) {
            if (intfConfig() != config.get()) break;
            deletedGroupSourceListConfigIs(item.value);
        }
    deletedGroupSourceListConfig_.delUnless([&](Lox::IpAddr group) {
        return intfConfig() && intfConfig()->deletedGroupSourceListHas(group);
    });
}

// Configured groups

IgmpHostProxyIntfSm::NexGroupSourceListConfig::NexGroupSourceListConfig(
    Nex::Ptr<GroupSource const> groupSource, IgmpHostProxyIntfSm* machine)
    : NexGroupSource(std::move(groupSource), machine) {
    handleInitialized();
    startUpIsOver();
}

void IgmpHostProxyIntfSm::NexGroupSourceListConfig::handleInitialized() {
    IHP_TRACE_ENTRY();
    IHP_TRACE(7, "Adding group =% to status", group());
    if (!machine()->intfStatus()) return;
    doEnsureEntry();
    initializedIs(true);
    handleIncludeSourceList();
    handleExcludeSourceList();
}

void IgmpHostProxyIntfSm::NexGroupSourceListConfig::handleIncludeSourceList(Lox::IpAddr source) {
    IHP_TRACE_ENTRY();
    if (!machine()->intfStatus() || !includeHas(source)) return;
    doEnsureEntry();
    // Whoever hears of the entry may take the source back.
    if (!includeHas(source)) return;
    machine()->prepareAdd(entry_.get());
    machine()->addIncludeSourceGroup(source, group());
}

void IgmpHostProxyIntfSm::NexGroupSourceListConfig::handleExcludeSourceList(Lox::IpAddr source) {
    IHP_TRACE_ENTRY();
    if (!machine()->intfStatus() || !excludeHas(source)) return;
    doEnsureEntry();
    if (!excludeHas(source)) return;
    machine()->prepareAdd(entry_.get());
    machine()->addExcludeSourceGroup(source, group());
}

/// Removing the last source of a group that is still configured has deleted its status entry.
void IgmpHostProxyIntfSm::NexGroupSourceListConfig::doEnsureEntry() {
    IntfStatus* const status = machine()->intfStatus();
    if (!entry_ || entry_->nexParent() != status) entry_ = status->groupSourceListIs(group());
}

// Deleted groups

IgmpHostProxyIntfSm::NexDeletedGroupSourceListConfig::NexDeletedGroupSourceListConfig(
    Nex::Ptr<GroupSource const> groupSource, IgmpHostProxyIntfSm* machine)
    : NexGroupSource(std::move(groupSource), machine) {
    handleInitialized();
}

void IgmpHostProxyIntfSm::NexDeletedGroupSourceListConfig::handleInitialized() {
    IHP_TRACE_ENTRY();
    initializedIs(true);
    handleIncludeSourceList();
    handleExcludeSourceList();
}

void IgmpHostProxyIntfSm::NexDeletedGroupSourceListConfig::handleIncludeSourceList(
    Lox::IpAddr source) {
    IHP_TRACE_ENTRY();
    if (!includeHas(source)) return;
    machine()->removeIncludeSourceGroup(source, group());
}

void IgmpHostProxyIntfSm::NexDeletedGroupSourceListConfig::handleExcludeSourceList(
    Lox::IpAddr source) {
    IHP_TRACE_ENTRY();
    if (!excludeHas(source)) return;
    machine()->removeExcludeSourceGroup(source, group());
}

} // namespace IgmpHostProxy
