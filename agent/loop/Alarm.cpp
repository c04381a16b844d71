#include "agent/loop/Alarm.h"

#include "Nex/System.h"

#include <utility>

namespace Agent {

Alarm::Alarm(EventLoop& loop, EventLoop::Handler handler)
    : loop_(loop),
      handler_(std::make_shared<EventLoop::Handler const>(std::move(handler))),
      place_(loop.alarms_.emplace(Nex::never, this)) {}

Alarm::~Alarm() { loop_.alarms_.erase(place_); }

void Alarm::delayIs(double delaySeconds) noexcept {
    loop_.doMove(place_, EventLoop::now() + delaySeconds);
}

void Alarm::delayDel() noexcept { loop_.doMove(place_, Nex::never); }

std::shared_ptr<EventLoop::Handler const> Alarm::handlerTake() noexcept {
    delayDel();
    return handler_;
}

} // namespace Agent
