// What an agent costs that has much to look after and little to do: at rest, and with one interface
// out of many that changes.
#pragma once

#include "AgentWorld.h"

namespace AgentBench {

/// An agent with so many groups, once all is told and nobody asks.
struct Rest {
    double wakeUps; ///< a second
    double octets;  ///< of memory, but for what programs share
};
inline Rest atRest(std::string const& program, std::size_t groups,
                   std::string const& configuration) {
    constexpr int seconds = 30;
    World const world;
    world.farIp("link set br0 type bridge mcast_querier 0");
    Running const agent(program, world, configuration);
    world.secondsToLast(groups, [] {});
    auto const wakeUps = [&] { return agent.process->statusField("voluntary_ctxt_switches", 10); };
    std::this_thread::sleep_for(std::chrono::seconds(5));
    auto const before = wakeUps();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    return {double(wakeUps() - before) / seconds,
            1024. * double(agent.process->statusField("RssAnon", 10))};
}

/// What one interface out of so many costs the agent that follows them all, in milliseconds of the
/// processor.
struct Single {
    double address, downAndUp, goneAndBack;
};
inline Single ofInterfaces(std::string const& program, std::size_t interfaces) {
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
    Running const agent(program, world, "[interface.\"p*\".group.\"239.1.1.1\"]\n");
    auto const settled = [&] {
        double used = agent.processorSeconds(), last;
        do {
            last = used;
            std::this_thread::sleep_for(std::chrono::seconds(3));
            used = agent.processorSeconds();
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

} // namespace AgentBench
