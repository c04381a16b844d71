// The host's packet counters, copied into the interface's status: always the host's full value, so
// a reset lasts until the host counts again.
#include "IgmpHostProxy/IgmpHostIntfSm.h"
#include "IgmpHostProxy/Trace.h"

namespace IgmpHostProxy {

#define IHP_COPY(TYPE, NAME, UPPER)                                                                \
    void IgmpHostIntfSm::handleIgmpHost##UPPER() {                                                 \
        IHP_TRACE_ENTRY();                                                                         \
        if (intfStatus() && igmpHostStatus()) intfStatus()->NAME##Is(igmpHostStatus()->NAME());    \
    }
IGMP_PACKET_COUNTERS(IHP_COPY, IGMP_NO_COUNTER)
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
#define IHP_RESET(TYPE, NAME, UPPER) intfStatus()->NAME##Is(0);
    IGMP_PACKET_COUNTERS(IHP_RESET, IGMP_NO_COUNTER)
#undef IHP_RESET
    intfStatus()->v3ReportsSentIs(0);
}

void IgmpHostIntfSm::NexIgmpHostStatus::onNotifier() {
#define IHP_HANDLE(TYPE, NAME, UPPER) machine()->handleIgmpHost##UPPER();
    IGMP_PACKET_COUNTERS(IHP_HANDLE, IGMP_NO_COUNTER)
#undef IHP_HANDLE
    machine()->handleIgmpHostV3ReportsSent();
}

} // namespace IgmpHostProxy
