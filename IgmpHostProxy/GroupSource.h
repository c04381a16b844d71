// One multicast group with its sources, in the configuration, in the status and inside the
// machines.
//
// Source 0.0.0.0 stands for (*,G). In the include list it means that any source is wanted; in the
// exclude list, that the group is wanted from all sources.
#pragma once

#include "Lox/IpAddr.h"
#include "Nex/Record.h"

namespace IgmpHostProxy {

#define GROUP_SOURCE(ATTR, SET, MAP, RECORDS)                                                      \
    SET(Lox::IpAddr, includeSourceList, IncludeSourceList) /* sources to report in include mode */ \
    SET(Lox::IpAddr, excludeSourceList, ExcludeSourceList) /* sources to report as excluded */

/// Producers may name a source in both lists; in the status a source is in one of them at most, and
/// where both are wanted, in the exclude list.
class GroupSource : public Nex::RecordBase {
    NEX_RECORD(GroupSource, Lox::IpAddr, group, GROUP_SOURCE)

  public:
    bool empty() const { return includeSourceList_.empty() && excludeSourceList_.empty(); }
};
#undef GROUP_SOURCE

/// Any source, and an interface without address.
inline constexpr Lox::IpAddr anySource{};

} // namespace IgmpHostProxy
