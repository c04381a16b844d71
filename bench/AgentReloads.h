// From SIGHUP to the first report, and to the last group in an upstream bridge's table: reading the
// file, the library, the packets and the bridge's learning. Beside it what a program needs that
// sends the same packets and does nothing else, and what the kernel does that is asked to join the
// groups.
#pragma once

#include "AgentWorld.h"

#include <sys/resource.h>

namespace AgentBench {

inline std::string singleGroups(std::size_t groups, std::string const& more = once) {
    std::string text = head(more + "[interface.up0.group]\n");
    for (std::size_t i = 0; i < groups; ++i)
        text += "\"239.1." + std::to_string(i >> 8) + "." + std::to_string(i & 255) +
                "\" = { include = [\"10.1.1.1\"] }\n";
    return text;
}

/// Rules that each permit a power of two of the groups.
inline std::string ruleOver(std::size_t groups, std::string const& more = once) {
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

/// What the agent sends goes to `sent`.
inline Took ofAgent(std::string const& program, std::size_t groups,
                    std::string const& configuration, Frames& sent) {
    World const world;
    Running const agent(program, world, head(once));
    agent.folder.write("ihproxyd.toml", configuration);
    auto const wire = packetSocket(world.farName(), "down0");
    double const before = agent.processorSeconds();
    auto const start = std::chrono::system_clock::now();
    double const wall = world.secondsToLast(groups, [&] { agent.process->signal(SIGHUP); });
    Received all = received(wire);
    sent = std::move(all.frames);
    std::chrono::duration<double> const first = all.first - start;
    return {agent.processorSeconds() - before, first.count(), wall};
}

/// Of reading a file, by the agent's own check of it.
inline Took ofCheck(std::string const& program, std::string const& configuration) {
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
inline Took inThread(std::size_t groups, World const& world, std::function<void()> const& perform) {
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

inline Took ofSender(std::size_t groups, Frames const& frames) {
    World const world;
    auto const wire = packetSocket(world.nearName(), "up0");
    return inThread(groups, world, [&] {
        for (auto const& frame : frames)
            while (send(wire.get(), frame.data(), frame.size(), 0) < 0) std::this_thread::yield();
    });
}

/// Each socket has a list of its groups, which the kernel searches: as many as a careful program
/// would give it.
inline Took ofKernel(std::size_t groups) {
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

} // namespace AgentBench
