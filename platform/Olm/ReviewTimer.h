// A timer that paces reviews by a credit bucket.
//
// One credit comes back per fill interval, up to the maximum, at which the bucket starts. A review
// spends one as it is scheduled. With a credit the next review runs after the minimum delay,
// without one after the maximum delay; "immediately" asks for the minimum delay whatever the
// credit, and spends one if there is one. A pending review is moved earlier, never later, and
// moving it spends nothing.
#pragma once

#include "Nex/Clock.h"

namespace Olm {

class ReviewTimer : public Nex::PtrInterface {
  public:
    /// Schedules by the wake time of `reactor`, a plain pointer that outlives the timer; its
    /// `onTime()` is the review. Intervals and delays in seconds.
    ReviewTimer(Nex::Clock::NotifieeConst* reactor, float fillInterval, unsigned maxCredits,
                float minDelay, float maxDelay);

    Nex::Clock::NotifieeConst* reactor() const { return reactor_; }
    /// Replaces the four numbers; credits above the new maximum are lost.
    void pacingIs(float fillInterval, unsigned maxCredits, float minDelay, float maxDelay);

    bool reviewPending() const { return reactor_->timeMin() != Nex::never; }
    void doUpdateNextReview();
    void doUpdateNextReviewImmediately();
    /// After a delay of the caller's, in seconds.
    void doUpdateNextReviewAfter(double delaySeconds);

    /// When the last review was completed, in seconds of the system's time; 0 before the first.
    double lastReviewTime() const { return lastReviewTime_; }
    void lastReviewTimeIs(double seconds) { lastReviewTime_ = seconds; }

  private:
    /// Brings the bucket up to `now`.
    void doFill(double now);
    void doSchedule(double time);

    Nex::Clock::NotifieeConst* reactor_;
    double fillInterval_ = 0;
    double maxCredits_ = 0;
    double minDelay_ = 0;
    double maxDelay_ = 0;
    double credits_ = 0;
    double filledAt_;
    double lastReviewTime_ = 0;
};

} // namespace Olm
