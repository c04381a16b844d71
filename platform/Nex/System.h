// Time as the whole process sees it: seconds as a double, from an instant of the source's choice.
// It is no time of day, and no time of it is kept across runs.
//
// One thread reads it and sets its source.
#pragma once

#include <cmath>
#include <limits>

namespace Nex {

/// A wake time that never comes.
inline constexpr double never = std::numeric_limits<double>::infinity();

/// Where the time comes from. An embedding program or a test supplies its own.
class TimeSource {
  public:
    /// Seconds since an instant of the source's choice; does not run backwards. Read after every
    /// route of a review, so it is quick; it changes no record.
    virtual double currentTime() = 0;

  protected:
    ~TimeSource() = default;
};

class System {
  public:
    /// Seconds on the time source that is set; at first the steady clock.
    static double currentTime();
    /// Null for the steady clock. Not owned; must outlive its use. Timers that are armed keep their
    /// absolute times: set it before the first one is.
    static void timeSourceIs(TimeSource* source) { source_ = source; }

  private:
    static inline TimeSource* source_ = nullptr;
};

/// A time source that a test or a simulation moves by hand, also by a fixed step at each reading.
/// It is the process's time source as long as it lives; after it comes the steady clock, whatever
/// was set before. It moves no timer: the test tells the clocks.
class ManualTime : public TimeSource {
  public:
    explicit ManualTime(double seconds = 0) : now_(seconds) { System::timeSourceIs(this); }
    ManualTime(ManualTime const&) = delete;
    ManualTime& operator=(ManualTime const&) = delete;
    ~ManualTime() { System::timeSourceIs(nullptr); }

    double currentTime() override {
        double const now = now_;
        now_ += stepSeconds_;
        return now;
    }
    /// Reads without a step.
    double now() const { return now_; }
    void nowIs(double seconds) { now_ = seconds; }
    /// Added after each reading.
    void stepSecondsIs(double seconds) { stepSeconds_ = seconds; }

  private:
    double now_;
    double stepSeconds_ = 0;
};

} // namespace Nex
