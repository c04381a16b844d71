#include "netns/Netns.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace Testing {
namespace {

/// Runs a shell command and returns what it wrote. Throws if it fails.
std::string run(std::string const& command) {
    std::FILE* const pipe = popen((command + " 2>&1").c_str(), "re");
    if (!pipe) throw std::system_error(errno, std::generic_category(), command);
    std::string output;
    std::array<char, 4096> buffer;
    while (auto const length = std::fread(buffer.data(), 1, buffer.size(), pipe))
        output.append(buffer.data(), length);
    if (pclose(pipe) != 0) throw std::runtime_error(command + ": " + output);
    return output;
}

/// A process that was killed may have left one behind, and its number may be ours now.
std::string uniqueName(std::string const& end) {
    static int count = 0;
    std::string name;
    do name = "ihp-" + std::to_string(getpid()) + "-" + std::to_string(++count) + "-" + end;
    while (std::filesystem::exists("/run/netns/" + name));
    return name;
}

std::vector<std::string> split(std::string const& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
    return parts;
}

/// From "192.0.2.2/259.70,192.0.2.9/0.00": a source whose timer has run out is a blocked one.
std::string sourcesOf(std::string const& sourceList, bool blocked) {
    std::vector<std::string> sources;
    for (auto const& entry : split(sourceList, ',')) {
        auto const slash = entry.find('/');
        if ((entry.substr(slash + 1) == "0.00") == blocked)
            sources.push_back(entry.substr(0, slash));
    }
    std::sort(sources.begin(), sources.end());
    std::string text;
    for (auto const& source : sources) text += (text.empty() ? " " : ",") + source;
    return text;
}

/// One line of `bridge -d mdb show` in the form that bridgeTable returns; empty for IPv6, and for
/// the forwarding entries of single sources, which the line of their group lists again.
std::string tableLine(std::string const& line) {
    std::istringstream words(line);
    std::string port, group, mode, sourceList;
    for (std::string word; words >> word;) {
        if (word == "src") return {};
        if (word == "port") words >> port;
        if (word == "grp") words >> group;
        if (word == "filter_mode") words >> mode;
        if (word == "source_list") words >> sourceList;
    }
    if (mode.empty() || group.find(':') != std::string::npos) return {};
    return port + " " + group + " " + mode + sourcesOf(sourceList, mode == "exclude");
}

std::string probe() {
    try {
        Netns const network;
        return {};
    } catch (std::exception const& error) {
        return std::string("no network to test in: ") + error.what();
    }
}

int openFile(std::string const& path) {
    int const descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), path);
    return descriptor;
}

} // namespace

Netns::Namespace::Namespace(std::string const& end) : name(uniqueName(end)) {
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
    static std::string const reason = probe();
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

void Netns::setCarrier(bool present) const {
    farIp(present ? "link set down0 up" : "link set down0 down");
}

void Netns::unplugUpstream() const { nearIp("link del up0"); }

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

void Netns::removeNear() const { run("ip netns del " + near_.name); }

void Netns::addNear() const {
    run("ip netns add " + near_.name);
    nearIp("link set lo up");
    plugInUpstream();
}

std::vector<std::string> Netns::bridgeTable() const {
    std::vector<std::string> table;
    for (auto const& line : split(run("bridge -n " + far_.name + " -d mdb show"), '\n'))
        if (auto entry = tableLine(line); !entry.empty()) table.push_back(std::move(entry));
    std::sort(table.begin(), table.end());
    return table;
}

Netns::Inside::Inside(std::string const& namespaceName)
    : outside_(openFile("/proc/thread-self/ns/net")) {
    int const inside = openFile("/run/netns/" + namespaceName);
    int const result = setns(inside, CLONE_NEWNET);
    close(inside);
    if (result != 0) throw std::system_error(errno, std::generic_category(), namespaceName);
}

Netns::Inside::~Inside() {
    // A thread that cannot return would run every later test in the wrong network.
    if (setns(outside_, CLONE_NEWNET) != 0) std::abort();
    close(outside_);
}

bool waitUntil(std::function<bool()> const& condition) {
    for (int left = 1500; left > 0; --left) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

} // namespace Testing
