// A configuration file being read beside the event loop: a long one takes a while.
#pragma once

#include "agent/config/Configuration.h"
#include "agent/loop/EventLoop.h"

#include <exception>
#include <functional>
#include <memory>
#include <string>

namespace Agent {

class ConfigurationLoader {
  public:
    /// Told what a file holds, or why reading it has failed half way, in a turn of its own. What it
    /// throws is the loop's.
    using Handler = std::function<void(ConfigurationReading found, std::exception_ptr failure)>;

    /// `loop` outlives this.
    explicit ConfigurationLoader(EventLoop& loop) : loop_(loop) {}

    /// Has the file read; nothing may be being read. Throws std::bad_alloc, with nothing done.
    void begin(std::string file, Handler handler);
    bool reading() const { return done_ != nullptr; }

  private:
    struct Result {
        ConfigurationReading found;
        std::exception_ptr failure;
    };

    EventLoop& loop_;
    std::shared_ptr<EventLoop::Handler const> done_; ///< while a thread reads
};

} // namespace Agent
