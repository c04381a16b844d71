// The thread that the agent's work is done in: waits for descriptors, signals and the next expiry,
// and calls handlers. Only calls into the kernel that take long are left to threads beside it.
//
// A turn is: wait; call the handlers of what became ready; run what is due; run the end-of-turn
// hooks. One timer wakes the wait, at the earliest of two kinds of expiries: the alarms of modules
// that know the loop, and what the owner tells for those that know no loop and are told the time.
//
// Time is CLOCK_BOOTTIME, which counts suspension too: after it upstream routers have dropped what
// was not refreshed, so expiries that it has overtaken must count as due.
//
// Handlers may add and remove descriptors, their own included, and stop the loop. An exception that
// a handler lets out is logged and the loop goes on: no input ends the agent. What failed may be
// due again at once; so the loop pauses after a turn with a failure, the longer the more of them
// follow each other.
#pragma once

#include "agent/loop/FileDescriptor.h"
#include "agent/loop/Histogram.h"
#include "agent/loop/Log.h"
#include "agent/loop/Workers.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <signal.h>
#include <utility>

namespace Agent {

/// How long work that can be cut into slices keeps the loop in one turn, in seconds.
inline constexpr double sliceSeconds = 0.002;

class Alarm;

class EventLoop {
  public:
    using Handler = std::function<void()>;
    /// Told the ready events, EPOLLERR and EPOLLHUP among them.
    using DescriptorHandler = std::function<void(std::uint32_t events)>;

    /// Throws std::system_error where the kernel refuses.
    EventLoop();
    EventLoop(EventLoop const&) = delete;
    EventLoop& operator=(EventLoop const&) = delete;

    /// Seconds since boot; read anew at each call.
    static double now();

    /// Calls `handler` in each turn in which `fd` has one of `events` (EPOLLIN, EPOLLOUT); in place
    /// of an earlier handler. The descriptor stays the caller's, who calls unwatch() before
    /// closing it. Throws std::system_error for one that cannot be waited for.
    void watch(int fd, std::uint32_t events, DescriptorHandler handler);
    /// Without effect if there is no handler.
    void unwatch(int fd);
    /// Removes its handler, and closes it beside the loop: the kernel takes some 20 ms for a packet
    /// socket.
    void descriptorClose(FileDescriptor descriptor) noexcept;

    /// Has `work` done beside the loop, and then calls `done` in a turn of its own if anybody still
    /// holds it. `work` owns all that it uses and does not throw. Throws std::bad_alloc, with
    /// nothing done.
    void offload(Handler work, std::weak_ptr<Handler const> done = {}) {
        workers_->enqueue(std::move(work), std::move(done));
    }

    /// Calls `handler` in place of the default action. Signals that arrive in one turn count once;
    /// of several, the one that was given its handler first goes first, and none follows one that
    /// stops the loop.
    /// Blocks the signal in the calling thread, for good: one that is pending when the loop goes
    /// away must not kill the process.
    void onSignal(int signal, Handler handler);

    /// `nextExpiry` is asked before each wait: a time as of now(), or nothing. `handleTime` is told
    /// the time once that is reached.
    void onTime(std::function<std::optional<double>()> nextExpiry,
                std::function<void(double now)> handleTime);

    /// Runs `hook` at the end of every turn, after those added before it.
    void atEndOfTurn(Handler hook);

    /// Calls `handler` at the end of a turn in which memory ran out: something may be half done.
    void onExhaustion(Handler handler) { handleExhaustion_ = std::move(handler); }
    /// For those who catch that themselves.
    void doReportExhaustion() noexcept { exhausted_ = true; }

    /// In a copy of the process: what was watched, armed or hooked before belongs to the original,
    /// and so do its threads. Time goes on to be told. Throws std::system_error.
    void doBecomeCopy();

    /// How long turns have taken, without waiting.
    Histogram const& turnSeconds() const { return turnSeconds_; }

    /// Serves until stop(); returns its status.
    int run();
    /// Ends run() after the current turn, or the next run() at once. The first call decides the
    /// status.
    void stop(int status);

  private:
    struct Watch {
        std::uint32_t serial;
        DescriptorHandler handler;
    };

    friend class Alarm;
    /// By the time when each is due, infinite for none; equal times in the order of arming.
    using Alarms = std::multimap<double, Alarm*>;
    void doMove(Alarms::iterator& place, double time) noexcept;

    void doMakeDescriptors();
    void doTurn();
    double nextExpiry() const;
    int waitMilliseconds();
    void doArm(double expiry);
    void doRunExpired();
    void handleReady(std::uint64_t token, std::uint32_t events);
    void handleSignals();
    template <class Action>
    void doGuarded(Action const& action) noexcept;
    void doLogFailure(char const* text) noexcept;
    void doPauseAfterFailure();

    FileDescriptor epoll_;
    FileDescriptor timer_;
    FileDescriptor signals_;
    std::unique_ptr<Workers> workers_ = std::make_unique<Workers>();
    sigset_t signalSet_{};
    // By descriptor. Shared with the call in progress, which may remove its own entry.
    std::map<int, std::shared_ptr<Watch>> watches_;
    // Tells a descriptor from a closed one of the same number, whose event may still be in hand.
    std::uint32_t lastSerial_ = 0;
    // Places that stay as handlers add others: what is called is not copied, which takes memory.
    std::deque<std::pair<int, Handler>> signalHandlers_; ///< in the order of their rank
    std::function<std::optional<double>()> nextExpiry_ = [] { return std::nullopt; };
    std::function<void(double now)> handleTime_;
    std::deque<Handler> hooks_;
    Handler handleExhaustion_;
    bool exhausted_ = false;
    bool failed_ = false;     ///< in this turn
    double pauseSeconds_ = 0; ///< after the last turn
    Alarms alarms_;
    std::optional<double> armedFor_;
    Histogram turnSeconds_;
    std::optional<int> status_;
    LogLimit exceptionLimit_{1};
};

} // namespace Agent
