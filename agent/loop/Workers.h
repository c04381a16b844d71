// Threads beside the event loop, for what would hold it: calls in which the kernel takes long.
//
// They are made as work comes, up to a few dozen: the kernel has many of them wait for the same
// thing at once, so that closing a hundred packet sockets takes as long as closing one.
#pragma once

#include "agent/loop/FileDescriptor.h"

#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace Agent {

class Workers {
  public:
    using Work = std::function<void()>;

    /// Throws std::system_error where the kernel refuses.
    Workers();
    /// Waits until all work is done; of that, nobody is told.
    ~Workers();
    Workers(Workers const&) = delete;
    Workers& operator=(Workers const&) = delete;

    /// Has a thread call `work`, which owns all that it uses and does not throw. Where no thread
    /// can be had, the caller's does it. Throws std::bad_alloc, with nothing done.
    void enqueue(Work work, std::weak_ptr<Work const> done);

    /// To wait for: readable when doFinish() has something to do.
    int fd() const { return finishedEvent_.get(); }
    /// Calls the `done` of one piece of work, unless nobody holds it any longer.
    void doFinish();

  private:
    struct Job {
        Work work;
        std::weak_ptr<Work const> done;
    };
    // Their nodes go from list to list, so that a thread neither takes nor frees memory.
    using Jobs = std::list<Job>;

    void doAddThread();
    void doServe();
    void doNext(std::unique_lock<std::mutex>& lock);

    FileDescriptor finishedEvent_;
    std::mutex mutex_; ///< of all that follows
    std::condition_variable changed_;
    Jobs waiting_;
    Jobs finished_; ///< and to be told
    Jobs spent_;    ///< and to be freed
    std::size_t idle_ = 0;
    bool ending_ = false;
    std::vector<std::thread> threads_; ///< touched by the owner alone
};

} // namespace Agent
