#include "agent/loop/Alarm.h"

#include "agent/loop/SystemError.h"

#include <cmath>
#include <ctime>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <utility>

namespace Agent {

Alarm::Alarm(EventLoop& loop, EventLoop::Handler handler)
    : loop_(loop), timer_(timerfd_create(CLOCK_BOOTTIME, TFD_NONBLOCK | TFD_CLOEXEC)) {
    if (timer_.get() < 0) errnoThrow("timerfd_create");
    loop_.descriptorIs(timer_.get(), EPOLLIN,
                       [fd = timer_.get(), handler = std::move(handler)](std::uint32_t) {
                           // One that was put off after it had become ready has nothing to read.
                           std::uint64_t expirations;
                           if (read(fd, &expirations, sizeof expirations) == sizeof expirations)
                               handler();
                       });
}

Alarm::~Alarm() { loop_.descriptorDel(timer_.get()); }

void Alarm::delayIs(double delaySeconds) {
    double const whole = std::floor(delaySeconds);
    itimerspec setting{};
    setting.it_value.tv_sec = time_t(whole);
    setting.it_value.tv_nsec = long((delaySeconds - whole) * 1e9);
    // All zero would disarm the timer.
    if (delaySeconds < 1e-9) setting.it_value.tv_nsec = 1;
    timerfd_settime(timer_.get(), 0, &setting, nullptr);
}

void Alarm::delayDel() {
    itimerspec const none{};
    timerfd_settime(timer_.get(), 0, &none, nullptr);
}

} // namespace Agent
