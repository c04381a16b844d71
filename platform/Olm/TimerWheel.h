// The agent's timer wheel: the same operations as the clock, for timers of the agent's own pace.
#pragma once

#include "Nex/Clock.h"

namespace Olm {

class TimerWheel : public Nex::Clock {
  public:
    TimerWheel() : Nex::Clock("timerWheel") {}
    static Nex::Ptr<TimerWheel> TimerWheelIs() { return Nex::newObject<TimerWheel>(); }
};

} // namespace Olm
