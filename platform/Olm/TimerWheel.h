// The agent's timer wheel: the same operations as the clock, for timers of the agent's own pace.
// The loop asks and tells it beside the clock, neither of them knows of the other, and which of the
// two is told first at one time is up to the loop.
#pragma once

#include "Nex/Clock.h"

namespace Olm {

class TimerWheel : public Nex::Clock {
  public:
    TimerWheel() : Nex::Clock("timerWheel") {}
    static Nex::Ptr<TimerWheel> TimerWheelIs() { return Nex::newObject<TimerWheel>(); }
};

} // namespace Olm
