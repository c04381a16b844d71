// A delay that a module keeps for itself on the event loop: work that is put off to a later turn,
// or repeated slowly.
#pragma once

#include "agent/loop/EventLoop.h"

namespace Agent {

class Alarm {
  public:
    /// `loop` outlives this. Throws std::system_error where the kernel refuses.
    Alarm(EventLoop& loop, EventLoop::Handler handler);
    ~Alarm();
    Alarm(Alarm const&) = delete;
    Alarm& operator=(Alarm const&) = delete;

    /// Calls the handler once, in `delaySeconds` of CLOCK_BOOTTIME in place of an earlier delay; 0
    /// means in the next turn, after what else has become ready.
    void delayIs(double delaySeconds);
    /// Calls nothing after all.
    void delayDel();

  private:
    EventLoop& loop_;
    FileDescriptor timer_;
};

} // namespace Agent
