// The binding of one interface's status to its IGMP host entity.
//
// It programs the host entity from the status (settings, source address, one group record per
// announced group) and copies the host's packet counters back. It lives while the host agent
// publishes a status for the host entity; the root machine owns it. It sends nothing itself.
//
//     IgmpHostIntfSm.cpp           settings and group records
//     IgmpHostIntfSmCounters.cpp   packet counters
#pragma once

#include "Igmp/IgmpHost.h"
#include "IgmpHostProxy/NexGroupSource.h"
#include "IgmpHostProxy/Status.h"
#include "Ip/SourceIntf.h"
#include "Nex/Machine.h"

namespace IgmpHostProxy {

class IgmpHostProxySm;

class IgmpHostIntfSm : public Nex::PtrInterface {
  public:
    static constexpr char nexTypeName[] = "IgmpHostProxy::IgmpHostIntfSm";

    /// Programs the host entity at once. A null object is "not known yet": what needs it waits.
    IgmpHostIntfSm(Lox::IntfId intfId, Nex::Ptr<IntfStatus> intfStatus,
                   Nex::Ptr<Igmp::IgmpHost> igmpHost,
                   Nex::Ptr<Igmp::IgmpHostStatus const> igmpHostStatus,
                   Nex::Ptr<Ip::SourceIntf::SourceIntf> srcIntfIhpIntf, IgmpHostProxySm* parent);
    ~IgmpHostIntfSm() override;

    Lox::IntfId const& intfId() const { return intfId_; }
    /// The root that owns this; not used here.
    IgmpHostProxySm* parent() const { return parent_; }
    /// The constructor's arguments as they are now.
    auto nexArguments() const {
        return std::make_tuple(Nex::Ptr(intfStatus()), igmpHost_, Nex::Ptr(igmpHostStatus()),
                               Nex::Ptr(srcIntfIhpIntf()));
    }
    static constexpr char const* nexArgumentNames[] = {"intfStatus", "igmpHost", "igmpHostStatus",
                                                       "srcIntfIhpIntf"};

    // Each handler brings one thing in step with what the inputs say now, and does nothing while an
    // input that it needs is null.

    /// Programs all settings, once.
    void handleNew();
    /// Not while the interface has no address: the host would send without one.
    void handleDeviceName();
    /// An address that is lost is kept.
    void handleIpAddrChange();
    void handleInterval();
    /// Versions other than 1 and 2 are programmed as 3.
    void handleVersion();
    void handleIntfEthAddr();
    /// For all groups of the status, as below.
    void handleGroupList();
    /// Creates, refreshes or deletes the host's record of a group. Where any source is included,
    /// each call makes or deletes it in turn.
    void handleGroupList(Lox::IpAddr group);
    /// The group's own reactor comes or goes with the group.
    void handleGroupSourceListStatus(Lox::IpAddr group);
    void handleGroupSourceListStatus();

    // handleIgmpHostV1QueryReceived() and so on: one for each counter that the interface shows too.
#define IHP_DECLARE(TYPE, NAME, UPPER) void handleIgmpHost##UPPER();
    IGMP_PACKET_COUNTERS(IHP_DECLARE, IGMP_NO_COUNTER)
#undef IHP_DECLARE
    void handleIgmpHostV3ReportsSent();
    /// Sets the status's counters to 0, until the host counts on.
    void resetPacketCounters();

    class NexIntfStatus : public Nex::Reactor<IntfStatus::Notifiee, IgmpHostIntfSm> {
      public:
        using Reactor::Reactor;
        void onDeviceName() override { machine()->handleDeviceName(); }
        void onUnsolicitedReportIntvl() override { machine()->handleInterval(); }
        void onIgmpVersion() override { machine()->handleVersion(); }
        void onMacAddr() override { machine()->handleIntfEthAddr(); }
        void onGroupSourceList(Lox::IpAddr group) override {
            machine()->handleGroupList(group);
            machine()->handleGroupSourceListStatus(group);
        }
        void onGroupSourceListnexImmediate() override { machine()->handleGroupSourceListStatus(); }
        void onNotifier() override;
    };

    class NexIgmpHostStatus
        : public Nex::Reactor<Igmp::IgmpHostStatus::NotifieeConst, IgmpHostIntfSm> {
      public:
        using Reactor::Reactor;
#define IHP_REACT(TYPE, NAME, UPPER)                                                               \
    void on##UPPER() override { machine()->handleIgmpHost##UPPER(); }
        IGMP_PACKET_COUNTERS(IHP_REACT, IGMP_NO_COUNTER)
#undef IHP_REACT
        void onV3CurrentStateReportSent() override { machine()->handleIgmpHostV3ReportsSent(); }
        void onV3StateChangeReportSent() override { machine()->handleIgmpHostV3ReportsSent(); }
        void onNotifier() override;
    };

    class NexSrcIntfIhpIntf
        : public Nex::Reactor<Ip::SourceIntf::SourceIntf::Notifiee, IgmpHostIntfSm> {
      public:
        using Reactor::Reactor;
        void onIpAddr() override { machine()->handleIpAddrChange(); }
        void onNotifier() override { machine()->handleIpAddrChange(); }
    };

    /// The sources of one announced group.
    class NexGroupSourceListStatus
        : public NexGroupSource<NexGroupSourceListStatus, IgmpHostIntfSm> {
      public:
        NexGroupSourceListStatus(Nex::Ptr<GroupSource const> groupSource, IgmpHostIntfSm* machine);
        using NexGroupSource::handleExcludeSourceList;
        using NexGroupSource::handleIncludeSourceList;
        void handleIncludeSourceList(Lox::IpAddr source);
        void handleExcludeSourceList(Lox::IpAddr source);

      private:
        /// Whether the group lists the source at all. Both handlers add it then, whichever the
        /// list: the mode is that of the handler that ran last.
        bool listed(Lox::IpAddr source) const;
        Nex::Ptr<Igmp::IgmpV3GroupRecord> record() const;
        void doAddSource(Igmp::IgmpV3GroupRecord& record, Lox::IpAddr source) const;
        void doDelSource(Igmp::IgmpV3GroupRecord& record, Lox::IpAddr source) const;
    };

  private:
    void doCreateRecord(Lox::IpAddr group);
    void doDeleteRecord(Lox::IpAddr group);

    Lox::IntfId intfId_;
    NEX_WATCHED(IntfStatus, intfStatus, NexIntfStatus)
    NEX_INPUT(Igmp::IgmpHost, igmpHost)
    NEX_WATCHED(Igmp::IgmpHostStatus const, igmpHostStatus, NexIgmpHostStatus)
    NEX_WATCHED(Ip::SourceIntf::SourceIntf, srcIntfIhpIntf, NexSrcIntfIhpIntf)
    NEX_REACTORS(Lox::IpAddr, NexGroupSourceListStatus, groupSourceListStatus, GroupSource const,
                 group)
    NEX_FIELD(bool, initialized, false)
    IgmpHostProxySm* parent_;
};

/// Whoever changes a host entity or one of its group records raises the matching stamp by one.
inline void raiseConfigVersion(Igmp::IgmpHost& host) {
    host.configVersionIs(host.configVersion() + 1);
}
inline void raiseIntfConfigVersion(Igmp::IgmpHost& host) {
    host.intfConfigVersionIs(host.intfConfigVersion() + 1);
}
inline void raiseVersion(Igmp::IgmpV3GroupRecord& record) {
    record.versionIs(record.version() + 1);
}

} // namespace IgmpHostProxy
