#include "agent/loop/LoopFixture.h"

#include <thread>

namespace Agent {
namespace {

using AlarmTest = LoopFixture;

TEST_F(AlarmTest, AlarmPutOffByItsNeighbourInTheSameTurnRingsLater) {
    std::vector<double> rings;
    auto const ring = [&](Alarm& other) {
        rings.push_back(EventLoop::now());
        if (rings.size() == 1) other.arm(0.02);
    };
    Alarm* a = nullptr;
    Alarm b(loop, [&] { ring(*a); });
    Alarm first(loop, [&] { ring(b); });
    a = &first;
    first.arm(0);
    b.arm(0);
    std::this_thread::sleep_for(std::chrono::milliseconds(2)); // both are due
    EXPECT_TRUE(serveUntil([&] { return rings.size() == 2; }));
    EXPECT_GE(rings.back() - rings.front(), 0.02);
}

} // namespace
} // namespace Agent
