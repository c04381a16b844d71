// The IGMP host protocol's entities: what a host is told to announce on an interface, and what it
// reports back. The proxy writes `IgmpHost`; the host agent reads it and writes `IgmpHostStatus`.
//
// How the two work together, for whoever writes a host agent:
//
//   - An `IgmpHost` appears in the directory as its interface can be used, and is filled in right
//     after: as `enabled` becomes true, interface, namespace, device and address are there, as far
//     as they are known. It goes when the interface does, and with it all that it asked for.
//   - The agent then makes the `IgmpHostStatus` of the same name. From then on the proxy keeps the
//     entity's settings and groups in step; until then there are no groups, and version, interval
//     and MAC address are 0. When the status goes, the entity stays as it is, and nobody keeps it
//     in step.
//   - The status binds what is there as it comes. So it is made after its entity, deleted when that
//     goes, and made anew for the next entity of the name: one that was there before, or outlived
//     an entity, binds nothing.
//   - A change stamp goes up by one after a change has been written, where the comments below name
//     the attribute; version, interval and device name have none, and are watched themselves.
//     Stamps wrap around; only a difference counts. A stamp may rise though nothing has changed.
//   - A group record is told of while it is empty, with no mode yet; its `version` rises once the
//     mode is there, and again with each source. Steps in between are told as they are done, and
//     a record may go and come back. So note what changed, and look at the records when the loop's
//     turn ends.
//   - From inside a callback the agent may write its status and look at everything. What it sends,
//     it sends later.
#pragma once

#include "Igmp/PacketCounters.h"
#include "Lox/EthAddr.h"
#include "Lox/IpAddr.h"
#include "Lox/Names.h"
#include "Nex/Record.h"

namespace Lox {

/// RFC 3376, 4.2.12. The proxy writes the first two; an agent that sends needs all. 0, which is
/// none of them, stands in a record that has not been filled in.
enum class IgmpV3GroupRecordType : std::uint8_t {
    modeIsInclude = 1,
    modeIsExclude = 2,
    changeToIncludeMode = 3,
    changeToExcludeMode = 4,
    allowNewSources = 5,
    blockOldSources = 6,
};

} // namespace Lox

namespace Igmp {

/// 0, none of them, in a host that is not bound yet.
enum class IgmpVersion : std::uint8_t { v1 = 1, v2 = 2, v3 = 3 };

/// The sources of one group record. One that stands there with 0 is not listed.
#define IGMP_V3_HOST_GROUP_SOURCE_LIST(ATTR, SET, MAP, RECORDS)                                    \
    MAP(Lox::IpAddr, std::uint8_t, sourceIp, SourceIp) /* 1 for a source that is listed */

class IgmpV3HostGroupSourceList : public Nex::RecordBase {
    NEX_RECORD(IgmpV3HostGroupSourceList, Lox::IpAddr, group, IGMP_V3_HOST_GROUP_SOURCE_LIST)
};
#undef IGMP_V3_HOST_GROUP_SOURCE_LIST

#define IGMP_V3_GROUP_RECORD(ATTR, SET, MAP, RECORDS)                                              \
    ATTR(Lox::IgmpV3GroupRecordType, filterMode, FilterMode)          /* of the source list */     \
    ATTR(std::uint32_t, version, Version)                             /* change stamp */           \
    ATTR(Nex::Ptr<IgmpV3HostGroupSourceList>, sourceList, SourceList) /* null until sourceIs() */

/// What to announce of one group, in the modes modeIsInclude and modeIsExclude; the state changes
/// that follow are the agent's. Excluding no source joins the group from all of them; including
/// none asks for nothing, and is what a group that has lost its last source may look like before
/// its record goes. The mode is that of the list that changed last, where sources are both included
/// and excluded. While it is filled in, mode and source list may not be there yet. A record that
/// went may come back as another object: follow it by its group.
class IgmpV3GroupRecord : public Nex::RecordBase {
    NEX_RECORD(IgmpV3GroupRecord, Lox::IpAddr, group, IGMP_V3_GROUP_RECORD)

  public:
    ~IgmpV3GroupRecord() override {
        if (sourceList_) sourceList_->nexParentIs(nullptr);
    }
    /// The group's sources; null until `sourceIs`. Lent.
    IgmpV3HostGroupSourceList* source() const { return sourceList_.get(); }
    /// Creates the source list, or returns the one that is there. A new one is told of as the
    /// attribute `sourceList`, still empty.
    Nex::Ptr<IgmpV3HostGroupSourceList> sourceIs() {
        if (!sourceList_) {
            auto const list = IgmpV3HostGroupSourceList::IgmpV3HostGroupSourceListIs(group());
            list->nexParentIs(this);
            sourceListIs(list);
        }
        return sourceList_;
    }
};
#undef IGMP_V3_GROUP_RECORD

#define IGMP_HOST(ATTR, SET, MAP, RECORDS)                                                         \
    ATTR(Lox::IntfId, intfId, IntfId)                                                              \
    ATTR(Lox::NamespaceName, ns, Ns)                 /* in which the device is */                  \
    ATTR(bool, enableRouterAlert, EnableRouterAlert) /* always set by the proxy */                 \
    ATTR(std::uint16_t, vlanId, VlanId)              /* always 1 */                                \
    ATTR(bool, useMux, UseMux)                       /* never */                                   \
    ATTR(bool, tagged, Tagged)                       /* never */                                   \
    ATTR(Nex::String, deviceName, DeviceName)        /* the kernel's */                            \
    ATTR(Lox::IpAddr, ipAddr, IpAddr)                /* to send from; kept when it is lost */      \
    ATTR(Lox::EthAddr, macAddr, MacAddr)             /* of the device */                           \
    ATTR(IgmpVersion, igmpVersion, IgmpVersion)      /* the highest to speak */                    \
    ATTR(double, unsolicitedReportInterval, UnsolicitedReportInterval) /* seconds */               \
    ATTR(bool, enabled, Enabled)                                       /* filled in */             \
    ATTR(bool, enablePeriodicReport, EnablePeriodicReport)                                         \
    ATTR(std::uint32_t, configVersion, ConfigVersion)         /* stamp: filled in, MAC address */  \
    ATTR(std::uint32_t, intfConfigVersion, IntfConfigVersion) /* the same, and IP address */       \
    RECORDS(Lox::IpAddr, IgmpV3GroupRecord, v3group, V3group) /* what to announce */

/// Keyed by the text form of the interface's `Lox::IntfId`. Written by the proxy alone, which fills
/// in any entity that comes into the directory, whoever made it.
class IgmpHost : public Nex::RecordBase {
    NEX_RECORD(IgmpHost, Nex::Name, name, IGMP_HOST)
};
#undef IGMP_HOST

#define IGMP_HOST_DIR(ATTR, SET, MAP, RECORDS) RECORDS(Nex::Name, IgmpHost, igmpHost, IgmpHost)

/// The hosts that there are to be, one for each interface that is up. Who watches it before the
/// proxy does is told of an entity that is not filled in yet; who watches it after finds it filled
/// in.
class IgmpHostDir : public Nex::RecordBase {
    NEX_RECORD(IgmpHostDir, Nex::Name, name, IGMP_HOST_DIR)
};
#undef IGMP_HOST_DIR

/// What the agent reports, mostly packets that it has counted. The proxy copies the queries
/// received and the reports sent into the interface's status, each as it is written and as a number
/// of its own, and writes nothing here. Counters are told one by one: an agent that counts many
/// packets writes them now and then. They may begin anywhere; what they begin with is not shown
/// until they change. The rest is for whoever shows the agent's state.
#define IGMP_HOST_STATUS(ATTR, SET, MAP, RECORDS)                                                  \
    IGMP_PACKET_COUNTERS(ATTR, ATTR)                                                               \
    ATTR(IgmpVersion, igmpVersion, IgmpVersion) /* the version spoken now */                       \
    ATTR(std::uint32_t, numPacketInitialized, NumPacketInitialized)                                \
    ATTR(double, unsolicitedReportInterval, UnsolicitedReportInterval) /* seconds */               \
    ATTR(bool, enablePeriodicReport, EnablePeriodicReport)                                         \
    ATTR(bool, continueUnsolicitedReport, ContinueUnsolicitedReport)

class IgmpHostStatus : public Nex::RecordBase {
    NEX_RECORD(IgmpHostStatus, Nex::Name, name, IGMP_HOST_STATUS)
};
#undef IGMP_HOST_STATUS

#define IGMP_HOST_STATUS_DIR(ATTR, SET, MAP, RECORDS)                                              \
    RECORDS(Nex::Name, IgmpHostStatus, igmpHostStatus, IgmpHostStatus)

/// A status that comes binds its host to the interface before the agent's call returns, with all
/// its groups; one that goes ends that. The agent hears of those groups from inside that call.
class IgmpHostStatusDir : public Nex::RecordBase {
    NEX_RECORD(IgmpHostStatusDir, Nex::Name, name, IGMP_HOST_STATUS_DIR)
};
#undef IGMP_HOST_STATUS_DIR

} // namespace Igmp
