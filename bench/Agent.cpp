// The whole agent in a throw-away network. From SIGHUP to the first report, and to the last group
// in an upstream bridge's table: reading the file, the library, the packets and the bridge's
// learning. Beside it what a program needs that sends the same packets and does nothing else, and
// what the kernel does that is asked to join the same groups. The kernel's multicast routes: from
// the agent's start until all are told, beside a program that only reads them. One interface out of
// many that changes. And at rest, how often it wakes up, and its memory. Several builds of the
// agent may be named, which take turns. Needs root.
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
#include <linux/sockios.h>
#include <map>
#include <net/if.h>
#include <netinet/in.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/resource.h>
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

/// As many packets leave as may.
std::string head(std::string const& more) {
    return "[interface.up0]\npackets-per-100-ms = 10000\n" + more;
}
/// Changes are not repeated while the clock runs.
std::string const once = "unsolicited-report-interval = 3600\n";

std::string singleGroups(std::size_t groups, std::string const& more = once) {
    std::string text = head(more + "[interface.up0.group]\n");
    for (std::size_t i = 0; i < groups; ++i)
        text += "\"239.1." + std::to_string(i >> 8) + "." + std::to_string(i & 255) +
                "\" = { include = [\"10.1.1.1\"] }\n";
    return text;
}

/// Rules that each permit a power of two of the groups.
std::string ruleOver(std::size_t groups, std::string const& more = once) {
    std::string text = head(more + "large-ranges = true\naccess-lists = [\"iptv\"]\n");
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
    timespec none{};
    ioctl(opened.get(), SIOCGSTAMPNS, &none); // from now on, packets are stamped
    return opened;
}

/// The frames with IGMP that wait in the socket, and when the first one came.
struct Received {
    Frames frames;
    std::chrono::system_clock::time_point first;
};
Received received(Agent::FileDescriptor const& socket) {
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

/// The command that runs an agent with the files of a folder.
std::vector<std::string> commandOf(std::string const& program, Testing::Folder const& folder) {
    return {program, "--config", folder.file("ihproxyd.toml"), "--control", folder.file("control")};
}

/// What the agent sends goes to `sent`.
Took ofAgent(std::string const& program, std::size_t groups, std::string const& configuration,
             Frames& sent) {
    World const world;
    Testing::Folder const folder;
    folder.write("ihproxyd.toml", head(once));
    Testing::Process const agent(folder, world.nearName(), commandOf(program, folder));
    if (!agent.says("ready\n")) fail("the agent does not start");
    folder.write("ihproxyd.toml", configuration);
    auto const wire = packetSocket(world.farName(), "down0");
    double const before = processorSeconds(agent.pid());
    auto const start = std::chrono::system_clock::now();
    double const wall = world.secondsToLast(groups, [&] { agent.signal(SIGHUP); });
    Received all = received(wire);
    sent = std::move(all.frames);
    std::chrono::duration<double> const first = all.first - start;
    return {processorSeconds(agent.pid()) - before, first.count(), wall};
}

/// Of reading a file, by the agent's own check of it.
Took ofCheck(std::string const& program, std::string const& configuration) {
    Testing::Folder const folder;
    folder.write("ihproxyd.toml", configuration);
    rusage before{}, after{};
    getrusage(RUSAGE_CHILDREN, &before);
    auto const start = Clock::now();
    if (Testing::shell(program + " --check " + folder.file("ihproxyd.toml")).status != 0)
        fail("the file is not good");
    std::chrono::duration<double> const wall = Clock::now() - start;
    getrusage(RUSAGE_CHILDREN, &after);
    auto const seconds = [](rusage const& all) {
        return double(all.ru_utime.tv_sec + all.ru_stime.tv_sec) +
               1e-6 * double(all.ru_utime.tv_usec + all.ru_stime.tv_usec);
    };
    return {seconds(after) - seconds(before), 0, wall.count()};
}

/// By a thread that does just that.
Took inThread(std::size_t groups, World const& world, std::function<void()> const& perform) {
    Took took;
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

Took ofRoutes(std::string const& program, std::size_t routes) {
    RoutedWorld const world(routes);
    auto const wire = packetSocket(world.farName(), "down0");
    Testing::Folder const folder;
    folder.write("ihproxyd.toml", head("[forwarding-table]\nrequire-output = false\n"));
    auto const start = Clock::now();
    Testing::Process const agent(folder, world.nearName(), commandOf(program, folder));
    std::chrono::duration<double> wall{};
    for (std::size_t told = 0; told < routes; wall = Clock::now() - start) {
        std::this_thread::sleep_for(std::chrono::microseconds(500));
        // Behind the headers of Ethernet and IP, 38 octets, a report has its records' number at 6.
        for (auto const& frame : received(wire).frames)
            if (frame[38] == 0x22) told += frame[44] * 256u + frame[45];
        if (wall.count() > 20) fail("the agent does not tell all routes");
    }
    return {processorSeconds(agent.pid()), 0, wall.count()};
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
    return {processorSeconds() - before, 0, wall.count()};
}

/// An agent with so many groups, once all is told and nobody asks.
struct Rest {
    double wakeUps; ///< a second
    double octets;  ///< of memory, but for what programs share
};
Rest atRest(std::string const& program, std::size_t groups, std::string const& configuration) {
    constexpr int seconds = 30;
    World const world;
    world.farIp("link set br0 type bridge mcast_querier 0");
    Testing::Folder const folder;
    folder.write("ihproxyd.toml", configuration);
    Testing::Process const agent(folder, world.nearName(), commandOf(program, folder));
    if (!agent.says("ready\n")) fail("the agent does not start");
    world.secondsToLast(groups, [] {});
    auto const wakeUps = [&] { return agent.statusField("voluntary_ctxt_switches", 10); };
    std::this_thread::sleep_for(std::chrono::seconds(5));
    auto const before = wakeUps();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    return {double(wakeUps() - before) / seconds, 1024. * double(agent.statusField("RssAnon", 10))};
}

/// What one interface out of so many costs the agent that follows them all, in milliseconds of the
/// processor.
struct Single {
    double address, downAndUp, goneAndBack;
};
Single ofInterfaces(std::string const& program, std::size_t interfaces) {
    World const world;
    Testing::Folder const folder;
    auto const perform = [&](std::string const& commands) {
        folder.write("batch", commands);
        world.nearIp("-batch " + folder.file("batch"));
    };
    auto const pair = [](std::size_t at) {
        std::string const one = "p" + std::to_string(at);
        std::string const other = at > 0 ? "p" + std::to_string(at + 1) : "other";
        std::string const rest = std::to_string(at / 256) + "." + std::to_string(at % 256);
        return "link add " + one + " type veth peer name " + other + "\naddr add 10.100." + rest +
               "/32 dev " + one + "\naddr add 10.101." + rest + "/32 dev " + other + "\nlink set " +
               one + " up\nlink set " + other + " up\n";
    };
    {
        Testing::Netns::Inside const inside(world.nearName());
        std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << 1;
    }
    std::string all;
    for (std::size_t at = 0; at < interfaces; at += 2) all += pair(at);
    perform(all);
    folder.write("ihproxyd.toml", "[interface.\"p*\".group.\"239.1.1.1\"]\n");
    Testing::Process const agent(folder, world.nearName(), commandOf(program, folder));
    if (!agent.says("ready\n")) fail("the agent does not start");
    auto const settled = [&] {
        double used = processorSeconds(agent.pid()), last;
        do {
            last = used;
            std::this_thread::sleep_for(std::chrono::seconds(3));
            used = processorSeconds(agent.pid());
        } while (used - last > 0.001);
        return used;
    };
    auto const cost = [&](std::function<std::string(int)> const& commands) {
        constexpr int times = 200;
        double const before = settled();
        for (int at = 0; at < times; ++at) perform(commands(at));
        return 1e3 * (settled() - before) / times;
    };
    return {cost([](int at) {
                return "link set p0 address 02:00:00:00:" + std::to_string(10 + at / 80) + ":" +
                       std::to_string(10 + at % 80) + "\n";
            }),
            cost([](int) { return "link set p0 down\nlink set p0 up\n"; }),
            cost([&](int) { return "link del p0\n" + pair(0); })};
}

struct Row {
    std::string name;
    std::function<Took(std::size_t)> measure; ///< with so many groups
};
/// The medians of five, all rows in turns.
void printTable(char const* until, std::vector<Row> const& rows) {
    constexpr std::size_t sizes[] = {10000, 65536};
    std::vector<std::array<std::array<Took, 5>, 2>> taken(rows.size());
    for (std::size_t round = 0; round < 5; ++round)
        for (std::size_t row = 0; row < rows.size(); ++row)
            for (std::size_t size : {0u, 1u})
                taken[row][size][round] = rows[row].measure(sizes[size]);
    std::printf("| milliseconds until %s | 10,000: processor | first report | wall clock | 65,536: "
                "processor | first report | wall clock |\n|---|---|---|---|---|---|---|\n",
                until);
    for (std::size_t row = 0; row < rows.size(); ++row) {
        std::printf("| %s |", rows[row].name.c_str());
        for (auto& all : taken[row])
            for (double Took::*figure : {&Took::processor, &Took::first, &Took::wall}) {
                std::sort(all.begin(), all.end(),
                          [&](Took const& a, Took const& b) { return a.*figure < b.*figure; });
                if (all[2].*figure > 0)
                    std::printf(" %.0f |", 1e3 * all[2].*figure);
                else
                    std::printf(" |");
            }
        std::printf("\n");
    }
    std::printf("\n");
    std::fflush(stdout);
}

} // namespace

int main(int count, char** arguments) try {
    std::string const unavailable = Testing::Netns::unavailableReason();
    if (!unavailable.empty()) fail(unavailable);
    std::vector<std::string> programs(arguments + 1, arguments + count);
    if (programs.empty()) programs = {IHPROXYD};
    for (std::string const& program : programs)
        if (access(program.c_str(), X_OK) != 0)
            fail(program + " is no program; usage: ihproxy_agent_bench [AGENT...]");

    std::map<std::size_t, Frames> sent; // by the agent, of so many groups
    std::vector<Row> reloads, starts;
    for (std::string const& program : programs) {
        auto const row = [&](char const* name, auto measure) {
            return Row{program + ": " + name, measure};
        };
        reloads.push_back(row("one rule", [&](std::size_t groups) {
            return ofAgent(program, groups, ruleOver(groups), sent[groups]);
        }));
        reloads.push_back(row("single groups", [&](std::size_t groups) {
            return ofAgent(program, groups, singleGroups(groups), sent[groups]);
        }));
        reloads.push_back(row("reading those of the file alone", [&](std::size_t groups) {
            return ofCheck(program, singleGroups(groups));
        }));
        starts.push_back(
            row("from its start", [&](std::size_t routes) { return ofRoutes(program, routes); }));
    }
    reloads.push_back({"bare sender of the same packets",
                       [&](std::size_t groups) { return ofSender(groups, sent[groups]); }});
    reloads.push_back({"the kernel's own joins", ofKernel});
    starts.push_back({"bare dump", ofDump});
    printTable("the bridge knows all groups", reloads);
    printTable("all routes of the kernel are told", starts);

    std::printf("| milliseconds of the processor for one interface out of |  | new MAC address | "
                "down and up | gone and back |\n|---|---|---|---|---|\n");
    for (std::size_t const interfaces : {10u, 100u, 1000u, 10000u}) {
        Single const one = ofInterfaces(programs.front(), interfaces);
        std::printf("| %s | %zu | %.2f | %.2f | %.2f |\n", programs.front().c_str(), interfaces,
                    one.address, one.downAndUp, one.goneAndBack);
        std::fflush(stdout);
    }

    constexpr std::size_t many = 65536;
    std::printf("\n| at rest with 65,536 groups | wake-ups a second | octets a group |\n"
                "|---|---|---|\n");
    for (std::string const& program : programs) {
        double const alone = atRest(program, 0, head("")).octets;
        for (auto const& [name, configuration] :
             {std::pair("one rule", ruleOver(many, "")),
              std::pair("single groups", singleGroups(many, ""))}) {
            Rest const rest = atRest(program, many, configuration);
            std::printf("| %s: %s | %.2f | %.0f |\n", program.c_str(), name, rest.wakeUps,
                        (rest.octets - alone) / double(many));
            std::fflush(stdout);
        }
    }
} catch (std::exception const& error) {
    fail(error.what());
}
