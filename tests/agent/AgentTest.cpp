// What an operator does to the running agent: files, signals, and what it says in return.
#include "agent/AgentFixture.h"
#include "agent/control/UnixSocket.h"

#include <linux/capability.h>

namespace Testing {
namespace {

constexpr char const* threeGroups = "'239.1.1.1' = {}\n"
                                    "'239.1.1.2' = { include = ['10.0.0.2', '10.0.0.1'] }\n"
                                    "'239.1.1.3' = { exclude = ['10.0.0.9'] }\n";
Lines const threeLearned{"down0 239.1.1.1 exclude", "down0 239.1.1.2 include 10.0.0.1,10.0.0.2",
                         "down0 239.1.1.3 exclude 10.0.0.9"};
Lines const threeJoined{"TO_EX 239.1.1.1", "ALLOW 239.1.1.2 10.0.0.1 10.0.0.2",
                        "TO_EX 239.1.1.3 10.0.0.9"};

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

    /// The next message but a status, or nothing if none comes.
    std::string next() {
        std::string const message = any();
        return message.starts_with("STATUS=") ? next() : message;
    }
    /// Whether the status comes to hold this.
    bool tells(std::string const& text) {
        while (status_.find(text) == status_.npos)
            if (any().empty()) return false;
        return true;
    }

  private:
    std::string any() {
        char text[400];
        ssize_t length = -1;
        waitUntil([&] { return (length = recv(socket_.get(), text, sizeof text, 0)) >= 0; });
        std::string const message(text, std::size_t(std::max<ssize_t>(length, 0)));
        if (message.starts_with("STATUS=")) status_ = message;
        return message;
    }

    std::string status_;
    Agent::FileDescriptor socket_{socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)};
};

TEST_F(AgentTest, SignalsDuringTheStartCountOnceTheAgentRuns) {
    auto const signalled = [&](std::initializer_list<int> signals) {
        // Takes a while to read.
        begin(groupsOn("up0", threeGroups) + std::string(4 << 20, '\n'),
              {"--status", folder.file("status")});
        ASSERT_TRUE(
            waitUntil([&] { return (agent->statusField("SigIgn") >> (SIGUSR2 - 1) & 1) != 0; }));
        for (int const each : signals) agent->signal(each);
    };
    signalled({SIGHUP, SIGUSR1, SIGUSR2, SIGPIPE});
    EXPECT_TRUE(agent->says("is in force")) << agent->output();
    EXPECT_TRUE(waitUntil([&] { return std::filesystem::exists(folder.file("status")); }));
    EXPECT_TRUE(wire->hearsOnly(twice(threeJoined)));
    // On a busy machine the signal may come later than that.
    EXPECT_TRUE(waitUntil([&] {
        wire->forget();
        signalled({SIGTERM});
        EXPECT_EQ(agent->exitStatus(), 0) << agent->output();
        return agent->output().find("ready") == std::string::npos;
    }));
    EXPECT_TRUE(wire->hearsOnly({})) << "it begins with nothing";
}

TEST_F(AgentTest, BadFileChangesNothingAndIsLoggedWithItsPlaces) {
    ASSERT_TRUE(startTells(groupsOn("up0", threeGroups), threeJoined));
    std::string const file = folder.file("ihproxyd.toml");
    int refused = 0;
    auto const refuses = [&](std::string const& place) {
        agent->signal(SIGHUP);
        return agent->says("nothing is changed", ++refused) && agent->says(place);
    };
    folder.write("ihproxyd.toml", std::string("\0\x1b[2J\xff", 6));
    EXPECT_TRUE(refuses("error: " + file + ":1:"));
    std::filesystem::remove(file);
    EXPECT_TRUE(refuses("error: " + file + ": cannot be read: "));
    EXPECT_EQ(agent->output().find(": error: "), std::string::npos) << "each level is said once";
    EXPECT_TRUE(wire->hearsOnly({}));

    reload(groupsOn("up0", "'239.1.1.1' = {}\n"));
    EXPECT_TRUE(learned({threeLearned[0]})) << "a good file afterwards is taken over";
}

TEST_F(AgentTest, CheckTellsTotalsFaultsAndWhatTheMachineLacks) {
    std::string const good = "[interface.up0.group]\n'239.1.0.0/24' = {}\n[interface.eth9]\n"
                             "[interface.'up*']\n[interface.'zz?']\n[interface.x]\nvrf = 'red'\n"
                             "[vrf.red]\n",
                      lacks = "eth9: does not exist\nup*: no such interface\n"
                              "zz?: no such interface\nVRF red: namespace red does not exist\n";
    std::string bad = "[interface.up0.group]\n'239.1.1.1' = { exclude = ['10.0.0.1'] }\n";
    for (int i = 0; i < 30; ++i) bad += "g" + std::to_string(i) + " = {}\n";
    auto const run = [&](std::string const& text, Lines options, std::optional<int> missing = {}) {
        Folder const own;
        own.write("file", text);
        options.insert(options.begin(), IHPROXYD);
        options.push_back(own.file("file"));
        Process process(own, net->nearName(), options, missing);
        int const status = process.exitStatus().value_or(-1);
        return std::to_string(status) + "\n" + process.output();
    };
    auto const ends = [](std::string const& text, std::string const& end) {
        return text.ends_with(end) ? testing::AssertionSuccess()
                                   : testing::AssertionFailure() << text;
    };
    EXPECT_TRUE(
        ends(run(good, {"--check"}), "groups\n3 interfaces, 2 patterns, 256 groups: good\n"));
    EXPECT_TRUE(ends(run(good, {"--live", "--check"}),
                     "groups\n" + lacks +
                         "3 interfaces, 2 patterns, 256 groups, 4 obstacles: "
                         "not good\n"));
    EXPECT_TRUE(ends(run("[interface.'up*']\n", {"--live", "--check"}, CAP_NET_RAW),
                     "1\nthis process: has no CAP_NET_RAW: it can neither send nor hear IGMP\n"
                     "0 interfaces, 1 pattern, 0 groups, 1 obstacle: not good\n"));
    EXPECT_TRUE(ends(run(bad, {"--live", "--check"}), "30 errors, 1 warning: not good\n"));
    EXPECT_TRUE(wire->hearsOnly({})) << "a check speaks to no router";
    std::string const started = run(bad, {"--config"});
    EXPECT_TRUE(started.starts_with("1\n")) << started;
    EXPECT_NE(started.find("file:3:1: \"g0\" found"), started.npos) << started;
    EXPECT_EQ(started.find("ready"), started.npos) << started;

    auto const json = [&](std::string const& text, Lines const& options) {
        std::string const said = run(text, options);
        return nlohmann::json::parse(said.substr(said.find('\n')));
    };
    auto const ofBad = json(bad, {"--json", "--check"});
    EXPECT_EQ(ofBad.at("errors"), 30);
    EXPECT_EQ(ofBad.at("good"), false);
    EXPECT_EQ(ofBad.at("diagnostics").at(1).at("line"), 3);
    auto const ofGood = json(good, {"--json", "--live", "--check"});
    EXPECT_EQ(ofGood.at("groups"), 256);
    EXPECT_EQ(ofGood.at("obstacles").at(0).dump(),
              R"({"reason":"does not exist","subject":"eth9"})");
}

TEST_F(AgentTest, ServiceManagerIsToldOfEachPhase) {
    ServiceSocket service(folder.file("notify"));
    start(groupsOn("up0", threeGroups) + "[interface.up1]\n");
    EXPECT_EQ(service.next(), "READY=1");
    EXPECT_TRUE(service.tells("=1 of 2 interfaces up, 3 groups; up1: does not exist"));
    agent->signal(SIGUSR1);
    ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(folder.file("status")); }));
    auto const status = nlohmann::json::parse(folder.read("status"));
    EXPECT_EQ(status["intfStatus"]["up0"]["groupSourceList"]["239.1.1.2"]["includeSourceList"],
              nlohmann::json({"10.0.0.1", "10.0.0.2"}));
    EXPECT_EQ(status["obstacles"], nlohmann::json({{"up1", "does not exist"}}));
    folder.write("ihproxyd.toml", groupsOn("up0", "'239.1.1.1' = {}\n"));
    agent->signal(SIGHUP);
    EXPECT_EQ(service.next().substr(0, 11), "RELOADING=1");
    EXPECT_EQ(service.next(), "READY=1");
    EXPECT_TRUE(service.tells("=1 of 1 interfaces up, 1 group"));
    EXPECT_TRUE(learned({threeLearned[0]}));
    agent->signal(SIGTERM);
    EXPECT_EQ(service.next(), "STOPPING=1");
    for (int const late : {SIGTERM, SIGINT, SIGHUP}) agent->signal(late);
    EXPECT_EQ(agent->exitStatus(), 0);
    EXPECT_TRUE(learned({}));
}

TEST_F(AgentTest, ServiceManagerHearsThatTheLoopTurns) {
    ServiceSocket service(folder.file("notify"));
    setenv("WATCHDOG_USEC", "200000", 1);
    start("");
    unsetenv("WATCHDOG_USEC");
    while (service.next() == "WATCHDOG=1") {
    } // READY=1
    for (int i = 0; i < 3; ++i) EXPECT_EQ(service.next(), "WATCHDOG=1");
}

TEST_F(AgentTest, VrfWaitsForDescriptorsAndStartsWhenThereAreSome) {
    // Else it would give up what enters namespaces.
    std::string const file = groupsOn("up0", threeGroups) + vrfIn(net->nearName(), "near");
    ASSERT_TRUE(startTells(file, threeJoined));
    ASSERT_TRUE(keeps({"239.1.1.1", "239.1.1.2", "239.1.1.3"})); // no file is open any more
    std::size_t const open = agent->openDescriptors();
    // Enough for one that stays open besides the file that is read, for all sockets but the last,
    // for the namespace.
    int refused = 0;
    for (int const left : {2, 5, 3}) {
        agent->leaveDescriptors(100); // or what waits for some takes those of the file
        reload(file);
        EXPECT_TRUE(opens(open));
        agent->leaveDescriptors(left);
        reload(file + vrfIn(net->farName(), "red" + std::to_string(left)));
        EXPECT_TRUE(agent->says("Too many open files", ++refused)) << agent->output();
    }
    agent->leaveDescriptors(100);
    EXPECT_TRUE(agent->says("VRF red3: can be used now (before: "));
    reload(file);
    EXPECT_TRUE(opens(open));
    EXPECT_TRUE(wire->hearsOnly({})) << "up0 is not disturbed";
}

TEST_F(AgentTest, WhatTheAgentMayNotDoIsAnErrorFromTheStart) {
    std::string const vrf = vrfIn(net->farName());
    std::string const unnamed = "/proc/" + std::to_string(getpid()) + "/ns/net";
    // A file of another user, which it may read all the same.
    folder.write("ihproxyd.toml", "");
    for (std::string const& path : {folder.file("ihproxyd.toml"), folder.file("")})
        ASSERT_EQ(chown(path.c_str(), 65534, gid_t(-1)), 0);
    ASSERT_EQ(chmod(folder.file("ihproxyd.toml").c_str(), 0600), 0);
    std::tuple<std::string, std::optional<int>, std::string> const cases[] = {
        {"", CAP_NET_RAW, "the agent: has no CAP_NET_RAW"},
        {vrf, CAP_SYS_ADMIN,
         "VRF red: namespace " + net->farName() +
             ": entering a network namespace: Operation not permitted"},
        {vrfIn(unnamed),
         {},
         "VRF red: namespace " + unnamed + ": " + unnamed +
             ": Permission denied; expected a name, as `ip netns attach"},
    };
    for (auto const& [configuration, missing, expected] : cases) {
        Folder const own;
        ServiceSocket service(own.file("notify"));
        start(configuration, missing);
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
