#include "Nex/Clock.h"

#include "Nex/Error.h"

#include <cmath>

namespace Nex {

void Clock::NotifieeConst::timeMinIs(double seconds) {
    if (std::isnan(seconds)) throw RangeException("a wake time that is no number");
    disarm();
    if (seconds == never || !notifier()) return;
    armedOn_ = Ptr<Clock const>(notifier());
    timeMin_ = seconds;
    armed_ = armedOn_->armings_++;
    try {
        armedOn_->timers_.insert(this);
    } catch (...) { // not armed, and not to be taken for it
        disarm();
        throw;
    }
}

void Clock::NotifieeConst::disarm() {
    if (armedOn_) armedOn_->timers_.erase(this);
    armedOn_ = nullptr;
    timeMin_ = never;
}

void Clock::NotifieeConst::notifierIs(Ptr<Clock const> clock) {
    if (clock != notifier()) disarm();
    NotifieeOf<Clock>::notifierIs(std::move(clock));
}

void Clock::NotifieeConst::nexRetire() {
    disarm();
    NotifieeOf<Clock>::nexRetire();
}

Clock::NotifieeConst::~NotifieeConst() { disarm(); }

double Clock::nextExpiry() const { return timers_.empty() ? never : (*timers_.begin())->timeMin_; }

void Clock::timeIs(double now) {
    Ptr<Clock> const hold(this);
    std::uint64_t const fresh = armings_;
    // Timers armed meanwhile may stand before others that are due; they are passed over. Those that
    // are due stand behind the last one that fired.
    for (auto at = timers_.begin(); at != timers_.end() && (*at)->timeMin_ <= now;) {
        if ((*at)->armed_ >= fresh) {
            ++at;
            continue;
        }
        Ptr<NotifieeConst> const timer(*at);
        auto const turn = timer->turn();
        timer->disarm();
        Lumen::Ring::Callback const mark(Lumen::ring);
        timer->nexDeliver([&] { timer->onTime(); });
        at = timers_.upper_bound(turn);
    }
}

} // namespace Nex
