#include "Olm/ReviewTimer.h"

#include <algorithm>

namespace Olm {

ReviewTimer::ReviewTimer(Nex::Clock::NotifieeConst* reactor, float fillInterval,
                         unsigned maxCredits, float minDelay, float maxDelay)
    : reactor_(reactor), credits_(maxCredits), filledAt_(Nex::System::currentTime()) {
    pacingIs(fillInterval, maxCredits, minDelay, maxDelay);
}

void ReviewTimer::pacingIs(float fillInterval, unsigned maxCredits, float minDelay,
                           float maxDelay) {
    fillInterval_ = fillInterval;
    maxCredits_ = maxCredits;
    minDelay_ = minDelay;
    maxDelay_ = maxDelay;
    credits_ = std::min(credits_, maxCredits_);
}

void ReviewTimer::doUpdateNextReview() {
    double const now = Nex::System::currentTime();
    doFill(now);
    doSchedule(now + (credits_ >= 1 ? minDelay_ : maxDelay_));
}

void ReviewTimer::doUpdateNextReviewImmediately() { doUpdateNextReviewAfter(minDelay_); }

void ReviewTimer::doUpdateNextReviewAfter(double delaySeconds) {
    // However late it is, what is pending comes sooner, and the credits that come back meanwhile
    // still do later: most notifications of a busy table end here.
    if (reactor_->timeMin() <= filledAt_ + delaySeconds) return;
    double const now = Nex::System::currentTime();
    doFill(now);
    doSchedule(now + delaySeconds);
}

void ReviewTimer::doFill(double now) {
    // Without an interval the bucket is always full.
    double const filled = fillInterval_ > 0 ? (now - filledAt_) / fillInterval_ : maxCredits_;
    credits_ = std::min(credits_ + std::max(filled, 0.0), maxCredits_);
    filledAt_ = now;
}

void ReviewTimer::doSchedule(double time) {
    if (!reviewPending() && credits_ >= 1) credits_ -= 1;
    if (time < reactor_->timeMin()) reactor_->timeMinIs(time);
}

} // namespace Olm
