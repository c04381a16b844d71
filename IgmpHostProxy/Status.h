// What the proxy announces on each interface, and what the host protocol counted there. Written by
// the machines; it outlives them. Others read and watch it, and leave the writing to them: what the
// machines find there without a count of their own passes for a route's and goes with the routes.
//
// A change is told step by step, and the steps in between may show what nobody asked for: a group
// without sources before its first one, a source gone from one list before it is in the other. Who
// wants the outcome looks when the call that brought it about has returned.
#pragma once

#include "Igmp/PacketCounters.h"
#include "IgmpHostProxy/GroupSource.h"
#include "IgmpHostProxy/Settings.h"
#include "Lox/EthAddr.h"
#include "Lox/Names.h"

namespace IgmpHostProxy {

#define INTF_STATUS(ATTR, SET, MAP, RECORDS)                                                       \
    RECORDS(Lox::IpAddr, GroupSource, groupSourceList, GroupSourceList) /* announced groups */     \
    ATTR(bool, denyMroute, DenyMroute)        /* no groups from the forwarding table */            \
    ATTR(Nex::String, deviceName, DeviceName) /* kernel device */                                  \
    ATTR(IgmpVersion, igmpVersion, IgmpVersion)                                                    \
    ATTR(Lox::EthAddr, macAddr, MacAddr) /* MAC address of that device */                          \
    ATTR(UnsolicitedReportInterval, unsolicitedReportIntvl, UnsolicitedReportIntvl)                \
    IGMP_PACKET_COUNTERS(ATTR, IGMP_NO_COUNTER)                                                    \
    ATTR(std::uint32_t, v3ReportsSent, V3ReportsSent)

/// There from when the interface can be used until it cannot, or leaves the configuration. The
/// groups are the merged wish of configuration, access lists and routes. The counters are the
/// host's, from 0 as its binding begins; `v3ReportsSent` shows either of the two that the host
/// keeps apart. As the root machine goes the status stays as it is, with groups that nobody keeps
/// up: the next root finds them, drops those that no configuration or list has, and lets the routes
/// bring theirs anew.
///
/// A group's entry may be deleted and made anew at any change: go by the key, or watch the
/// collection beside the entry. `denyMroute` follows the lists' rules: set, it takes the routes'
/// groups out; reset, it has all routes looked at again.
class IntfStatus : public Nex::RecordBase {
    NEX_RECORD(IntfStatus, Lox::IntfId, intfId, INTF_STATUS)
};
#undef INTF_STATUS

#define STATUS(ATTR, SET, MAP, RECORDS) RECORDS(Lox::IntfId, IntfStatus, intfStatus, IntfStatus)

/// The interfaces that are up. Not those that are configured: `Config` has them.
class Status : public Nex::RecordBase {
    NEX_RECORD(Status, Nex::Name, name, STATUS)
};
#undef STATUS

} // namespace IgmpHostProxy
