// The IGMP host protocol's entities: what a host is told to announce on an interface, and what it
// reports back. The proxy writes `IgmpHost`; the host agent reads it and writes `IgmpHostStatus`.
#pragma once

#include "Igmp/PacketCounters.h"
#include "Lox/EthAddr.h"
#include "Lox/IpAddr.h"
#include "Lox/Names.h"
#include "Nex/Record.h"

namespace Lox {

/// RFC 3376, 4.2.12.
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

enum class IgmpVersion : std::uint8_t { v1 = 1, v2 = 2, v3 = 3 };

#define IGMP_V3_HOST_GROUP_SOURCE_LIST(ATTR, SET, MAP, RECORDS)                                    \
    MAP(Lox::IpAddr, std::uint8_t, sourceIp, SourceIp) /* 1 for a source that is listed */

class IgmpV3HostGroupSourceList : public Nex::RecordBase {
    NEX_RECORD(IgmpV3HostGroupSourceList, Lox::IpAddr, group, IGMP_V3_HOST_GROUP_SOURCE_LIST)
};
#undef IGMP_V3_HOST_GROUP_SOURCE_LIST

#define IGMP_V3_GROUP_RECORD(ATTR, SET, MAP, RECORDS)                                              \
    ATTR(Lox::IgmpV3GroupRecordType, filterMode, FilterMode)                                       \
    ATTR(std::uint32_t, version, Version)                             /* change stamp */           \
    ATTR(Nex::Ptr<IgmpV3HostGroupSourceList>, sourceList, SourceList) /* null until sourceIs() */

class IgmpV3GroupRecord : public Nex::RecordBase {
    NEX_RECORD(IgmpV3GroupRecord, Lox::IpAddr, group, IGMP_V3_GROUP_RECORD)

  public:
    ~IgmpV3GroupRecord() override {
        if (sourceList_) sourceList_->nexParentIs(nullptr);
    }
    /// The group's sources; null until `sourceIs`.
    IgmpV3HostGroupSourceList* source() const { return sourceList_.get(); }
    /// Creates the source list, or returns the one that is there.
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
    ATTR(Lox::NamespaceName, ns, Ns)                                                               \
    ATTR(bool, enableRouterAlert, EnableRouterAlert)                                               \
    ATTR(std::uint16_t, vlanId, VlanId)                                                            \
    ATTR(bool, useMux, UseMux)                                                                     \
    ATTR(bool, tagged, Tagged)                                                                     \
    ATTR(Nex::String, deviceName, DeviceName)                                                      \
    ATTR(Lox::IpAddr, ipAddr, IpAddr)                                                              \
    ATTR(Lox::EthAddr, macAddr, MacAddr)                                                           \
    ATTR(IgmpVersion, igmpVersion, IgmpVersion)                                                    \
    ATTR(double, unsolicitedReportInterval, UnsolicitedReportInterval) /* seconds */               \
    ATTR(bool, enabled, Enabled)                                                                   \
    ATTR(bool, enablePeriodicReport, EnablePeriodicReport)                                         \
    ATTR(std::uint32_t, configVersion, ConfigVersion)         /* change stamp */                   \
    ATTR(std::uint32_t, intfConfigVersion, IntfConfigVersion) /* change stamp */                   \
    RECORDS(Lox::IpAddr, IgmpV3GroupRecord, v3group, V3group)

/// Keyed by the text form of the interface's `Lox::IntfId`.
class IgmpHost : public Nex::RecordBase {
    NEX_RECORD(IgmpHost, Nex::Name, name, IGMP_HOST)
};
#undef IGMP_HOST

#define IGMP_HOST_DIR(ATTR, SET, MAP, RECORDS) RECORDS(Nex::Name, IgmpHost, igmpHost, IgmpHost)

class IgmpHostDir : public Nex::RecordBase {
    NEX_RECORD(IgmpHostDir, Nex::Name, name, IGMP_HOST_DIR)
};
#undef IGMP_HOST_DIR

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

class IgmpHostStatusDir : public Nex::RecordBase {
    NEX_RECORD(IgmpHostStatusDir, Nex::Name, name, IGMP_HOST_STATUS_DIR)
};
#undef IGMP_HOST_STATUS_DIR

} // namespace Igmp
