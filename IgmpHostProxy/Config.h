// What the operator configured. The library only reads it.
//
// Whoever writes it tells of removed sources by listing them in `deletedGroupSourceList`: taken
// out of `groupSourceList` first, listed there, then dropped from it again, so that nothing stays
// blocked. Dropping a source from `groupSourceList` alone takes nothing back.
//
// Every write is acted upon before it returns: a group is in the status with its first source, then
// with two. Writing the value that is there does nothing, so the whole configuration may be written
// anew.
//
// A source counts once for each time that it was added to a list, and listing it as deleted takes
// one count back. What is listed as deleted without ever having been added is taken from the
// forwarding table's groups; as long as it is listed there, no route brings it back.
#pragma once

#include "IgmpHostProxy/GroupSource.h"
#include "IgmpHostProxy/Settings.h"
#include "Lox/Names.h"

namespace IgmpHostProxy {

#define INTF_CONFIG(ATTR, SET, MAP, RECORDS)                                                       \
    RECORDS(Lox::IpAddr, GroupSource, groupSourceList, GroupSourceList) /* groups to announce */   \
    RECORDS(Lox::IpAddr, GroupSource, deletedGroupSourceList, DeletedGroupSourceList)              \
    SET(Nex::String, aclList, AclList) /* access lists whose rules select groups */                \
    ATTR(IgmpVersion, igmpVersion, IgmpVersion)                                                    \
    ATTR(UnsolicitedReportInterval, unsolicitedReportIntvl, UnsolicitedReportIntvl)                \
    ATTR(bool, defaultHostProxy, DefaultHostProxy) /* not used by the machines */

/// One proxy interface. A list takes effect while it is named here and exists. Name it once the
/// interface's machine is there: one that is named before counts twice.
///
/// A group of `groupSourceList` without any source is announced, too, from all sources; listing it
/// as deleted with 0.0.0.0 excluded takes that back. Version and interval are the operator's: 0
/// each until they are written, and nothing here puts a default in their place.
///
/// A configured group keeps routes out, also by an empty entry; once it is gone,
/// `IgmpHostProxyIntfSm::doReleaseGroups` lets them in.
class IntfConfig : public Nex::RecordBase {
    NEX_RECORD(IntfConfig, Lox::IntfId, intfId, INTF_CONFIG)
};
#undef INTF_CONFIG

#define CONFIG(ATTR, SET, MAP, RECORDS)                                                            \
    RECORDS(Lox::IntfId, IntfConfig, intfConfig, IntfConfig) /* its keys are the proxy interfaces  \
                                                              */

/// An interface that is taken out goes down with all that it announces, its lists' groups included;
/// its groups here need not be listed as deleted.
class Config : public Nex::RecordBase {
    NEX_RECORD(Config, Nex::Name, name, CONFIG)
};
#undef CONFIG

} // namespace IgmpHostProxy
