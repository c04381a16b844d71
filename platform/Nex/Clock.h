// Timers driven from outside.
//
// A reactor on a clock has one wake time, absolute in seconds of `System::currentTime()`. The
// embedding loop asks the clock for `nextExpiry()` and tells it `timeIs(now)`; nothing fires
// otherwise. Timers that are due fire in the order of their times, equal times in the order of
// arming. A timer is disarmed before its callback runs, so the callback may arm it again; what is
// armed during `timeIs` fires at the next call at the earliest.
//
// So a loop sleeps until `nextExpiry()`, calls `timeIs` with the time that it is then, and asks
// again: what was armed for the past meanwhile makes the answer lie in the past, which is no error.
// The clock reads no time source, and nobody wakes the loop as an earlier timer is armed: on one
// thread that happens only inside the loop's own calls.
#pragma once

#include "Nex/Entity.h"
#include "Nex/System.h"

#include <set>
#include <utility>

namespace Nex {

/// Reactors need not be armed, and one that goes disarms itself. A clock is held by every timer
/// that is armed on it. It tells nobody but the timer that is due; reactors that are not armed cost
/// it nothing. Arming and disarming take a step for each level of a tree of the armed ones.
class Clock : public Entity {
  public:
    explicit Clock(Name name = "clock") : name_(std::move(name)) {}
    static Ptr<Clock> ClockIs(Name name = "clock") { return newObject<Clock>(std::move(name)); }
    String nexName() const override { return name_; }

    class NotifieeConst : public NotifieeOf<Clock> {
      public:
        /// The wake time was reached, be it long ago. Told once for each arming, with the timer
        /// disarmed: what missed its time by several periods is told once. A timer that is due
        /// while it is inactive, or its machine silenced, is spent unheard.
        virtual void onTime() {}
        /// Absolute, in seconds of the system's time; `never` when disarmed, which it is in its own
        /// callback.
        double timeMin() const { return timeMin_; }
        /// Arms the timer, in place of an earlier arming; among equal times it is then the last
        /// one. A time that has passed fires at the next `timeIs`. `never` disarms, and without a
        /// clock there is nothing to arm: `timeMin` stays `never`. What is no number is refused by
        /// Nex::RangeException, with the timer as it was.
        void timeMinIs(double seconds);
        /// The wake time stays behind: the timer is disarmed on its new clock.
        void notifierIs(Ptr<Clock const> clock);
        void nexRetire() override;

      protected:
        using NotifieeOf<Clock>::NotifieeOf;
        ~NotifieeConst() override;

      private:
        friend class Clock;
        void disarm();

        /// In what order timers fire.
        std::pair<double, std::uint64_t> turn() const { return {timeMin_, armed_}; }
        double timeMin_ = never;
        std::uint64_t armed_ = 0; ///< number of its arming, for the order of equal times
        Ptr<Clock const> armedOn_;
    };
    using Notifiee = WritingNotifiee<NotifieeConst, Clock>;

    /// The earliest wake time, absolute, perhaps in the past; `never` when no timer is armed.
    /// Constant time. Good until the next timer is armed or disarmed.
    double nextExpiry() const;
    /// Fires what is due, `now` being seconds of the system's time. An exception of a callback
    /// reaches the caller; timers that did not get their turn stay armed, and the next call fires
    /// them. Callbacks may arm, disarm and drop any timer, and this clock; and call this again. A
    /// `now` before that of an earlier call fires what is due by it, as if that call had not been.
    void timeIs(double now);

  private:
    struct Sooner {
        using is_transparent = void;
        using Turn = std::pair<double, std::uint64_t>;
        static Turn of(NotifieeConst const* timer) { return timer->turn(); }
        static Turn of(Turn turn) { return turn; }
        bool operator()(auto const& a, auto const& b) const { return of(a) < of(b); }
    };

    Name name_;
    mutable std::set<NotifieeConst*, Sooner> timers_;
    mutable std::uint64_t armings_ = 0;
};

} // namespace Nex
