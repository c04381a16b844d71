// The whole agent in a throw-away network, beside a bridge that learns and a wire that hears all.
#pragma once

#include "agent/ConfigurationText.h"
#include "agent/Process.h"
#include "agent/Wire.h"
#include "agent/files/StateFile.h"
#include "agent/loop/Json.h"

#include <set>

namespace Testing {

/// Each line twice: a change is told as often as the robustness is.
inline Lines twice(Lines const& once) {
    Lines lines = once;
    lines.insert(lines.end(), once.begin(), once.end());
    return lines;
}

/// A group from any source and one from a source, and the reports of them.
inline std::string const twoGroups = "'239.1.1.1' = {}\n'239.1.1.2' = { include = ['10.0.0.1'] }\n";
inline std::string const twoOnUp0 = groupsOn("up0", twoGroups);
inline Lines const joined{"ALLOW 239.1.1.2 10.0.0.1", "TO_EX 239.1.1.1"};

class AgentTest : public testing::Test {
  protected:
    void SetUp() override {
        IHP_SKIP_WITHOUT_NETNS();
        net.emplace();
        hasten(*net);
        wire.emplace(net->farName(), "down0");
    }

    std::string control() const { return controlFolder.file("socket"); }
    /// What ihproxyctl says, errors included.
    Ended ask(std::string const& arguments) const {
        return shell(IHPROXYCTL " --control " + control() + " " + arguments + " 2>&1");
    }
    nlohmann::json json(std::string const& arguments) const {
        return nlohmann::json::parse(ask(arguments + " --json").text);
    }
    /// Starts the agent with this configuration, perhaps by another command.
    void begin(std::string const& configuration, Lines const& options = {}, Lines command = {}) {
        agent.reset();
        reloads = 0;
        folder.write("output", "");
        folder.write("ihproxyd.toml", configuration);
        command.insert(command.end(), {IHPROXYD, "--config", folder.file("ihproxyd.toml"),
                                       "--control", control()});
        command.insert(command.end(), options.begin(), options.end());
        agent.emplace(folder, net->nearName(), command);
    }
    /// The same, with all of its files, and waits until it says that it is ready.
    void start(std::string const& configuration, Lines const& command = {}) {
        begin(configuration, {"--status", folder.file("status"), "--state", folder.file("state")},
              command);
        ASSERT_TRUE(agent->says("ready\n")) << agent->output();
    }
    /// Whether the state file comes to hold these groups and no others. It is written a little
    /// after each change, later on a busy machine.
    bool keeps(std::set<std::string> const& groups) const {
        return waitUntil([&] {
            std::set<std::string> kept;
            for (auto const& interface : Agent::stateRead(folder.file("state")))
                for (std::size_t i = 0; i < interface.groups.size(); ++i)
                    kept.insert(interface.groups.record(i).group.stringValue());
            return kept == groups;
        });
    }
    /// Ends the agent before it can do anything about it, once it keeps these groups.
    void crash(std::set<std::string> const& groups) {
        ASSERT_TRUE(keeps(groups));
        agent->signal(SIGKILL);
        ASSERT_EQ(agent->exitStatus(), -SIGKILL);
    }
    /// Has the agent read this configuration, which may be empty, and waits until it has.
    void reload(std::string const& configuration) {
        folder.write("ihproxyd.toml", "allow-empty = true\n" + configuration);
        agent->signal(SIGHUP);
        ASSERT_TRUE(agent->says("is in force", ++reloads)) << agent->output();
    }
    /// Whether a start, or a reload, has each of these lines told twice, and nothing else.
    testing::AssertionResult startTells(std::string const& configuration, Lines const& once) {
        start(configuration);
        return wire->hearsOnly(twice(once));
    }
    testing::AssertionResult reloadTells(std::string const& configuration, Lines const& once) {
        reload(configuration);
        return wire->hearsOnly(twice(once));
    }
    /// Whether the agent comes to have no more files open than that. It has one more while it
    /// reads or writes one.
    bool opens(std::size_t descriptors) const {
        return waitUntil([&] { return agent->openDescriptors() <= descriptors; });
    }
    /// Whether the bridge comes to know these groups and no others.
    testing::AssertionResult learned(Lines const& table) const { return learned(table, *net); }
    testing::AssertionResult learned(Lines const& table, Netns const& network) const {
        if (waitUntil([&] { return network.bridgeTable() == table; }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "the bridge knows " << testing::PrintToString(network.bridgeTable())
               << ", the agent says:\n"
               << agent->output();
    }
    /// Lets a bridge believe a leave soon, and not wait long for answers (hundredths).
    static void hasten(Netns const& network) {
        network.farIp("link set br0 type bridge mcast_last_member_interval 10 "
                      "mcast_query_response_interval 20");
    }

    Folder folder;
    Folder controlFolder; // the other one may belong to another user
    std::optional<Netns> net;
    std::optional<Wire> wire;
    std::optional<Process> agent;
    int reloads = 0;
};

} // namespace Testing
