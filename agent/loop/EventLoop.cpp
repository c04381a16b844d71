#include "agent/loop/EventLoop.h"

#include "Nex/System.h"
#include "agent/loop/Alarm.h"
#include "agent/loop/SystemError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <exception>
#include <new>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <utility>

namespace Agent {

namespace {

/// After a turn with a failure.
constexpr double leastPauseSeconds = 0.001;
constexpr double mostPauseSeconds = 0.1;

timespec toTimespec(double seconds) {
    // An expiry of years ahead, or infinity, would not fit.
    double const bounded = std::min(seconds, 1e10);
    double const whole = std::floor(bounded);
    // Rounded up, for a timer that fires early would only have the loop wait again.
    double const nanoseconds = std::min(std::ceil((bounded - whole) * 1e9), 999999999.0);
    return {time_t(whole), long(nanoseconds)};
}

} // namespace

EventLoop::EventLoop() {
    sigemptyset(&signalSet_);
    doMakeDescriptors();
}

void EventLoop::doMakeDescriptors() {
    epoll_ = FileDescriptor(checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1"));
    timer_ = FileDescriptor(
        checked(timerfd_create(CLOCK_BOOTTIME, TFD_NONBLOCK | TFD_CLOEXEC), "timerfd_create"));
    signals_ =
        FileDescriptor(checked(signalfd(-1, &signalSet_, SFD_NONBLOCK | SFD_CLOEXEC), "signalfd"));
    watch(signals_.get(), EPOLLIN, [this](std::uint32_t) { handleSignals(); });
    watch(timer_.get(), EPOLLIN, [this](std::uint32_t) {
        // Only to end the wait; what is due is found by the clock.
        std::uint64_t expirations;
        [[maybe_unused]] auto const got = read(timer_.get(), &expirations, sizeof expirations);
        armedFor_.reset();
    });
    watch(workers_->fd(), EPOLLIN, [this](std::uint32_t) { workers_->doFinish(); });
}

void EventLoop::doBecomeCopy() {
    watches_.clear();
    while (!alarms_.empty() && alarms_.begin()->first < Nex::never)
        alarms_.begin()->second->disarm();
    hooks_.clear();
    armedFor_.reset();
    signalHandlers_.clear();
    sigemptyset(&signalSet_);
    // The threads are not in the copy, and what they hold locked stays so.
    [[maybe_unused]] Workers* const original = workers_.release();
    workers_ = std::make_unique<Workers>();
    doMakeDescriptors();
}

double EventLoop::now() {
    timespec time{};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return double(time.tv_sec) + double(time.tv_nsec) * 1e-9;
}

void EventLoop::watch(int fd, std::uint32_t events, DescriptorHandler handler) {
    auto const watch = std::make_shared<Watch>(Watch{++lastSerial_, std::move(handler)});
    epoll_event event{};
    event.events = events;
    event.data.u64 = std::uint64_t(watch->serial) << 32 | std::uint32_t(fd);
    auto const place = watches_.try_emplace(fd).first; // before the kernel knows of it
    int result = epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event);
    if (result < 0 && errno == EEXIST) result = epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event);
    if (result < 0 && !place->second) watches_.erase(place);
    checked(result, "epoll_ctl");
    place->second = watch;
}

void EventLoop::unwatch(int fd) {
    if (watches_.erase(fd) != 0) epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

void EventLoop::descriptorClose(FileDescriptor descriptor) noexcept {
    unwatch(descriptor.get());
    try {
        offload([fd = descriptor.get()] { close(fd); });
        descriptor.release();
    } catch (std::bad_alloc const&) { // closed here
    }
}

void EventLoop::onSignal(int signal, Handler handler) {
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal);
    checked(sigprocmask(SIG_BLOCK, &one, nullptr), "sigprocmask");
    sigaddset(&signalSet_, signal);
    checked(signalfd(signals_.get(), &signalSet_, 0), "signalfd");
    signalHandlers_.emplace_back(signal, std::move(handler));
}

void EventLoop::onTime(std::function<std::optional<double>()> nextExpiry,
                       std::function<void(double now)> handleTime) {
    nextExpiry_ = std::move(nextExpiry);
    handleTime_ = std::move(handleTime);
}

void EventLoop::atEndOfTurn(Handler hook) { hooks_.push_back(std::move(hook)); }

int EventLoop::run() {
    while (!status_) doTurn();
    return *std::exchange(status_, std::nullopt);
}

void EventLoop::stop(int status) {
    if (!status_) status_ = status;
}

void EventLoop::doTurn() {
    std::array<epoll_event, 64> ready;
    int const count = epoll_wait(epoll_.get(), ready.data(), int(ready.size()), waitMilliseconds());
    if (count < 0 && errno != EINTR) checked(count, "epoll_wait");
    double const begun = now();
    for (int i = 0; i < count; ++i)
        handleReady(ready[std::size_t(i)].data.u64, ready[std::size_t(i)].events);
    doRunExpired();
    for (std::size_t i = 0; i < hooks_.size(); ++i) doGuarded(hooks_[i]); // a hook may add hooks
    if (std::exchange(exhausted_, false) && handleExhaustion_) doGuarded(handleExhaustion_);
    turnSeconds_.add(now() - begun);
    doPauseAfterFailure();
}

void EventLoop::doPauseAfterFailure() {
    bool const failed = std::exchange(failed_, false);
    pauseSeconds_ = failed ? std::clamp(2 * pauseSeconds_, leastPauseSeconds, mostPauseSeconds) : 0;
    if (!failed) return;
    timespec const pause = toTimespec(pauseSeconds_);
    nanosleep(&pause, nullptr);
}

/// 0 if something is due already, otherwise without limit and the timer armed.
int EventLoop::waitMilliseconds() {
    double const expiry = nextExpiry();
    if (expiry == Nex::never) return -1;
    if (expiry <= now()) return 0;
    doArm(expiry);
    return -1;
}

double EventLoop::nextExpiry() const {
    double const told = nextExpiry_().value_or(Nex::never);
    return alarms_.empty() ? told : std::min(told, alarms_.begin()->first);
}

/// Takes no memory: an alarm must not fail where there is none.
void EventLoop::doMove(Alarms::iterator& place, double time) noexcept {
    auto node = alarms_.extract(place);
    node.key() = time;
    place = alarms_.insert(std::move(node));
}

void EventLoop::doArm(double expiry) {
    if (armedFor_ == expiry) return;
    itimerspec setting{};
    setting.it_value = toTimespec(expiry);
    checked(timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &setting, nullptr), "timerfd_settime");
    armedFor_ = expiry;
}

void EventLoop::doRunExpired() {
    double const time = now();
    while (!alarms_.empty() && alarms_.begin()->first <= time) {
        auto const handler = alarms_.begin()->second->handlerTake();
        doGuarded(*handler);
    }
    std::optional<double> const expiry = nextExpiry_();
    if (expiry && *expiry <= time) doGuarded([&] { handleTime_(time); });
}

void EventLoop::handleReady(std::uint64_t token, std::uint32_t events) {
    auto const found = watches_.find(int(std::uint32_t(token)));
    if (found == watches_.end() || found->second->serial != token >> 32) return;
    auto const watch = found->second;
    doGuarded([&] { watch->handler(events); });
}

void EventLoop::handleSignals() {
    for (std::size_t i = 0; i < signalHandlers_.size(); ++i) {
        auto const& [signal, handler] = signalHandlers_[i];
        sigset_t one;
        sigemptyset(&one);
        sigaddset(&one, signal);
        // Each once. The descriptor would yield the lowest number for as long as it is sent.
        timespec const noWait{};
        if (status_ || sigtimedwait(&one, nullptr, &noWait) != signal) continue;
        doGuarded(handler);
    }
}

template <class Action>
void EventLoop::doGuarded(Action const& action) noexcept {
    try {
        action();
    } catch (std::bad_alloc const& exception) {
        exhausted_ = true;
        doLogFailure(exception.what());
    } catch (std::exception const& exception) {
        doLogFailure(exception.what());
    } catch (...) {
        doLogFailure("an unknown exception");
    }
}

void EventLoop::doLogFailure(char const* text) noexcept {
    failed_ = true;
    if (auto const heldBack = exceptionLimit_.admitted(now()))
        log(LogLevel::error, "a handler failed: {} ({} more not shown)", text, *heldBack);
}

} // namespace Agent
