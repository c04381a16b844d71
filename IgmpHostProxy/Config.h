// What the operator configured. The library only reads it.
//
// Whoever writes it tells of removed sources by listing them in `deletedGroupSourceList`: taken
// out of `groupSourceList` first, listed there, then dropped from it again, so that nothing stays
// blocked. Dropping a source from `groupSourceList` alone takes nothing back.
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
class IntfConfig : public Nex::RecordBase {
    NEX_RECORD(IntfConfig, Lox::IntfId, intfId, INTF_CONFIG)
};
#undef INTF_CONFIG

#define CONFIG(ATTR, SET, MAP, RECORDS)                                                            \
    RECORDS(Lox::IntfId, IntfConfig, intfConfig, IntfConfig) /* its keys are the proxy interfaces  \
                                                              */

class Config : public Nex::RecordBase {
    NEX_RECORD(Config, Nex::Name, name, CONFIG)
};
#undef CONFIG

} // namespace IgmpHostProxy
