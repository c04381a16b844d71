// Settings and group records of the host entity.
#include "IgmpHostProxy/IgmpHostIntfSm.h"

#include "IgmpHostProxy/Trace.h"

namespace IgmpHostProxy {

using Lox::IgmpV3GroupRecordType;

IgmpHostIntfSm::IgmpHostIntfSm(Lox::IntfId intfId, Nex::Ptr<IntfStatus> intfStatus,
                               Nex::Ptr<Igmp::IgmpHost> igmpHost,
                               Nex::Ptr<Igmp::IgmpHostStatus const> igmpHostStatus,
                               Nex::Ptr<Ip::SourceIntf::SourceIntf> srcIntfIhpIntf,
                               IgmpHostProxySm* parent)
    : intfId_(std::move(intfId)), igmpHost_(std::move(igmpHost)), parent_(parent) {
    Nex::watch(intfStatus_, intfStatus, this);
    Nex::watch(igmpHostStatus_, igmpHostStatus, this);
    Nex::watch(srcIntfIhpIntf_, srcIntfIhpIntf, this);
    handleGroupList();
    handleGroupSourceListStatus();
    handleNew();
}

IgmpHostIntfSm::~IgmpHostIntfSm() { nexDoZombieReactors(true); }

void IgmpHostIntfSm::NexIntfStatus::onNotifier() {
    machine()->handleDeviceName();
    machine()->handleIntfEthAddr();
    machine()->handleVersion();
    machine()->handleInterval();
    onGroupSourceListnexImmediate();
}

void IgmpHostIntfSm::handleNew() {
    IHP_TRACE_ENTRY();
    if (initialized()) return;
    handleIpAddrChange();
    handleDeviceName();
    handleInterval();
    handleVersion();
    handleIntfEthAddr();
    resetPacketCounters();
    if (igmpHost()) {
        raiseConfigVersion(*igmpHost());
        raiseIntfConfigVersion(*igmpHost());
    }
    initializedIs(true);
}

void IgmpHostIntfSm::handleIpAddrChange() {
    IHP_TRACE_ENTRY();
    if (!srcIntfIhpIntf() || !igmpHost()) return;
    Lox::IpAddr const address = srcIntfIhpIntf()->ipAddr();
    // An address is never cleared: what is still sent needs one.
    if (address.isZero()) return;
    IHP_TRACE(7, "Setting ipAddr to : %", address);
    igmpHost()->ipAddrIs(address);
    raiseIntfConfigVersion(*igmpHost());
}

void IgmpHostIntfSm::handleDeviceName() {
    IHP_TRACE_ENTRY();
    if (!intfStatus() || !igmpHost() || !srcIntfIhpIntf()) return;
    Nex::String const deviceName = intfStatus()->deviceName();
    if (deviceName.empty() || srcIntfIhpIntf()->ipAddr().isZero()) return;
    IHP_TRACE(7, "Setting devicename to :%", deviceName);
    igmpHost()->deviceNameIs(deviceName);
}

void IgmpHostIntfSm::handleInterval() {
    IHP_TRACE_ENTRY();
    if (!intfStatus() || !igmpHost()) return;
    UnsolicitedReportInterval const interval = intfStatus()->unsolicitedReportIntvl();
    IHP_TRACE(7, "Setting unsolicited-report-interval:  %", interval);
    igmpHost()->unsolicitedReportIntervalIs(interval.seconds());
}

void IgmpHostIntfSm::handleVersion() {
    IHP_TRACE_ENTRY();
    if (!intfStatus() || !igmpHost()) return;
    IgmpVersion const version = intfStatus()->igmpVersion();
    IHP_TRACE(7, "Setting version to: %", version);
    switch (version) {
    case IgmpVersion::v1:
        return igmpHost()->igmpVersionIs(Igmp::IgmpVersion::v1);
    case IgmpVersion::v2:
        return igmpHost()->igmpVersionIs(Igmp::IgmpVersion::v2);
    case IgmpVersion::v3:
        break;
    }
    igmpHost()->igmpVersionIs(Igmp::IgmpVersion::v3);
}

void IgmpHostIntfSm::handleIntfEthAddr() {
    IHP_TRACE_ENTRY();
    if (!intfStatus() || !igmpHost()) return;
    Lox::EthAddr const address = intfStatus()->macAddr();
    IHP_TRACE(7, "Setting source MAC address to %", address);
    igmpHost()->macAddrIs(address);
    raiseConfigVersion(*igmpHost());
    raiseIntfConfigVersion(*igmpHost());
}

void IgmpHostIntfSm::handleGroupList() {
    IHP_TRACE_ENTRY();
    Nex::Ptr<IntfStatus> const status = intfStatus();
    if (!status) return;
    for (auto const& item : status->groupSourceList()) {
        if (intfStatus() != status.get()) return; // pointed elsewhere by whoever heard of a record
        handleGroupList(item.key);
    }
}

void IgmpHostIntfSm::handleGroupList(Lox::IpAddr group) {
    IHP_TRACE_ENTRY();
    if (!intfStatus() || !igmpHost()) return;
    GroupSource const* const groupSource = intfStatus()->groupSourceList(group);
    if (!groupSource) return doDeleteRecord(group);
    // Any source in the include list toggles: a record that exists is deleted, not refreshed. The
    // host then forgets the sources that it listed before.
    if (groupSource->includeSourceListHas(anySource) && igmpHost()->v3groupHas(group))
        return doDeleteRecord(group);
    doCreateRecord(group);
}

/// A fresh record joins all sources of the group, until its sources refine it.
void IgmpHostIntfSm::doCreateRecord(Lox::IpAddr group) {
    IHP_TRACE(7, "Adding igmpHost v3group : %", group);
    Nex::Ptr<Igmp::IgmpV3GroupRecord> const record = igmpHost()->v3groupIs(group);
    if (!record->source()) {
        IHP_TRACE(6, "Source list is empty. Creating new source");
        record->sourceIs();
    }
    record->filterModeIs(IgmpV3GroupRecordType::modeIsExclude);
    raiseVersion(*record);
}

void IgmpHostIntfSm::doDeleteRecord(Lox::IpAddr group) {
    IHP_TRACE(7, "Deleting igmpHost v3group with key: %", group);
    igmpHost()->v3groupDel(group);
}

void IgmpHostIntfSm::handleGroupSourceListStatus(Lox::IpAddr group) {
    IHP_TRACE_ENTRY();
    if (!intfStatus()) return;
    if (GroupSource* const groupSource = intfStatus()->groupSourceList(group))
        groupSourceListStatusIs(groupSource);
    else
        groupSourceListStatusDel(group);
}

void IgmpHostIntfSm::handleGroupSourceListStatus() {
    IHP_TRACE_ENTRY();
    Nex::Ptr<IntfStatus> const status = intfStatus();
    if (status)
        for (auto const& item : status->groupSourceList()) {
            if (intfStatus() != status.get()) break; // another one was looked at as it came
            groupSourceListStatusIs(item.value);
        }
    groupSourceListStatus_.delUnless(
        [&](Lox::IpAddr group) { return intfStatus() && intfStatus()->groupSourceListHas(group); });
}

// The sources of one group

IgmpHostIntfSm::NexGroupSourceListStatus::NexGroupSourceListStatus(
    Nex::Ptr<GroupSource const> groupSource, IgmpHostIntfSm* machine)
    : NexGroupSource(std::move(groupSource), machine) {
    handleIncludeSourceList();
    handleExcludeSourceList();
}

void IgmpHostIntfSm::NexGroupSourceListStatus::handleIncludeSourceList(Lox::IpAddr source) {
    IHP_TRACE_ENTRY();
    if (source == anySource) machine()->handleGroupList(group());
    if (!notifier()) return; // the group went meanwhile
    Nex::Ptr<Igmp::IgmpV3GroupRecord> const groupRecord = record();
    if (!groupRecord) return;
    if (!listed(source)) return doDelSource(*groupRecord, source);
    groupRecord->sourceIs();
    doAddSource(*groupRecord, source);
    IHP_TRACE(7, "Changing mode to include");
    groupRecord->filterModeIs(IgmpV3GroupRecordType::modeIsInclude);
    raiseVersion(*groupRecord);
}

/// Unlike its counterpart this leaves the record's life alone: excluding any source means the join
/// that a fresh record is, and the group's own callback has made that. And it says when it makes
/// the source list, for here that is the exception.
void IgmpHostIntfSm::NexGroupSourceListStatus::handleExcludeSourceList(Lox::IpAddr source) {
    IHP_TRACE_ENTRY();
    Nex::Ptr<Igmp::IgmpV3GroupRecord> const groupRecord = record();
    if (!groupRecord) return;
    if (!listed(source)) return doDelSource(*groupRecord, source);
    if (!groupRecord->source()) {
        IHP_TRACE(6, "Source list is empty. Creating new source");
        groupRecord->sourceIs();
    }
    // Excluding any source leaves the list empty, which joins all sources.
    if (source != anySource) doAddSource(*groupRecord, source);
    IHP_TRACE(7, "Changing mode to exclude");
    groupRecord->filterModeIs(IgmpV3GroupRecordType::modeIsExclude);
    raiseVersion(*groupRecord);
}

bool IgmpHostIntfSm::NexGroupSourceListStatus::listed(Lox::IpAddr source) const {
    return includeHas(source) || excludeHas(source);
}

Nex::Ptr<Igmp::IgmpV3GroupRecord> const& IgmpHostIntfSm::NexGroupSourceListStatus::record() {
    Igmp::IgmpHost* const host = machine()->igmpHost();
    if (!record_ || record_->nexParent() != host) record_ = host ? host->v3group(group()) : nullptr;
    return record_;
}

void IgmpHostIntfSm::NexGroupSourceListStatus::doAddSource(Igmp::IgmpV3GroupRecord& record,
                                                           Lox::IpAddr source) const {
    if (record.source()->sourceIp(source) != 0) return;
    IHP_TRACE(7, "Adding source : % to group : %", source, group());
    record.source()->sourceIpIs(source, 1);
}

void IgmpHostIntfSm::NexGroupSourceListStatus::doDelSource(Igmp::IgmpV3GroupRecord& record,
                                                           Lox::IpAddr source) const {
    IHP_TRACE(7, "Deleting source : % from group : %", source, group());
    if (record.source() && record.source()->sourceIp(source) != 0)
        record.source()->sourceIpDel(source);
    raiseVersion(record);
}

} // namespace IgmpHostProxy
