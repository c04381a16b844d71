// The networks that the agent is measured in, and what is measured of it there: packets, the
// bridge's table, time of the processor.
#pragma once

#include "agent/Process.h"
#include "agent/kernel/MulticastRouter.h"
#include "agent/loop/FileDescriptor.h"
#include "netns/Netns.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <libmnl/libmnl.h>
#include <linux/if_bridge.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/rtnetlink.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <time.h>
#include <vector>

namespace AgentBench {

[[noreturn]] inline void fail(std::string const& why) {
    std::fprintf(stderr, "ihproxy_agent_bench: %s\n", why.c_str());
    std::exit(1);
}

using Clock = std::chrono::steady_clock;

// Of linux/if_bridge.h, in headers newer than some that this is built with.
inline constexpr std::uint16_t mdbaGetEntry = 1;

/// Asks the bridge of a namespace about single groups. Following its notifications instead would
/// double what learning costs it.
class BridgeQuery {
  public:
    explicit BridgeQuery(std::string const& namespaceName) {
        Testing::Netns::Inside const inside(namespaceName);
        socket_ = Agent::FileDescriptor(socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE));
        ifindex_ = if_nametoindex("br0");
    }

    bool knows(std::uint32_t group) const {
        char buffer[8192];
        nlmsghdr* const request = mnl_nlmsg_put_header(buffer);
        request->nlmsg_type = RTM_GETMDB;
        request->nlmsg_flags = NLM_F_REQUEST;
        auto* const port =
            static_cast<br_port_msg*>(mnl_nlmsg_put_extra_header(request, sizeof(br_port_msg)));
        port->family = AF_BRIDGE;
        port->ifindex = ifindex_;
        br_mdb_entry entry{};
        entry.addr.u.ip4 = htonl(group);
        entry.addr.proto = htons(ETH_P_IP);
        mnl_attr_put(request, mdbaGetEntry, sizeof entry, &entry);
        send(socket_.get(), request, request->nlmsg_len, 0);
        ssize_t const length = recv(socket_.get(), buffer, sizeof buffer, 0);
        return length > 0 && reinterpret_cast<nlmsghdr*>(buffer)->nlmsg_type == RTM_NEWMDB;
    }

  private:
    Agent::FileDescriptor socket_;
    std::uint32_t ifindex_;
};

inline constexpr std::uint32_t firstGroup = 0xEF010000; // 239.1.0.0

using Frames = std::vector<std::vector<std::uint8_t>>;

/// A packet socket on an interface of the namespace.
inline Agent::FileDescriptor packetSocket(std::string const& namespaceName, char const* interface) {
    Testing::Netns::Inside const inside(namespaceName);
    Agent::FileDescriptor opened(socket(AF_PACKET, SOCK_RAW, 0));
    int const on = 1, room = 64 << 20;
    setsockopt(opened.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on);
    setsockopt(opened.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = int(if_nametoindex(interface));
    if (bind(opened.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        fail("no packet socket");
    timespec none{};
    ioctl(opened.get(), SIOCGSTAMPNS, &none); // from now on, packets are stamped
    return opened;
}

/// The frames with IGMP that wait in the socket, and when the first one came.
struct Received {
    Frames frames;
    std::chrono::system_clock::time_point first;
};
inline Received received(Agent::FileDescriptor const& socket) {
    Received all;
    std::vector<std::uint8_t> frame(65536);
    for (ssize_t n; (n = recv(socket.get(), frame.data(), frame.size(), MSG_DONTWAIT)) > 0;) {
        if (n <= 24 || frame[12] != 8 || frame[13] != 0 || frame[23] != IPPROTO_IGMP) continue;
        timespec came{};
        if (all.frames.empty() && ioctl(socket.get(), SIOCGSTAMPNS, &came) == 0)
            all.first += std::chrono::seconds(came.tv_sec) + std::chrono::nanoseconds(came.tv_nsec);
        all.frames.emplace_back(frame.begin(), frame.begin() + n);
    }
    return all;
}

/// Seconds of the processor, to the first report where that is asked, and by the wall clock.
struct Took {
    double processor = 0, first = 0, wall = 0;
};

/// Of the calling thread.
inline double processorSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + 1e-9 * double(now.tv_nsec);
}
/// Of all threads that another process has now.
inline double processorSeconds(pid_t process) {
    double nanoseconds = 0;
    for (auto const& thread :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        double of = 0;
        std::ifstream(thread.path() / "schedstat") >> of;
        nanoseconds += of;
    }
    return 1e-9 * nanoseconds;
}

/// A network whose bridge takes so many groups, and waits for the last of them.
class World : public Testing::Netns {
  public:
    World() { farIp("link set br0 type bridge mcast_hash_max 524288"); }
    /// From the beginning of `begin` until the bridge knows all groups, in whatever order they are
    /// told: one in 64 is asked for, and the last.
    double secondsToLast(std::size_t groups, std::function<void()> const& begin) const {
        auto const start = Clock::now();
        auto const elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start); };
        begin();
        for (std::size_t asked = 0; asked < groups && elapsed().count() < 20;)
            if (!bridge_.knows(firstGroup + std::uint32_t(asked)))
                std::this_thread::sleep_for(std::chrono::microseconds(500));
            else if (asked + 64 < groups || asked + 1 == groups)
                asked += 64;
            else
                asked = groups - 1;
        double const seconds = elapsed().count();
        if (bridgeTable().size() != groups) fail("the bridge has not learned all groups");
        return seconds;
    }

  private:
    BridgeQuery bridge_{farName()};
};

/// A network whose kernel has that many routes, and a bridge that does not learn.
class RoutedWorld : public Testing::Netns {
  public:
    explicit RoutedWorld(std::size_t routes) {
        farIp("link set br0 type bridge mcast_snooping 0");
        for (std::size_t i = 0; i < routes; ++i)
            router_.addRoute(Lox::IpAddr("10.1.1.1"),
                             Lox::IpAddr::fromHost(firstGroup + std::uint32_t(i)), 0, {});
    }

  private:
    Agent::MulticastRouter router_{*this, {"up0"}};
};

/// As many packets leave as may.
inline std::string head(std::string const& more) {
    return "[interface.up0]\npackets-per-100-ms = 10000\n" + more;
}
/// Changes are not repeated while the clock runs.
inline std::string const once = "unsolicited-report-interval = 3600\n";

/// The command that runs an agent with the files of a folder.
inline std::vector<std::string> commandOf(std::string const& program,
                                          Testing::Folder const& folder) {
    return {program, "--config", folder.file("ihproxyd.toml"), "--control", folder.file("control")};
}

/// An agent that is ready, in a network.
struct Running {
    /// By this configuration, which it reads again from `folder`.
    Running(std::string const& program, Testing::Netns const& network,
            std::string const& configuration) {
        folder.write("ihproxyd.toml", configuration);
        process.emplace(folder, network.nearName(), commandOf(program, folder));
        if (!process->says("ready\n")) fail("the agent does not start");
    }
    double processorSeconds() const { return AgentBench::processorSeconds(process->pid()); }

    Testing::Folder folder;
    std::optional<Testing::Process> process;
};

} // namespace AgentBench
