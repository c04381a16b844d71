#include "agent/loop/Alarm.h"

#include "Nex/System.h"

#include <utility>

namespace Agent {

Alarm::Alarm(EventLoop& loop, EventLoop::Handler handler)
    : loop_(loop),
      handler_(std::make_shared<EventLoop::Handler const>(std::move(handler))),
      place_(loop.alarms_.emplace(Nex::never, this)) {}

Alarm::~Alarm() { loop_.alarms_.erase(place_); }

void Alarm::arm(double delaySeconds) noexcept {
    loop_.doMove(place_, EventLoop::now() + delaySeconds);
}

void Alarm::disarm() noexcept { loop_.doMove(place_, Nex::never); }

bool Alarm::armed() const { return place_->first < Nex::never; }

std::shared_ptr<EventLoop::Handler const> Alarm::handlerTake() noexcept {
    disarm();
    return handler_;
}

} // namespace Agent
