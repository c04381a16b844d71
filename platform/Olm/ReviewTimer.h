// A timer that paces reviews by a credit bucket.
//
// One credit comes back per fill interval, up to the maximum, at which the bucket starts. A review
// spends one as it is scheduled. With a credit the next review runs after the minimum delay,
// without one after the maximum delay; "immediately" asks for the minimum delay whatever the
// credit, and spends one if there is one. A pending review is moved earlier, never later, and
// moving it spends nothing.
//
// So changes that come faster than the credits do are reviewed together, each no later than the
// maximum delay after it was asked for, and a lonely one after the minimum. The timer runs nothing
// itself and tells nobody: it only sets the reactor's wake time.
#pragma once

#include "Nex/Clock.h"

namespace Olm {

class ReviewTimer : public Nex::PtrInterface {
  public:
    /// Schedules by the wake time of `reactor`, a plain pointer that outlives the timer; its
    /// `onTime()` is the review. Intervals and delays in seconds; without an interval, 0 or less,
    /// there are always credits. Begins with all credits and nothing scheduled. A reactor without a
    /// clock never wakes: nothing gets pending then.
    ReviewTimer(Nex::Clock::NotifieeConst* reactor, float fillInterval, unsigned maxCredits,
                float minDelay, float maxDelay);

    Nex::Clock::NotifieeConst* reactor() const { return reactor_; }
    /// Replaces the four numbers; credits above the new maximum are lost. A pending review stays
    /// when it is.
    void pacingIs(float fillInterval, unsigned maxCredits, float minDelay, float maxDelay);

    /// Until the wake time is reached: in the review itself none is, unless it has asked again.
    bool reviewPending() const { return reactor_->timeMin() != Nex::never; }
    void doUpdateNextReview();
    void doUpdateNextReviewImmediately();
    /// After a delay of the caller's, in seconds, unless one is pending that comes sooner. Spends
    /// like the others.
    void doUpdateNextReviewAfter(double delaySeconds);

    /// When the last review was completed, in seconds of the system's time; 0 before the first. The
    /// reviewer writes it; the pacing does not go by it.
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
