// For tests of what runs on the event loop and waits for the kernel.
#pragma once

#include "agent/loop/Alarm.h"

#include <functional>
#include <gtest/gtest.h>

namespace Agent {

class LoopFixture : public testing::Test {
  protected:
    LoopFixture() {
        loop.atEndOfTurn([this] {
            if (condition_ && (condition_() || ticksLeft_ <= 0)) loop.stop(0);
        });
    }

    /// Serves until `condition` holds at the end of a turn, or 20 ms have passed `ticks` times;
    /// returns whether it holds. Counted, for that leaves a machine that is busy or stands still
    /// the longer.
    bool serveUntil(std::function<bool()> condition, int ticks = 1500) {
        condition_ = std::move(condition);
        ticksLeft_ = ticks;
        tick_.arm(0);
        loop.run();
        return std::exchange(condition_, nullptr)();
    }

    EventLoop loop;

  private:
    std::function<bool()> condition_;
    int ticksLeft_ = 0;
    /// What the condition looks at may change without an event of the loop.
    Alarm tick_{loop, [this] {
                    --ticksLeft_;
                    tick_.arm(0.02);
                }};
};

} // namespace Agent
