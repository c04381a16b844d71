// Stream sockets in the file system, for both ends of the control protocol.
#pragma once

#include "agent/loop/FileDescriptor.h"
#include "agent/loop/SystemError.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>

namespace Agent {

/// Where ihproxyd listens and ihproxyctl asks, unless told otherwise.
inline constexpr char defaultControlPath[] = "/run/ihproxyd/control";

/// Throws std::system_error with ENAMETOOLONG for a path that does not fit.
inline sockaddr_un unixAddress(std::string const& path) {
    sockaddr_un address{};
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        errnoThrow(path.c_str());
    }
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    return address;
}

inline FileDescriptor unixSocket(int flags = 0) {
    return FileDescriptor(checked(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0),
                                  "a socket in the file system"));
}

/// Whether it could connect; errno tells why not.
inline bool unixConnect(FileDescriptor const& fd, std::string const& path) {
    sockaddr_un const address = unixAddress(path);
    return connect(fd.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
}

} // namespace Agent
