// From SIGHUP to the last group in an upstream bridge's table, with the whole agent in a throw-away
// network: reading the file, the library, the packets and the bridge's learning. Needs root.
#include "agent/AgentProcess.h"
#include "agent/loop/FileDescriptor.h"
#include "netns/Netns.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <libmnl/libmnl.h>
#include <linux/if_bridge.h>
#include <linux/if_ether.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

// Of linux/if_bridge.h, in headers newer than some that this is built with.
constexpr std::uint16_t mdbaGetEntry = 1;

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

constexpr std::uint32_t firstGroup = 0xEF010000; // 239.1.0.0

/// Changes are not repeated while the clock runs, and as many packets leave as may.
std::string head(std::string const& more) {
    return "[interface.up0]\nunsolicited-report-interval = 3600\npackets-per-100-ms = 10000\n" +
           more;
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

[[noreturn]] void fail(std::string const& why) {
    std::fprintf(stderr, "ihproxy_reload_bench: %s\n", why.c_str());
    std::exit(1);
}

double secondsToBridge(std::size_t groups, std::string const& configuration) {
    Testing::Netns const net;
    net.farIp("link set br0 type bridge mcast_hash_max 524288");
    BridgeQuery const bridge(net.farName());
    Testing::Folder const folder;
    folder.write("ihproxyd.toml", head(""));
    Testing::AgentProcess const agent(folder, net.nearName(),
                                      {"--config", folder.file("ihproxyd.toml")});
    if (!agent.says("ready\n")) fail("the agent does not start");
    folder.write("ihproxyd.toml", configuration);
    auto const start = Clock::now();
    auto const elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start); };
    agent.signal(SIGHUP);
    // The agent tells them in ascending order.
    while (!bridge.knows(firstGroup + std::uint32_t(groups) - 1) && elapsed().count() < 20)
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    double const seconds = elapsed().count();
    if (net.bridgeTable().size() != groups) fail("the bridge has not learned all groups");
    return seconds;
}

double medianOfFive(std::size_t groups, std::string const& configuration) {
    std::array<double, 5> seconds;
    for (double& one : seconds) one = secondsToBridge(groups, configuration);
    std::sort(seconds.begin(), seconds.end());
    return seconds[2];
}

} // namespace

int main() {
    std::string const unavailable = Testing::Netns::unavailableReason();
    if (!unavailable.empty()) fail(unavailable);
    std::printf("| milliseconds | one rule | single groups in the file |\n|---|---|---|\n");
    for (std::size_t const groups : {std::size_t(10000), std::size_t(65536)})
        std::printf("| %zu groups | %.0f | %.0f |\n", groups,
                    1e3 * medianOfFive(groups, ruleOver(groups)),
                    1e3 * medianOfFive(groups, singleGroups(groups)));
}
