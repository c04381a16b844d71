// Makes a netlink socket lose its dumps, as the kernel does where it has no memory for a piece.
#pragma once

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <sys/socket.h>

namespace Agent {

/// From now on the kernel drops all that it has for the socket; without a first piece to take, a
/// dump never goes on.
inline void deafen(int fd) {
    sock_filter drop = BPF_STMT(BPF_RET | BPF_K, 0);
    sock_fprog const program{1, &drop};
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program), 0);
}

} // namespace Agent
