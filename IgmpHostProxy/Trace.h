// The library's trace points. Levels: 8 function entries, 7 actions, 6 per route and per source,
// 3 progress of reviews.
//
// Operators' tools match the texts. Nobody tidies them: spelling, spaces and percent signs stay.
// Levels include those below: 8 shows everything, a line for each handler that runs, and 3 a line
// for each route of a full sync.
#pragma once

#include "Nex/Trace.h"

namespace IgmpHostProxy {

inline Nex::TraceHandle traceHandle("IgmpHostProxySm");

} // namespace IgmpHostProxy

/// A trace line: a format with a '%' for each of the values that follow it.
#define IHP_TRACE(LEVEL, ...) NEX_TRACE(::IgmpHostProxy::traceHandle, LEVEL, __VA_ARGS__)
/// The function's own signature, then the format.
#define IHP_TRACE_ENTRY(...)                                                                       \
    NEX_TRACE_ENTRY(::IgmpHostProxy::traceHandle __VA_OPT__(, ) __VA_ARGS__)
