#include "agent/StateKeeper.h"

#include "agent/FileReplacement.h"
#include "agent/Log.h"

#include <algorithm>
#include <exception>
#include <unistd.h>
#include <utility>

namespace Agent {

namespace {

/// From a change to the write: more changes come with it.
constexpr double delaySeconds = 0.05;
/// Rest between two writes, as a multiple of the work that the last one took.
constexpr double restFactor = 50;

} // namespace

StateKeeper::StateKeeper(EventLoop& loop, std::string file, Next next)
    : file_(std::move(file)), next_(std::move(next)), alarm_(loop, [this] { handleAlarm(); }) {}

void StateKeeper::handleChange() {
    if (std::exchange(changed_, true) || text_ || file_.empty()) return;
    alarm_.delayIs(std::max(delaySeconds, restUntil_ - EventLoop::now()));
}

void StateKeeper::handleAlarm() {
    if (!text_) {
        text_.emplace();
        after_.clear();
        workSeconds_ = 0;
        changed_ = false;
    }
    double const start = EventLoop::now();
    bool more = true;
    double now = start;
    while (more && now < start + sliceSeconds) {
        more = next_(*text_, after_);
        now = EventLoop::now();
    }
    if (!more) doWrite();
    workSeconds_ += EventLoop::now() - start;
    if (more) return alarm_.delayIs(0);
    restUntil_ = EventLoop::now() + restFactor * workSeconds_;
    if (std::exchange(changed_, false)) handleChange();
}

void StateKeeper::doWrite() {
    if (text_->truncated() && truncationLimit_.admitted(EventLoop::now()))
        log(LogLevel::warning, "{} has no room for all groups; some would not be left", file_);
    try {
        FileReplacement file(file_);
        file.add(text_->take());
        file.finish();
    } catch (std::exception const& error) {
        if (auto const heldBack = failureLimit_.admitted(EventLoop::now()))
            log(LogLevel::warning, "the state file is not written: {} ({} more not shown)",
                error.what(), *heldBack);
    }
    text_.reset();
}

void StateKeeper::doRemove() {
    if (!file_.empty()) unlink(file_.c_str());
}

} // namespace Agent
