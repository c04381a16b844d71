#include "agent/control/ControlServer.h"

#include "agent/control/ControlSession.h"
#include "agent/control/UnixSocket.h"
#include "agent/loop/Log.h"

#include <cstring>
#include <fmt/format.h>
#include <grp.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Agent {

namespace {

constexpr mode_t socketMode = 0660;
constexpr int backlog = 64;

bool isAnswered(std::string const& path) {
    // One whose queue is full does answer.
    return unixConnect(unixSocket(SOCK_NONBLOCK), path) || errno == EAGAIN;
}

std::pair<dev_t, ino_t> fileIdentity(std::string const& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) return {};
    return {status.st_dev, status.st_ino};
}

uid_t userOf(FileDescriptor const& socket) {
    ucred peer{};
    socklen_t length = sizeof peer;
    checked(getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length), "SO_PEERCRED");
    return peer.uid;
}

} // namespace

ControlServer::ControlServer(EventLoop& loop, std::string path, RpcMethods const& methods)
    : loop_(loop), path_(std::move(path)), methods_(methods) {
    if (isAnswered(path_)) {
        errno = EADDRINUSE;
        errnoThrow(path_.c_str());
    }
    // It appears as a whole, with its mode, in place of what a dead agent has left; but of no other
    // file.
    struct stat there {};
    if (lstat(path_.c_str(), &there) == 0 && !S_ISSOCK(there.st_mode)) {
        errno = EEXIST;
        errnoThrow(path_.c_str());
    }
    std::string const made = path_ + ".new";
    sockaddr_un const address = unixAddress(made);
    unlink(made.c_str());
    socket_ = unixSocket(SOCK_NONBLOCK);
    checked(bind(socket_.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address),
            path_.c_str());
    try {
        checked(chmod(made.c_str(), socketMode), path_.c_str());
        checked(listen(socket_.get(), backlog), path_.c_str());
        identity_ = fileIdentity(made);
        checked(rename(made.c_str(), path_.c_str()), path_.c_str());
    } catch (...) {
        unlink(made.c_str());
        throw;
    }
    loop_.watch(socket_.get(), EPOLLIN, [this](std::uint32_t) { handleConnection(); });
}

ControlServer::~ControlServer() {
    loop_.unwatch(socket_.get());
    if (fileIdentity(path_) == identity_) unlink(path_.c_str());
}

std::string ControlServer::setGroup(std::string const& name) const {
    if (fileIdentity(path_) != identity_) return {}; // it is another's
    auto const give = [&](gid_t group) { return lchown(path_.c_str(), uid_t(-1), group) == 0; };
    group const* const wanted = name.empty() ? nullptr : getgrnam(name.c_str());
    if (wanted && give(wanted->gr_gid)) return {};
    int const error = errno;
    give(getegid());
    if (name.empty()) return {};
    if (!wanted) return fmt::format("there is no group {}", name);
    return fmt::format("cannot be given to group {}: {}; the agent has to be a member of it", name,
                       std::strerror(error));
}

void ControlServer::handleConnection() {
    // One in each turn: who connects without end does not hold the loop.
    FileDescriptor socket(accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket.get() >= 0) return doAdd(std::move(socket));
    if (errno == EAGAIN || errno == ECONNABORTED || errno == EINTR) return;
    // Out of descriptors: the waiting client would wake the loop without end.
    if (!doMakeRoom()) errnoThrow("the control socket");
}

void ControlServer::doAdd(FileDescriptor socket) {
    if (sessions_.size() >= mostSessions && !doMakeRoom()) {
        if (auto const more = refusals_.admitted(EventLoop::now()))
            log(LogLevel::warning, "{}: more than {} clients at once; one was refused", path_,
                mostSessions);
        return;
    }
    uid_t const user = userOf(socket);
    auto const session = std::make_shared<ControlSession>(
        loop_, std::move(socket), user, methods_,
        [this](ControlSession& ended) { sessions_.erase(ended.shared_from_this()); });
    session->doBegin(); // first: one that cannot be waited for ends with this
    sessions_.insert(session);
}

/// Ends the session that has been idle for longest. Returns whether there was one.
bool ControlServer::doMakeRoom() {
    auto oldest = sessions_.end();
    for (auto at = sessions_.begin(); at != sessions_.end(); ++at)
        if ((*at)->idle() && (oldest == sessions_.end() || (*at)->lastUse() < (*oldest)->lastUse()))
            oldest = at;
    if (oldest == sessions_.end()) return false;
    sessions_.erase(oldest);
    return true;
}

} // namespace Agent
