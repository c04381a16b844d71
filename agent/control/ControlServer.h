// The control socket: a Unix stream socket on which whoever may connect asks the running agent, in
// JSON-RPC 2.0.
#pragma once

#include "agent/control/RpcMethod.h"
#include "agent/loop/EventLoop.h"
#include "agent/loop/FileDescriptor.h"

#include <memory>
#include <set>
#include <string>
#include <sys/types.h>
#include <utility>

namespace Agent {

class ControlSession;

class ControlServer {
  public:
    /// Opens the socket at `path`, for the user of the agent and for its group: mode 0660. One that
    /// nobody listens at any longer is replaced. `methods` and `loop` outlive this. Throws
    /// std::system_error where the path cannot be had; EADDRINUSE if somebody answers there.
    ControlServer(EventLoop& loop, std::string path, RpcMethods const& methods);
    /// Removes the socket, unless another has taken its path.
    ~ControlServer();
    ControlServer(ControlServer const&) = delete;
    ControlServer& operator=(ControlServer const&) = delete;

    /// Lets the members of that group of users connect; those of the agent's own for an empty name,
    /// and where that fails. Returns why it does, or nothing.
    std::string setGroup(std::string const& name) const;

    /// So many may be connected. Beyond them, whoever has been idle for longest has to go.
    static constexpr std::size_t mostSessions = 256;

  private:
    void handleConnection();
    void doAdd(FileDescriptor socket);
    bool doMakeRoom();

    EventLoop& loop_;
    std::string path_;
    RpcMethods const& methods_;
    FileDescriptor socket_;
    std::pair<dev_t, ino_t> identity_; ///< of the socket's file
    std::set<std::shared_ptr<ControlSession>> sessions_;
    LogLimit refusals_;
};

} // namespace Agent
