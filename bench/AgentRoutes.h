// The kernel's multicast routes: from the agent's start until all are told, beside a program that
// only reads them.
#pragma once

#include "AgentWorld.h"

namespace AgentBench {

inline Took ofRoutes(std::string const& program, std::size_t routes) {
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

inline Took ofDump(std::size_t routes) {
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

} // namespace AgentBench
