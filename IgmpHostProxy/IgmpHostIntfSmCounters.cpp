// The host's packet counters, copied into the interface's status: always the host's full value, so
// a reset lasts until the host counts again.
#include "IgmpHostProxy/IgmpHostIntfSm.h"

#include "IgmpHostProxy/Trace.h"

namespace IgmpHostProxy {

/// The counters that are copied as they are, in the status's order.
#define IHP_COPIED_COUNTERS(COUNTER)                                                               \
    COUNTER(v1QueryReceived, V1QueryReceived)                                                      \
    COUNTER(v1ReportsSent, V1ReportsSent)                                                          \
    COUNTER(v2GeneralQueryReceived, V2GeneralQueryReceived)                                        \
    COUNTER(v2GroupQueryReceived, V2GroupQueryReceived)                                            \
    COUNTER(v2ReportsSent, V2ReportsSent)                                                          \
    COUNTER(v3GeneralQueryReceived, V3GeneralQueryReceived)                                        \
    COUNTER(v3GroupQueryReceived, V3GroupQueryReceived)                                            \
    COUNTER(v3GroupSourceQueryReceived, V3GroupSourceQueryReceived)

#define IHP_COPY(NAME, UPPER)                                                                      \
    void IgmpHostIntfSm::handleIgmpHost##UPPER() {                                                 \
        IHP_TRACE_ENTRY();                                                                         \
        if (intfStatus() && igmpHostStatus()) intfStatus()->NAME##Is(igmpHostStatus()->NAME());    \
    }
IHP_COPIED_COUNTERS(IHP_COPY)
#undef IHP_COPY

/// Current-state and state-change reports are counted apart by the host and share one counter here.
/// It follows the current-state count while that runs ahead of what is published, otherwise it
/// shows the state-change count. They are never added up: whatever is published is a number that
/// the host itself shows.
void IgmpHostIntfSm::handleIgmpHostV3ReportsSent() {
    IHP_TRACE_ENTRY();
    if (!intfStatus() || !igmpHostStatus()) return;
    std::uint32_t const currentState = igmpHostStatus()->v3CurrentStateReportSent();
    intfStatus()->v3ReportsSentIs(currentState > intfStatus()->v3ReportsSent()
                                      ? currentState
                                      : igmpHostStatus()->v3StateChangeReportSent());
}

void IgmpHostIntfSm::resetPacketCounters() {
    IHP_TRACE_ENTRY();
    IHP_TRACE(7, "Resetting packet counters to 0");
    if (!intfStatus()) return;
#define IHP_RESET(NAME, UPPER) intfStatus()->NAME##Is(0);
    IHP_COPIED_COUNTERS(IHP_RESET)
#undef IHP_RESET
    intfStatus()->v3ReportsSentIs(0);
}

void IgmpHostIntfSm::NexIgmpHostStatus::onNotifier() {
#define IHP_HANDLE(NAME, UPPER) machine()->handleIgmpHost##UPPER();
    IHP_COPIED_COUNTERS(IHP_HANDLE)
#undef IHP_HANDLE
    machine()->handleIgmpHostV3ReportsSent();
}

} // namespace IgmpHostProxy
