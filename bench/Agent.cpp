// The whole agent in a throw-away network. From SIGHUP to the last group in
// an upstream bridge's table: reading the file, the library, the packets and the bridge's learning.
// Beside it what a program needs that sends the same packets and does nothing else, and what the
// kernel does that is asked to join the same groups. The kernel's multicast routes: from the
// agent's start until all are told, beside a program that only reads them. And how often the agent
// wakes up at rest. Another build of the agent may be named. Needs root.
#include "agent/Process.h"
#include "agent/kernel/MulticastRouter.h"
#include "agent/loop/FileDescriptor.h"
#include "netns/Netns.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <libmnl/libmnl.h>
#include <linux/if_bridge.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/rtnetlink.h>
#include <map>
#include <net/if.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <time.h>
#include <vector>

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
    std::fprintf(stderr, "ihproxy_agent_bench: %s\n", why.c_str());
    std::exit(1);
}

using Frames = std::vector<std::vector<std::uint8_t>>;

/// A packet socket on an interface of the namespace.
Agent::FileDescriptor packetSocket(std::string const& namespaceName, char const* interface) {
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
    return opened;
}

/// The frames with IGMP that wait in the socket.
Frames received(Agent::FileDescriptor const& socket) {
    Frames frames;
    std::vector<std::uint8_t> frame(65536);
    for (ssize_t n; (n = recv(socket.get(), frame.data(), frame.size(), MSG_DONTWAIT)) > 0;)
        if (n > 24 && frame[12] == 8 && frame[13] == 0 && frame[23] == IPPROTO_IGMP)
            frames.emplace_back(frame.begin(), frame.begin() + n);
    return frames;
}

/// Seconds by the wall clock and of the processor.
struct Took {
    double wall, processor;
};

/// Of the calling thread.
double processorSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + 1e-9 * double(now.tv_nsec);
}
/// Of all threads that another process has now.
double processorSeconds(pid_t process) {
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

std::string agentProgram = IHPROXYD;

/// The command that runs the agent with the files of a folder.
std::vector<std::string> agentIn(Testing::Folder const& folder) {
    return {agentProgram, "--config", folder.file("ihproxyd.toml"), "--control",
            folder.file("control")};
}

/// What the agent sends goes to `sent`.
Took ofAgent(std::size_t groups, std::string const& configuration, Frames& sent) {
    World const world;
    Testing::Folder const folder;
    folder.write("ihproxyd.toml", head(""));
    Testing::Process const agent(folder, world.nearName(), agentIn(folder));
    if (!agent.says("ready\n")) fail("the agent does not start");
    folder.write("ihproxyd.toml", configuration);
    auto const wire = packetSocket(world.farName(), "down0");
    double const before = processorSeconds(agent.pid());
    double const wall = world.secondsToLast(groups, [&] { agent.signal(SIGHUP); });
    sent = received(wire);
    return {wall, processorSeconds(agent.pid()) - before};
}

/// By a thread that does just that.
Took inThread(std::size_t groups, World const& world, std::function<void()> const& perform) {
    Took took{};
    std::thread thread;
    took.wall = world.secondsToLast(groups, [&] {
        thread = std::thread([&] {
            perform();
            took.processor = processorSeconds();
        });
    });
    thread.join();
    return took;
}

Took ofSender(std::size_t groups, Frames const& frames) {
    World const world;
    auto const wire = packetSocket(world.nearName(), "up0");
    return inThread(groups, world, [&] {
        for (auto const& frame : frames)
            while (send(wire.get(), frame.data(), frame.size(), 0) < 0) std::this_thread::yield();
    });
}

/// Each socket has a list of its groups, which the kernel searches: as many as a careful program
/// would give it.
Took ofKernel(std::size_t groups) {
    constexpr std::size_t groupsOfSocket = 128;
    World const world;
    std::vector<Agent::FileDescriptor> sockets;
    return inThread(groups, world, [&] {
        Testing::Netns::Inside const inside(world.nearName());
        std::string const settings = "/proc/sys/net/ipv4/";
        std::ofstream(settings + "igmp_max_memberships") << groupsOfSocket;
        std::ofstream(settings + "conf/up0/igmpv3_unsolicited_report_interval") << 1;
        for (std::size_t i = 0; i < groups; ++i) {
            if (i % groupsOfSocket == 0) sockets.emplace_back(socket(AF_INET, SOCK_DGRAM, 0));
            ip_mreq_source request{};
            request.imr_multiaddr.s_addr = htonl(firstGroup + std::uint32_t(i));
            request.imr_interface.s_addr = htonl(0x0A630002); // of up0
            request.imr_sourceaddr.s_addr = htonl(0x0A010101);
            if (setsockopt(sockets.back().get(), IPPROTO_IP, IP_ADD_SOURCE_MEMBERSHIP, &request,
                           sizeof request) != 0)
                fail("the kernel refuses a group");
        }
    });
}

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

Took ofRoutes(std::size_t routes) {
    RoutedWorld const world(routes);
    auto const wire = packetSocket(world.farName(), "down0");
    Testing::Folder const folder;
    folder.write("ihproxyd.toml", head("[forwarding-table]\nrequire-output = false\n"));
    auto const start = Clock::now();
    Testing::Process const agent(folder, world.nearName(), agentIn(folder));
    std::chrono::duration<double> wall{};
    for (std::size_t told = 0; told < routes; wall = Clock::now() - start) {
        std::this_thread::sleep_for(std::chrono::microseconds(500));
        // Behind the headers of Ethernet and IP, 38 octets, a report has its records' number at 6.
        for (auto const& frame : received(wire))
            if (frame[38] == 0x22) told += frame[44] * 256u + frame[45];
        if (wall.count() > 20) fail("the agent does not tell all routes");
    }
    return {wall.count(), processorSeconds(agent.pid())};
}

Took ofDump(std::size_t routes) {
    RoutedWorld const world(routes);
    Testing::Netns::Inside const inside(world.nearName());
    Agent::FileDescriptor const kernel(socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE));
    std::vector<char> buffer(65536);
    nlmsghdr* const request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = RTM_GETROUTE;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    auto* const route = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
    route->rtm_family = RTNL_FAMILY_IPMR;
    auto const start = Clock::now();
    double const before = processorSeconds();
    send(kernel.get(), request, request->nlmsg_len, 0);
    for (bool more = true; more;) {
        ssize_t const length = recv(kernel.get(), buffer.data(), buffer.size(), 0);
        auto const* const first = reinterpret_cast<nlmsghdr const*>(buffer.data());
        more = length > 0 && first->nlmsg_type == RTM_NEWROUTE;
    }
    std::chrono::duration<double> const wall = Clock::now() - start;
    return {wall.count(), processorSeconds() - before};
}

/// How often an agent with that many groups wakes up in a second, once all is told and nobody asks.
double wakeUpsAtRest(std::size_t groups) {
    constexpr int seconds = 30;
    World const world;
    world.farIp("link set br0 type bridge mcast_querier 0");
    Testing::Folder const folder;
    folder.write("ihproxyd.toml", ruleOver(groups));
    std::optional<Testing::Process> agent;
    world.secondsToLast(groups, [&] { agent.emplace(folder, world.nearName(), agentIn(folder)); });
    auto const wakeUps = [&] { return agent->statusField("voluntary_ctxt_switches", 10); };
    std::this_thread::sleep_for(std::chrono::seconds(5));
    auto const before = wakeUps();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    return double(wakeUps() - before) / seconds;
}

/// The medians of five.
Took ofFive(std::function<Took()> const& measure) {
    std::array<double, 5> wall, processor;
    for (std::size_t i = 0; i < wall.size(); ++i) {
        Took const took = measure();
        wall[i] = took.wall;
        processor[i] = took.processor;
    }
    std::sort(wall.begin(), wall.end());
    std::sort(processor.begin(), processor.end());
    return {wall[2], processor[2]};
}

} // namespace

int main(int count, char** arguments) {
    if (count > 2) fail("usage: ihproxy_agent_bench [AGENT]");
    if (count > 1) agentProgram = arguments[1];
    std::string const unavailable = Testing::Netns::unavailableReason();
    if (!unavailable.empty()) fail(unavailable);
    std::map<std::size_t, Frames> sent; // by the agent, of so many groups
    auto const titles = [](char const* what) {
        std::printf("| milliseconds %s | 10,000: processor | wall clock | 65,536: processor | wall "
                    "clock |\n|---|---|---|---|---|\n",
                    what);
    };
    auto const row = [&](char const* name, auto measure) {
        std::printf("| %s |", name);
        for (std::size_t const groups : {std::size_t(10000), std::size_t(65536)}) {
            Took const took = ofFive([&] { return measure(groups); });
            std::printf(" %.0f | %.0f |", 1e3 * took.processor, 1e3 * took.wall);
            std::fflush(stdout);
        }
        std::printf("\n");
    };
    titles("until the bridge knows all groups");
    row("agent, one rule",
        [&](std::size_t groups) { return ofAgent(groups, ruleOver(groups), sent[groups]); });
    row("agent, single groups",
        [&](std::size_t groups) { return ofAgent(groups, singleGroups(groups), sent[groups]); });
    row("bare sender of the same packets",
        [&](std::size_t groups) { return ofSender(groups, sent[groups]); });
    row("the kernel's own joins", ofKernel);
    std::printf("\n");
    titles("until all routes of the kernel are told");
    row("agent, from its start", ofRoutes);
    row("bare dump", ofDump);
    std::printf("\nat rest with 65,536 groups: %.2f wake-ups a second\n", wakeUpsAtRest(65536));
}
