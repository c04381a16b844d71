// One multicast group with its sources, in the configuration, in the status and inside the
// machines.
//
// Source 0.0.0.0 stands for (*,G). In the include list it means that any source is wanted; in the
// exclude list, that the group is wanted from all sources.
//
// The two are not the same to a host. A group of which 0.0.0.0 is excluded is joined from all
// sources, and gives way to single sources that others want. One of which it is included takes the
// place of all single sources in the status, and as a rule the host has no record of it: it is not
// announced. Whoever wants a group from everywhere excludes 0.0.0.0.
#pragma once

#include "Lox/IpAddr.h"
#include "Nex/Record.h"

namespace IgmpHostProxy {

#define GROUP_SOURCE(ATTR, SET, MAP, RECORDS)                                                      \
    SET(Lox::IpAddr, includeSourceList, IncludeSourceList) /* sources to report in include mode */ \
    SET(Lox::IpAddr, excludeSourceList, ExcludeSourceList) /* sources to report as excluded */

/// Producers may name a source in both lists; in the status a source is in one of them at most, and
/// where both are wanted, in the exclude list. A few sources stand inside the record. Nobody checks
/// that group and sources are what their names say: whoever reads a file does.
class GroupSource : public Nex::RecordBase {
    NEX_RECORD(GroupSource, Lox::IpAddr, group, GROUP_SOURCE)

  public:
    /// Whether no source is listed: a group that is configured without any, or one that is coming
    /// or going.
    bool empty() const { return !includes() && !excludes(); }
    /// Whether there is anything to walk, which costs far less to ask than an empty walk.
    bool includes() const { return !includeSourceList_.empty(); }
    bool excludes() const { return !excludeSourceList_.empty(); }
    /// Has the processor fetch the record, for who comes to it in a moment.
    void fetch() const {
        __builtin_prefetch(this);
        __builtin_prefetch(&excludeSourceList_);
    }
};
#undef GROUP_SOURCE

/// Any source, and an interface without address.
inline constexpr Lox::IpAddr anySource{};

} // namespace IgmpHostProxy
