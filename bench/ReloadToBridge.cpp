// From SIGHUP to the last group in an upstream bridge's table, with the whole agent in a throw-away
// network: reading the file, the library, the packets and the bridge's learning. Needs root.
#include "agent/AgentProcess.h"
#include "netns/Netns.h"

#include "agent/FileDescriptor.h"

#include <benchmark/benchmark.h>
#include <chrono>
#include <libmnl/libmnl.h>
#include <linux/if_bridge.h>
#include <linux/rtnetlink.h>
#include <string>
#include <sys/socket.h>
#include <unordered_set>

namespace {

using Clock = std::chrono::steady_clock;

/// Hears of each group that a bridge of the namespace learns.
class BridgeMonitor {
  public:
    explicit BridgeMonitor(std::string const& namespaceName) {
        Testing::Netns::Inside const inside(namespaceName);
        socket_ = Agent::FileDescriptor(socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE));
        int const group = RTNLGRP_MDB, room = 1 << 30;
        timeval const patience{20, 0};
        setsockopt(socket_.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group);
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }

    /// Waits until this many different groups have been learned; false if they have not.
    bool learned(std::size_t groups) {
        while (groups_.size() < groups) {
            char message[8192];
            ssize_t const length = recv(socket_.get(), message, sizeof message, 0);
            if (length < 0) {
                perror("recv");
                fprintf(stderr, "%zu\n", groups_.size());
                return false;
            }
            auto const* header = reinterpret_cast<nlmsghdr const*>(message);
            for (int left = int(length); mnl_nlmsg_ok(header, left);
                 header = mnl_nlmsg_next(header, &left))
                if (header->nlmsg_type == RTM_NEWMDB) doAdd(*header);
        }
        return true;
    }

  private:
    /// A notification holds one entry, in an attribute in an attribute in an attribute.
    void doAdd(nlmsghdr const& header) {
        void const* at = mnl_nlmsg_get_payload_offset(&header, sizeof(br_port_msg));
        for (int level = 0; level < 3; ++level)
            at = mnl_attr_get_payload(static_cast<nlattr const*>(at));
        groups_.insert(static_cast<br_mdb_entry const*>(at)->addr.u.ip4);
    }

    Agent::FileDescriptor socket_;
    std::unordered_set<std::uint32_t> groups_;
};

/// Changes are not repeated while the clock runs.
std::string head(std::string const& more) {
    return "[interface.up0]\nunsolicited-report-interval = 3600\n" + more;
}

std::string singleGroups(std::size_t groups) {
    std::string text = head("[interface.up0.group]\n");
    for (std::size_t i = 0; i < groups; ++i)
        text += "\"239.1." + std::to_string(i >> 8) + "." + std::to_string(i & 255) +
                "\" = { include = [\"10.1.1.1\"] }\n";
    return text;
}

/// Rules that each permit a power of two of the groups.
std::string ruleOver(std::size_t groups) {
    std::string text = head("large-ranges = true\naccess-lists = [\"iptv\"]\n");
    std::size_t first = 0;
    for (unsigned length = 16; first < groups; ++length) {
        std::size_t const size = std::size_t(1) << (32 - length);
        if (first + size > groups) continue;
        text += "[[access-list.iptv]]\nsequence = " + std::to_string(length) +
                "\naction = \"permit\"\nsource = \"10.1.1.1\"\ndestination = \"239.1." +
                std::to_string(first >> 8) + "." + std::to_string(first & 255) + "/" +
                std::to_string(length) + "\"\n";
        first += size;
    }
    return text;
}

void reloadToBridge(benchmark::State& state, std::string (*configuration)(std::size_t)) {
    auto const groups = std::size_t(state.range(0));
    if (!Testing::Netns::unavailableReason().empty())
        return state.SkipWithError(Testing::Netns::unavailableReason().c_str());
    for (auto unused : state) {
        Testing::Netns const net;
        net.farIp("link set br0 type bridge mcast_hash_max 524288");
        BridgeMonitor monitor(net.farName());
        Testing::Folder const folder;
        folder.write("ihproxyd.toml", head(""));
        Testing::AgentProcess const agent(folder, net.nearName(),
                                          {"--config", folder.file("ihproxyd.toml")});
        if (!agent.says("ready\n")) return state.SkipWithError("the agent does not start");
        folder.write("ihproxyd.toml", configuration(groups));
        auto const start = Clock::now();
        agent.signal(SIGHUP);
        if (!monitor.learned(groups)) return state.SkipWithError("the bridge missed groups");
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
}

#define RELOAD_BENCHMARK(NAME, CONFIGURATION)                                                      \
    BENCHMARK_CAPTURE(reloadToBridge, NAME, CONFIGURATION)                                         \
        ->Arg(10000)                                                                               \
        ->Arg(65536)                                                                               \
        ->Iterations(1)                                                                            \
        ->Repetitions(5)                                                                           \
        ->UseManualTime()                                                                          \
        ->Unit(benchmark::kMillisecond)
RELOAD_BENCHMARK(singleGroups, singleGroups);
RELOAD_BENCHMARK(accessList, ruleOver);

} // namespace
