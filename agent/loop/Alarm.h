// A delay that a module keeps for itself on the event loop: work that is put off to a later turn,
// or repeated slowly.
#pragma once

#include "agent/loop/EventLoop.h"

#include <memory>

namespace Agent {

class Alarm {
  public:
    /// `loop` outlives this.
    Alarm(EventLoop& loop, EventLoop::Handler handler);
    ~Alarm();
    Alarm(Alarm const&) = delete;
    Alarm& operator=(Alarm const&) = delete;

    /// Calls the handler once, in `delaySeconds` in place of an earlier delay; 0 means after all
    /// that has become ready, and from an alarm in the next turn.
    void arm(double delaySeconds) noexcept;
    /// Calls nothing after all.
    void disarm() noexcept;
    bool armed() const;

  private:
    friend class EventLoop;
    /// To be called now; nothing is due any longer.
    std::shared_ptr<EventLoop::Handler const> handlerTake() noexcept;

    EventLoop& loop_;
    /// Shared with the call in progress, which may destroy this.
    std::shared_ptr<EventLoop::Handler const> handler_;
    EventLoop::Alarms::iterator place_;
};

} // namespace Agent
