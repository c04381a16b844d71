#include "agent/files/StateKeeper.h"

#include "Nex/System.h"
#include "agent/loop/Log.h"

#include <algorithm>
#include <unistd.h>
#include <utility>

namespace Agent {

namespace {

/// From a change to the write: more changes come with it.
constexpr double gatherSeconds = 0.05;
/// Rest between two writes, as a multiple of the work that the last one took.
constexpr double restFactor = 50;
/// After a write that failed, at least.
constexpr double rewriteSeconds = 1;

} // namespace

StateKeeper::StateKeeper(EventLoop& loop, std::string file, std::function<Next()> begin)
    : file_(std::move(file)), begin_(std::move(begin)), alarm_(loop, [this] { handleAlarm(); }) {}

void StateKeeper::handleChange() {
    if (std::exchange(changed_, true) || writing_ || file_.empty()) return;
    alarm_.arm(std::max(gatherSeconds, restUntil_ - EventLoop::now()));
}

void StateKeeper::handleAlarm() {
    double const start = EventLoop::now();
    if (!writing_) workSeconds_ = 0;
    try {
        if (!doSlice(start + sliceSeconds)) {
            workSeconds_ += EventLoop::now() - start;
            return alarm_.arm(0);
        }
        workSeconds_ += EventLoop::now() - start;
        doEnd(restFactor * workSeconds_);
    } catch (std::exception const& error) {
        changed_ = true;
        doEnd(std::max(rewriteSeconds, restFactor * workSeconds_));
        doFail(error);
    }
}

bool StateKeeper::doWriteAtOnce() {
    if (file_.empty()) return false;
    writing_.reset();
    try {
        return doSlice(Nex::never);
    } catch (std::exception const& error) {
        doFail(error);
        return false;
    }
}

void StateKeeper::doFail(std::exception const& error) {
    if (auto const heldBack = failureLimit_.admitted(EventLoop::now()))
        log(LogLevel::warning, "the state file is not written: {} ({} more not shown)",
            error.what(), *heldBack);
}

/// Whether the file is written.
bool StateKeeper::doSlice(double end) {
    if (!writing_) {
        writing_.emplace(file_, begin_());
        changed_ = false;
    }
    auto& [file, next, text] = *writing_;
    bool more = true;
    while (more && EventLoop::now() < end) more = next(text);
    if (!more) text.endAdd();
    file.add(text.take());
    if (more) return false;
    if (text.truncated() && truncationLimit_.admitted(EventLoop::now()))
        log(LogLevel::warning, "{} has no room for all groups; some would not be left", file_);
    file.finish();
    return true;
}

void StateKeeper::doEnd(double restSeconds) {
    writing_.reset();
    restUntil_ = EventLoop::now() + restSeconds;
    if (std::exchange(changed_, false)) handleChange();
}

void StateKeeper::doRemove() {
    if (!file_.empty()) unlink(file_.c_str());
}

} // namespace Agent
