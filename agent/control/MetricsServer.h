// The figures for monitoring over HTTP: GET /metrics, in pieces as a client takes them.
//
// One alarm: it ends connections that nothing comes over any more.
#pragma once

#include "agent/loop/Alarm.h"
#include "agent/loop/FileDescriptor.h"

#include <functional>
#include <memory>
#include <string>

struct MHD_Daemon;

namespace Agent {

class MetricsServer {
  public:
    /// Adds some text, or none; false at the end.
    using Pieces = std::function<bool(std::string& text)>;
    /// Begins an answer.
    using Begin = std::function<Pieces()>;

    /// Listens at `address`, as parseSocketAddress() takes it. `loop` outlives this. Throws
    /// std::system_error where that cannot be had.
    MetricsServer(EventLoop& loop, std::string address, Begin begin);
    ~MetricsServer();
    MetricsServer(MetricsServer const&) = delete;
    MetricsServer& operator=(MetricsServer const&) = delete;

    std::string const& address() const { return address_; }
    Pieces begin() const { return begin_(); }

  private:
    struct End {
        void operator()(MHD_Daemon* daemon) const;
    };

    void doServe();

    EventLoop& loop_;
    std::string address_;
    Begin begin_;
    std::unique_ptr<MHD_Daemon, End> daemon_;
    int fd_ = -1; ///< the daemon's, to wait for
    Alarm patience_;
};

} // namespace Agent
