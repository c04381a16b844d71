// The paced review of the VRF's multicast forwarding tables.
#include "IgmpHostProxy/IgmpHostProxyIntfSm.h"

#include "IgmpHostProxy/Trace.h"

namespace IgmpHostProxy {

void IgmpHostProxyIntfSm::reviewTimerIs(Nex::Clock::NotifieeConst* reactor, float fillInterval,
                                        unsigned maxCredits, float minDelay, float maxDelay) {
    if (reviewTimer() && reviewTimer()->reactor() == reactor) {
        reviewTimer()->pacingIs(fillInterval, maxCredits, minDelay, maxDelay);
    } else {
        reviewTimer_ =
            Nex::newObject<Olm::ReviewTimer>(reactor, fillInterval, maxCredits, minDelay, maxDelay);
    }
}

void IgmpHostProxyIntfSm::doKickReview() {
    IHP_TRACE_ENTRY();
    if (!initialized() || !reviewTimer() || reviewTimer()->reviewPending()) return;
    IHP_TRACE(3, "Kicking review");
    reviewTimer()->doUpdateNextReview();
}

void IgmpHostProxyIntfSm::doReview() {
    IHP_TRACE_ENTRY();
    if (!initialized() || !mfibKeshDir()) return;
    IHP_TRACE(3, "Starting review");
    IHP_TRACE(3, "Review finished");
    if (reviewTimer()) reviewTimer()->lastReviewTimeIs(Nex::System::currentTime());
}

} // namespace IgmpHostProxy
