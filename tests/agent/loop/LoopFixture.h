// For tests of what runs on the event loop and waits for the kernel.
#pragma once

#include "agent/loop/Alarm.h"

#include <functional>
#include <gtest/gtest.h>

namespace Agent {

class LoopFixture : public testing::Test {
  protected:
    LoopFixture() {
        loop.endOfTurnIs([this] {
            if (condition_ && (condition_() || EventLoop::now() >= end_)) loop.stopIs(0);
        });
    }

    /// Serves until `condition` holds at the end of a turn, or `seconds` have passed; returns
    /// whether it holds.
    bool serveUntil(std::function<bool()> condition, double seconds = 10) {
        condition_ = std::move(condition);
        end_ = EventLoop::now() + seconds;
        tick_.delayIs(0);
        loop.run();
        return std::exchange(condition_, nullptr)();
    }

    EventLoop loop;

  private:
    std::function<bool()> condition_;
    double end_ = 0;
    /// What the condition looks at may change without an event of the loop.
    Alarm tick_{loop, [this] { tick_.delayIs(0.02); }};
};

} // namespace Agent
