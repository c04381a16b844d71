// Keeps the state file in step with what is announced, at little cost: it is written a moment after
// a change, in slices, and then not again for long, measured by the work. One that fails is tried
// again some seconds later.
//
// One alarm: it begins a write, and goes on with one in the next turn.
#pragma once

#include "agent/files/StateFile.h"
#include "agent/loop/Alarm.h"

#include <exception>
#include <functional>
#include <optional>
#include <string>

namespace Agent {

class StateKeeper {
  public:
    /// Adds the first interface behind the one named, in the order of names, all of an empty name;
    /// `after` becomes its name. Returns whether there was one.
    using Next = std::function<bool(StateText& text, std::string& after)>;

    /// An empty `file` keeps nothing. `loop` outlives this.
    StateKeeper(EventLoop& loop, std::string file, Next next);

    /// Something announced has changed.
    void handleChange();
    /// The same, with no turn of the loop to come. Throws nothing.
    void doWriteAtOnce();
    /// Nothing is announced any more: the file goes.
    void doRemove();

  private:
    void handleAlarm();
    bool doSlice(double end);
    void doFail(std::exception const& error);
    void doEnd(double restSeconds);

    std::string file_;
    Next next_;
    Alarm alarm_;
    std::optional<StateText> text_; ///< being built
    std::string after_;
    bool changed_ = false;
    double workSeconds_ = 0;
    double restUntil_ = 0;
    LogLimit failureLimit_;
    LogLimit truncationLimit_{3600};
};

} // namespace Agent
