#include "netns/Netns.h"

#include "agent/loop/Json.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fmt/ranges.h>
#include <net/if.h>
#include <set>
#include <stdexcept>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace Testing {

Ended shell(std::string const& command) {
    std::FILE* const pipe = popen(command.c_str(), "re");
    if (!pipe) throw std::system_error(errno, std::generic_category(), command);
    Ended ended;
    char octets[4096];
    while (auto const length = std::fread(octets, 1, sizeof octets, pipe))
        ended.text.append(octets, length);
    int const end = pclose(pipe);
    ended.status = WIFEXITED(end) ? WEXITSTATUS(end) : -WTERMSIG(end);
    return ended;
}

namespace {

/// The same; throws if it fails.
std::string run(std::string const& command) {
    Ended const ended = shell(command + " 2>&1");
    if (ended.status != 0) throw std::runtime_error(command + ": " + ended.text);
    return ended.text;
}

/// In the form that bridgeTable returns, from an entry of `bridge -d -j mdb show`: a source whose
/// timer has run out is a blocked one.
std::string tableLine(nlohmann::json const& entry) {
    std::string const mode = entry.at("filter_mode");
    std::set<std::string> sources;
    for (auto const& source : entry.value("source_list", nlohmann::json::array()))
        if ((source.at("timer") == "0.00") == (mode == "exclude"))
            sources.insert(source.at("address"));
    return fmt::format("{} {} {}{}{}", entry.at("port").get<std::string>(),
                       entry.at("grp").get<std::string>(), mode, sources.empty() ? "" : " ",
                       fmt::join(sources, ","));
}

} // namespace

Netns::Namespace::Namespace(std::string const& end) {
    // A process that was killed may have left one behind, and its number may be ours now.
    static int count = 0;
    do name = "ihp-" + std::to_string(getpid()) + "-" + std::to_string(++count) + "-" + end;
    while (std::filesystem::exists("/run/netns/" + name));
    run("ip netns add " + name);
}

Netns::Namespace::~Namespace() {
    try {
        run("ip netns del " + name);
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s\n", error.what());
    }
}

std::string const& Netns::unavailableReason() {
    static std::string const reason = []() -> std::string {
        try {
            Netns const network;
            return {};
        } catch (std::exception const& error) {
            return std::string("no network to test in: ") + error.what();
        }
    }();
    return reason;
}

Netns::Netns() {
    farIp("link add br0 type bridge forward_delay 0 "
          "mcast_snooping 1 mcast_querier 1 mcast_igmp_version 3");
    farIp("addr add 10.99.0.1/24 dev br0");
    farIp("link set br0 up");
    nearIp("link set lo up");
    plugInUpstream();
}

std::string Netns::nearIp(std::string const& arguments) const {
    return run("ip -n " + near_.name + " " + arguments);
}

std::string Netns::farIp(std::string const& arguments) const {
    return run("ip -n " + far_.name + " " + arguments);
}

void Netns::addPair(std::string const& namespaceName, std::string const& first,
                    std::string const& second, std::string const& address) {
    std::string const ip = "ip -n " + namespaceName;
    run(ip + " link add " + first + " type veth peer name " + second);
    if (!address.empty()) run(ip + " addr add " + address + " dev " + first);
    for (auto const& each : {first, second}) run(ip + " link set " + each + " up");
}

void Netns::plugInUpstream() const {
    farIp("link add down0 type veth peer name up0 netns " + near_.name);
    farIp("link set down0 master br0 up");
    nearIp("addr add 10.99.0.2/24 dev up0");
    nearIp("link set up0 up");
    nearAwaitUp("up0");
}

void Netns::nearAwaitUp(std::string const& interface) const {
    waitUntil(
        [&] { return nearIp("link show " + interface).find("state UP") != std::string::npos; });
}

std::vector<std::string> Netns::bridgeTable() const {
    auto const shown = nlohmann::json::parse(run("bridge -n " + far_.name + " -d -j mdb show"));
    std::vector<std::string> table;
    for (auto const& entry : shown.at(0).at("mdb")) {
        bool const ipv4 = entry.at("grp").get<std::string>().find(':') == std::string::npos;
        // The line of a group lists its sources, too.
        if (ipv4 && entry.contains("filter_mode") && !entry.contains("src"))
            table.push_back(tableLine(entry));
    }
    std::sort(table.begin(), table.end());
    return table;
}

bool Netns::nearQdisc(std::string const& arguments) const {
    return shell("tc -n " + near_.name + " qdisc " + arguments).status == 0;
}

int Netns::nearIndex(char const* interface) const {
    Inside const inside(near_.name);
    return int(if_nametoindex(interface));
}

bool waitUntil(std::function<bool()> const& condition) {
    for (int left = 1500; left > 0; --left) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

} // namespace Testing
