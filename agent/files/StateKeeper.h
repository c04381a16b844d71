// Keeps the state file in step with what is announced, at little cost: it is written a moment after
// a change, in slices, and then not again for long, measured by the work. One that fails is tried
// again some seconds later.
//
// One alarm: it begins a write, and goes on with one in the next turn.
#pragma once

#include "agent/files/FileReplacement.h"
#include "agent/files/StateFile.h"
#include "agent/loop/Alarm.h"

#include <exception>
#include <functional>
#include <optional>
#include <string>

namespace Agent {

class StateKeeper {
  public:
    /// Adds a few groups; false, with nothing added, at the end.
    using Next = std::function<bool(StateText& text)>;

    /// `begin` begins with the state anew. An empty `file` keeps nothing. `loop` outlives this.
    StateKeeper(EventLoop& loop, std::string file, std::function<Next()> begin);

    /// Something announced has changed.
    void handleChange();
    /// The same, with no turn of the loop to come. Whether the file is written. Throws nothing.
    bool doWriteAtOnce();
    /// Nothing is announced any more: the file goes.
    void doRemove();

  private:
    void handleAlarm();
    bool doSlice(double end);
    void doFail(std::exception const& error);
    void doEnd(double restSeconds);

    /// Of the file that is being written.
    struct Writing {
        Writing(std::string const& path, Next begun) : file(path), next(std::move(begun)) {}
        FileReplacement file;
        Next next;
        StateText text;
    };

    std::string file_;
    std::function<Next()> begin_;
    Alarm alarm_;
    std::optional<Writing> writing_;
    bool changed_ = false;
    double workSeconds_ = 0;
    double restUntil_ = 0;
    LogLimit failureLimit_;
    LogLimit truncationLimit_{3600};
};

} // namespace Agent
