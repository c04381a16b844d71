#include "agent/loop/Workers.h"

#include "agent/loop/SystemError.h"

#include <exception>
#include <signal.h>
#include <sys/eventfd.h>
#include <utility>

namespace Agent {

namespace {

constexpr std::size_t mostThreads = 32;

} // namespace

// Each reading yields one piece of work, and each piece a turn of the loop.
Workers::Workers()
    : finishedEvent_(checked(eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC), "eventfd")) {}

Workers::~Workers() {
    {
        std::scoped_lock const lock(mutex_);
        ending_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) thread.join();
}

void Workers::enqueue(Work work, std::weak_ptr<Work const> done) {
    Jobs job, spent;
    job.push_back({std::move(work), std::move(done)});
    std::unique_lock lock(mutex_);
    spent.swap(spent_);
    waiting_.splice(waiting_.end(), job);
    if (waiting_.size() > idle_ && threads_.size() < mostThreads) doAddThread();
    if (threads_.empty())
        doNext(lock);
    else
        changed_.notify_one();
}

void Workers::doAddThread() {
    // Signals are the loop's.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        threads_.emplace_back([this] { doServe(); });
    } catch (std::exception const&) { // then fewer must do
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Workers::doServe() {
    std::unique_lock lock(mutex_);
    for (;;) {
        ++idle_;
        changed_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
        --idle_;
        if (waiting_.empty()) return;
        doNext(lock);
    }
}

void Workers::doNext(std::unique_lock<std::mutex>& lock) {
    Jobs job;
    job.splice(job.end(), waiting_, waiting_.begin());
    lock.unlock();
    job.front().work();
    lock.lock();
    bool const tells = !job.front().done.expired();
    Jobs& next = tells ? finished_ : spent_;
    next.splice(next.end(), job);
    if (tells) eventfd_write(fd(), 1);
}

void Workers::doFinish() {
    eventfd_t one = 0;
    if (eventfd_read(fd(), &one) < 0) return;
    Jobs job;
    {
        std::scoped_lock const lock(mutex_);
        job.splice(job.end(), finished_, finished_.begin());
    }
    if (auto const done = job.front().done.lock()) (*done)();
}

} // namespace Agent
