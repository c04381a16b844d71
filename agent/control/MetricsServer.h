// The figures for monitoring over HTTP: GET /metrics, in pieces as a client takes them.
//
// One alarm: it goes on with an answer in the next turn, and ends connections that nothing comes
// over any more.
#pragma once

#include "agent/loop/Alarm.h"
#include "agent/loop/FileDescriptor.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

struct MHD_Connection;
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
    MetricsServer(EventLoop& loop, std::string const& address, Begin begin);
    ~MetricsServer();
    MetricsServer(MetricsServer const&) = delete;
    MetricsServer& operator=(MetricsServer const&) = delete;

    Pieces begin() const { return begin_(); }
    /// Has the library ask for more of this answer in the next turn.
    void doPutOff(MHD_Connection* connection);

  private:
    struct End {
        void operator()(MHD_Daemon* daemon) const;
    };

    void doServe();
    void doResume();

    EventLoop& loop_;
    Begin begin_;
    std::vector<MHD_Connection*> putOff_;
    std::unique_ptr<MHD_Daemon, End> daemon_;
    int fd_ = -1; ///< the daemon's, to wait for
    Alarm patience_;
};

} // namespace Agent
