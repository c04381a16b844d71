// The binding of one interface's status to its IGMP host entity.
//
// It programs the host entity from the status (settings, source address, one group record per
// announced group) and copies the host's packet counters back. It lives while the host agent
// publishes a status for the host entity; the root machine owns it. It sends nothing itself.
//
// It binds the objects that were there as it was made. The entity is fixed; status, counters and
// address can be pointed elsewhere, and are then looked at at once. Of another status that means
// the settings, and the sources of the groups that have a record: records come and go with a group
// alone, and at construction. As it goes it leaves the entity and the counters as they are.
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

    /// Programs the host entity at once: the groups first, then the settings, and the stamps last.
    /// A null object is "not known yet": what needs it waits, for the entity in vain. All are held
    /// but `parent`. Throws what watchers of the entity throw; what is programmed by then stays.
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
    // input that it needs is null. Those who watch the entity are told from inside; what they throw
    // reaches whoever changed the input.

    /// Programs all settings, once.
    void handleNew();
    /// Not while the interface has no address: the host would send without one. The address that
    /// comes later does not make up for it; the next change of the name does. Raises no stamp, nor
    /// do interval and version.
    void handleDeviceName();
    /// An address that is lost is kept. Raises the interface's stamp, be it the same address.
    void handleIpAddrChange();
    void handleInterval();
    /// Versions other than 1 and 2 are programmed as 3.
    void handleVersion();
    /// Raises both stamps, be it the same address.
    void handleIntfEthAddr();
    /// For all groups of the status, as below.
    void handleGroupList();
    /// Creates, refreshes or deletes the host's record of a group. Where any source is included,
    /// each call makes or deletes it in turn. Refreshed is the mode, to exclude, and the version;
    /// the sources are left to the group's own reactor.
    void handleGroupList(Lox::IpAddr group);
    /// The group's own reactor comes or goes with the group. As it comes it hands over all sources.
    /// Without a group, for all: reactors of groups that are gone go, too.
    void handleGroupSourceListStatus(Lox::IpAddr group);
    void handleGroupSourceListStatus();

    // handleIgmpHostV1QueryReceived() and so on: one for each counter that the interface shows too.
#define IHP_DECLARE(TYPE, NAME, UPPER) void handleIgmpHost##UPPER();
    IGMP_PACKET_COUNTERS(IHP_DECLARE, IGMP_NO_COUNTER)
#undef IHP_DECLARE
    void handleIgmpHostV3ReportsSent();
    /// Sets the status's counters to 0, until the host counts on. The host's own stay.
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

    /// Pointed at another host's status, it copies all counters at once; made, it copies none.
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

    /// The sources of one announced group. It writes to the host's record that stands under the
    /// group at that moment, and does nothing where there is none.
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
        /// The host's record of the group, or null.
        Nex::Ptr<Igmp::IgmpV3GroupRecord> const& record();
        void doAddSource(Igmp::IgmpV3GroupRecord& record, Lox::IpAddr source) const;
        void doDelSource(Igmp::IgmpV3GroupRecord& record, Lox::IpAddr source) const;

        /// The group's, as long as the host is its parent: it loses that as it is taken out.
        Nex::Ptr<Igmp::IgmpV3GroupRecord> record_;
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

/// Whoever changes a host entity or one of its group records raises the matching stamp by one, when
/// the change has been written: what the stamp's watchers find is complete. It wraps around.
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
