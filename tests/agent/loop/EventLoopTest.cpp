#include "agent/loop/LoopFixture.h"
#include "agent/loop/MemoryReserve.h"

#include <barrier>
#include <cmath>
#include <csignal>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <thread>

namespace Agent {
namespace {

/// A descriptor that is ready for reading.
FileDescriptor ready() { return FileDescriptor(eventfd(1, 0)); }

class EventLoopTest : public LoopFixture {
  protected:
    void doTurns(int turns) {
        serveUntil([turns]() mutable { return --turns <= 0; });
    }

    std::string calls;
};

TEST_F(EventLoopTest, HandlerMayRemoveOrReplaceItself) {
    FileDescriptor const a = ready(), b = ready();
    loop.watch(a.get(), EPOLLIN, [&](std::uint32_t) {
        std::string const kept = "a"; // the closure must outlive its own removal
        loop.unwatch(a.get());
        calls += kept;
    });
    loop.watch(b.get(), EPOLLIN, [&](std::uint32_t events) {
        EXPECT_EQ(events, std::uint32_t(EPOLLIN));
        loop.watch(b.get(), EPOLLIN, [&](std::uint32_t) { calls += 'c'; });
        calls += 'b';
    });
    doTurns(3);
    EXPECT_EQ(calls, "abcc");
}

TEST_F(EventLoopTest, EventOfAClosedDescriptorIsNotTakenForItsSuccessors) {
    FileDescriptor const a = ready(), b = ready(), quiet(eventfd(0, 0));
    auto const replace = [&](int other) {
        loop.unwatch(a.get());
        loop.unwatch(b.get());
        ASSERT_EQ(dup2(quiet.get(), other), other); // closes the descriptor and takes its number
        loop.watch(other, EPOLLIN, [&](std::uint32_t) { calls += "stale"; });
        calls += 'x';
    };
    loop.watch(a.get(), EPOLLIN, [&](std::uint32_t) { replace(b.get()); });
    loop.watch(b.get(), EPOLLIN, [&](std::uint32_t) { replace(a.get()); });
    doTurns(1);
    EXPECT_EQ(calls, "x");
}

/// Neither a time that stays due nor a descriptor that stays ready keeps the processor busy.
TEST_F(EventLoopTest, HandlersThatFailAreLoggedAndTheLoopGoesOnWithoutHaste) {
    FileDescriptor const steady = ready();
    int failures = 0, exhaustions = 0;
    loop.watch(steady.get(), EPOLLIN, [&](std::uint32_t) {
        if (failures++ == 0) throw std::runtime_error("first\nfailure");
        throw 7;
    });
    loop.onTime([] { return 0.0; },
                [&](double) {
                    ++failures;
                    throw std::bad_alloc();
                });
    loop.atEndOfTurn([] { throw std::runtime_error("in a hook"); });
    loop.atEndOfTurn([&] { calls += 'h'; });
    loop.onExhaustion([&] { ++exhaustions; });
    double const start = EventLoop::now();
    testing::internal::CaptureStderr();
    doTurns(2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "error: a handler failed: first\\x0afailure (0 more not shown)\n");
    doTurns(10);
    EXPECT_EQ(calls, std::string(12, 'h'));
    EXPECT_EQ(failures, 24);
    EXPECT_EQ(exhaustions, 12);
    EXPECT_GT(EventLoop::now() - start, 0.3);
}

TEST_F(EventLoopTest, ExpiryThatComesNearerIsKept) {
    FileDescriptor const a = ready();
    double const start = EventLoop::now();
    double expiry = INFINITY;
    loop.onTime([&] { return std::optional(expiry); }, [&](double) { loop.stop(0); });
    loop.watch(a.get(), EPOLLIN, [&](std::uint32_t) {
        expiry = expiry == INFINITY ? start + 1000 : start + 0.02;
        if (expiry < start + 1) loop.unwatch(a.get());
    });
    loop.run();
    EXPECT_GE(EventLoop::now(), start + 0.02);
    EXPECT_LT(EventLoop::now(), start + 500);
}

TEST_F(EventLoopTest, AlarmPutOffByAnotherInTheSameTurnRingsLater) {
    double firstRang = 0, secondRang = 0;
    Alarm second(loop, [&] { secondRang = EventLoop::now(); });
    Alarm first(loop, [&] {
        firstRang = EventLoop::now();
        second.arm(0.02);
    });
    first.arm(0);
    second.arm(0); // both are due by now
    EXPECT_TRUE(serveUntil([&] { return secondRang > 0; }));
    EXPECT_GE(secondRang - firstRang, 0.02);
}

TEST_F(EventLoopTest, SignalSentWithoutEndStarvesNoOther) {
    loop.onSignal(SIGTERM, [&] { loop.stop(4); });
    loop.onSignal(SIGHUP, [&] {
        calls += 'H';
        if (calls.size() < 100) raise(SIGHUP);
        if (calls == "H.H.H") raise(SIGTERM);
    });
    loop.atEndOfTurn([&] { calls += '.'; });
    raise(SIGHUP);
    EXPECT_EQ(loop.run(), 4);
    EXPECT_EQ(calls, "H.H.H..") << "a call in each turn, and none beside the end";
}

using Done = std::shared_ptr<EventLoop::Handler const>;

/// Each waits until all have begun and the loop has had a turn.
TEST_F(EventLoopTest, WorkThatWaitsHoldsNeitherTheLoopNorOtherWork) {
    constexpr int works = 20;
    // The last of them may still leave it when the test is over.
    auto const all = std::make_shared<std::barrier<>>(works + 1);
    int done = 0;
    auto const count = [&, here = std::this_thread::get_id()] {
        EXPECT_EQ(std::this_thread::get_id(), here);
        if (++done == works - 1) loop.stop(0);
    };
    Done const stays = std::make_shared<EventLoop::Handler const>(count);
    Done goes = std::make_shared<EventLoop::Handler const>(count);
    for (int i = 0; i < works; ++i)
        loop.offload([all] { all->arrive_and_wait(); }, i == works / 2 ? goes : stays);
    goes = nullptr;
    FileDescriptor const steady = ready();
    loop.watch(steady.get(), EPOLLIN, [&](std::uint32_t) {
        loop.unwatch(steady.get());
        all->arrive_and_wait();
    });
    loop.run();
    EXPECT_EQ(done, works - 1) << "nobody wants to know of one of them";
}

TEST_F(EventLoopTest, WorkIsDoneWithoutAThreadAndAtTheEnd) {
    FileDescriptor const steady = ready();
    std::vector<int> fds(100);
    for (int& fd : fds) fd = dup(steady.get());
    {
        EventLoop ending;
        for (int const fd : fds) ending.descriptorClose(FileDescriptor(fd));
    }
    for (int const fd : fds) EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    pthread_attr_t before, tooLarge;
    pthread_getattr_default_np(&before);
    pthread_attr_init(&tooLarge);
    pthread_attr_setstacksize(&tooLarge, std::size_t(1) << 46);
    ASSERT_EQ(pthread_setattr_default_np(&tooLarge), 0);
    Done const done = std::make_shared<EventLoop::Handler const>([this] { loop.stop(0); });
    bool worked = false;
    loop.offload([&] { worked = true; }, done);
    pthread_setattr_default_np(&before);
    EXPECT_TRUE(worked);
    loop.run();
}

TEST_F(EventLoopTest, StandardDescriptorsThatAreClosedAreTaken) {
    EXPECT_EXIT(
        {
            close(STDIN_FILENO);
            close(STDERR_FILENO);
            standardDescriptorsReserve();
            _exit(dup(STDOUT_FILENO) > STDERR_FILENO && fcntl(STDERR_FILENO, F_GETFD) == 0 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(MemoryReserveTest, IsGivenUpOnceAndPutByAtTheEndOfTheTurn) {
    MemoryReserve reserve;
    for (int turn = 0; turn < 2; ++turn) {
        EXPECT_FALSE(MemoryReserve::isSpent());
        std::get_new_handler()(); // as operator new does without memory
        EXPECT_TRUE(MemoryReserve::isSpent());
        EXPECT_THROW(std::get_new_handler()(), std::bad_alloc);
        reserve.handleTurn();
    }
}

} // namespace
} // namespace Agent
