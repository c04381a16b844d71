// What an operator does to the running agent: files, signals, and what it says in return.
#include "agent/AgentFixture.h"
#include "agent/control/UnixSocket.h"

#include <linux/capability.h>

namespace Testing {
namespace {

/// The service manager's end of the notifications.
class ServiceSocket {
  public:
    explicit ServiceSocket(std::string const& path) {
        sockaddr_un const address = Agent::unixAddress(path);
        if (bind(socket_.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0)
            throw std::system_error(errno, std::generic_category(), path);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~ServiceSocket() { unsetenv("NOTIFY_SOCKET"); }

    /// Whether this comes to be told, behind what that was asked of before.
    bool tells(std::string const& text) {
        return waitUntil([&] {
            char octets[400];
            ssize_t const length = recv(socket_.get(), octets, sizeof octets, 0);
            if (length > 0) told_.append(octets, std::size_t(length)).append("\n");
            auto const at = told_.find(text);
            told_.erase(0, at == told_.npos ? 0 : at + text.size());
            return at != told_.npos;
        });
    }

  private:
    std::string told_;
    Agent::FileDescriptor socket_{socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)};
};

TEST_F(AgentTest, SignalsDuringTheStartCountOnceTheAgentRuns) {
    auto const signalled = [&](std::initializer_list<int> signals) {
        // Takes a while to read.
        begin(twoOnUp0 + std::string(4 << 20, '\n'), {"--status", folder.file("status")});
        ASSERT_TRUE(
            waitUntil([&] { return (agent->statusField("SigIgn") >> (SIGUSR2 - 1) & 1) != 0; }));
        for (int const each : signals) agent->signal(each);
    };
    signalled({SIGHUP, SIGUSR1, SIGUSR2, SIGPIPE});
    EXPECT_TRUE(agent->says("is in force")) << agent->output();
    EXPECT_TRUE(waitUntil([&] { return std::filesystem::exists(folder.file("status")); }));
    EXPECT_TRUE(wire->hearsOnly(twice(joined)));
    // On a busy machine the signal may come later than that.
    EXPECT_TRUE(waitUntil([&] {
        wire->forget();
        signalled({SIGTERM});
        EXPECT_EQ(agent->exitStatus(), 0) << agent->output();
        return agent->output().find("ready") == std::string::npos;
    }));
    EXPECT_TRUE(wire->hearsOnly({})) << "it begins with nothing";
}

TEST_F(AgentTest, CheckTellsTotalsFaultsAndWhatTheMachineLacks) {
    std::string const good = "[interface.up0.group]\n'239.1.0.0/24' = {}\n[interface.eth9]\n"
                             "[interface.'up*']\n[interface.'zz?']\n[interface.x]\nvrf = 'red'\n"
                             "[vrf.red]\n";
    std::string bad = "[interface.up0.group]\n'239.1.1.1' = { exclude = ['10.0.0.1'] }\n";
    for (int i = 0; i < 30; ++i) bad += "g" + std::to_string(i) + " = {}\n";
    auto const run = [&](std::string const& text, std::string const& options) {
        folder.write("file", text);
        return shell("ip netns exec " + net->nearName() + " timeout 20 " + options + " " +
                     folder.file("file") + " 2>&1");
    };
    struct {
        std::string file;
        char const* options;
        int status;
        char const* end;
    } const runs[] = {
        {good, IHPROXYD " --check", 0, "groups\n3 interfaces, 2 patterns, 256 groups: good\n"},
        {good, IHPROXYD " --live --check", 1,
         "groups\neth9: does not exist\nup*: no such interface\nzz?: no such interface\n"
         "VRF red: namespace red does not exist\n"
         "3 interfaces, 2 patterns, 256 groups, 4 obstacles: not good\n"},
        {"[interface.'up*']\n", "setpriv --bounding-set -net_raw " IHPROXYD " --live --check", 1,
         "this process: has no CAP_NET_RAW: it can neither send nor hear IGMP\n"
         "0 interfaces, 1 pattern, 0 groups, 1 obstacle: not good\n"},
        {bad, IHPROXYD " --live --check", 1, "30 errors, 1 warning: not good\n"},
        {bad, IHPROXYD " --config", 1,
         ":22:1: \"g19\" found, expected a multicast address or prefix in quotes, such as "
         "\"239.1.1.1\" or \"239.1.1.0/24\" (and 10 more like this)\n"},
    };
    for (auto const& [file, options, status, end] : runs) {
        Ended const ended = run(file, options);
        EXPECT_EQ(ended.status, status);
        EXPECT_TRUE(ended.text.ends_with(end)) << ended.text;
    }
    EXPECT_TRUE(wire->hearsOnly({})) << "a check speaks to no router";

    auto const ofBad = nlohmann::json::parse(run(bad, IHPROXYD " --json --check").text);
    EXPECT_EQ(ofBad.at("good"), false);
    EXPECT_EQ(ofBad.at("diagnostics").at(1).at("line"), 3);
    auto const ofGood = nlohmann::json::parse(run(good, IHPROXYD " --json --live --check").text);
    EXPECT_EQ(ofGood.at("groups"), 256);
    EXPECT_EQ(ofGood.at("obstacles").at(0).dump(),
              R"({"reason":"does not exist","subject":"eth9"})");
}

TEST_F(AgentTest, PhasesAndFaultyFilesAreTold) {
    ServiceSocket service(folder.file("notify"));
    setenv("WATCHDOG_USEC", "200000", 1);
    ASSERT_TRUE(startTells(twoOnUp0 + "[interface.up1]\n", joined));
    unsetenv("WATCHDOG_USEC");
    for (char const* const each :
         {"READY=1", "=1 of 2 interfaces up, 2 groups; up1: does not exist", "WATCHDOG=1",
          "WATCHDOG=1", "WATCHDOG=1"})
        EXPECT_TRUE(service.tells(each)) << each;
    agent->signal(SIGUSR1);
    ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(folder.file("status")); }));
    auto const status = nlohmann::json::parse(folder.read("status"));
    EXPECT_EQ(status["intfStatus"]["up0"]["groupSourceList"]["239.1.1.2"]["includeSourceList"],
              nlohmann::json({"10.0.0.1"}));
    EXPECT_EQ(status["obstacles"], nlohmann::json({{"up1", "does not exist"}}));
    // Faulty files change nothing.
    std::string const file = folder.file("ihproxyd.toml");
    folder.write("ihproxyd.toml", std::string("\0\x1b[2J\xff", 6));
    for (char const* const place : {":1:", ": cannot be read: "}) {
        agent->signal(SIGHUP);
        EXPECT_TRUE(service.tells("RELOADING=1"));
        EXPECT_TRUE(service.tells("READY=1"));
        EXPECT_TRUE(agent->says("error: " + file + place)) << agent->output();
        std::filesystem::remove(file);
    }
    EXPECT_TRUE(agent->says("nothing is changed", 2));
    EXPECT_EQ(agent->output().find(": error: "), std::string::npos) << "each level is said once";
    EXPECT_TRUE(wire->hearsOnly({}));
    folder.write("ihproxyd.toml", groupsOn("up0", "'239.1.1.1' = {}\n"));
    agent->signal(SIGHUP);
    for (char const* const each : {"RELOADING=1", "READY=1", "=1 of 1 interfaces up, 1 group\n"})
        EXPECT_TRUE(service.tells(each)) << each;
    EXPECT_EQ(agent->output().find("can be used now"), std::string::npos) << "up1 is gone";
    EXPECT_TRUE(learned({"down0 239.1.1.1 exclude"}));
    agent->signal(SIGTERM);
    EXPECT_TRUE(service.tells("STOPPING=1"));
    for (int const late : {SIGTERM, SIGINT, SIGHUP}) agent->signal(late);
    EXPECT_EQ(agent->exitStatus(), 0);
    EXPECT_TRUE(learned({}));
}

TEST_F(AgentTest, WhatTheAgentMayNotDoIsAnErrorFromTheStart) {
    std::string const vrf = vrfIn(net->farName());
    std::string const unnamed = "/proc/" + std::to_string(getpid()) + "/ns/net";
    // A file of another user, which it may read all the same.
    folder.write("ihproxyd.toml", "");
    for (std::string const& path : {folder.file("ihproxyd.toml"), folder.file("")})
        ASSERT_EQ(chown(path.c_str(), 65534, gid_t(-1)), 0);
    ASSERT_EQ(chmod(folder.file("ihproxyd.toml").c_str(), 0600), 0);
    std::tuple<std::string, Lines, std::string> const cases[] = {
        {"", Lines{"setpriv", "--bounding-set", "-net_raw"}, "the agent: has no CAP_NET_RAW"},
        {vrf, Lines{"setpriv", "--bounding-set", "-sys_admin"},
         "VRF red: namespace " + net->farName() +
             ": entering a network namespace: Operation not permitted"},
        {vrfIn(unnamed), Lines{},
         "VRF red: namespace " + unnamed + ": " + unnamed +
             ": Permission denied; expected a name, as `ip netns attach"},
    };
    for (auto const& [configuration, command, expected] : cases) {
        Folder const own;
        ServiceSocket service(own.file("notify"));
        start(configuration, command);
        EXPECT_TRUE(agent->says("error: " + expected)) << agent->output();
        EXPECT_TRUE(service.tells(expected));
    }
    // As far as the machine grants them to anybody.
    auto const keeps = [&](std::initializer_list<int> capabilities) {
        unsigned long long set = 0;
        for (int const each : capabilities)
            if (prctl(PR_CAPBSET_READ, each) == 1) set |= 1ULL << each;
        for (char const* const field : {"CapPrm", "CapEff"})
            EXPECT_EQ(agent->statusField(field), set) << field;
    };
    start(vrf);
    keeps({CAP_NET_ADMIN, CAP_NET_RAW, CAP_DAC_READ_SEARCH, CAP_SYS_ADMIN});
    EXPECT_EQ(agent->output().find("error"), std::string::npos) << agent->output();
    reload(""); // but the next file may bring it back
    keeps({CAP_NET_ADMIN, CAP_NET_RAW, CAP_DAC_READ_SEARCH, CAP_SYS_ADMIN});
    start(""); // there is nothing to enter
    keeps({CAP_NET_ADMIN, CAP_NET_RAW, CAP_DAC_READ_SEARCH});
}

} // namespace
} // namespace Testing
