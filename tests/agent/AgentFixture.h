// The whole agent in a throw-away network, beside a bridge that learns and a wire that hears all.
#pragma once

#include "agent/AgentProcess.h"
#include "agent/ConfigurationText.h"
#include "agent/Wire.h"
#include "agent/files/StateFile.h"
#include "netns/Netns.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <set>

namespace Testing {

using Lines = std::vector<std::string>;

/// Each line twice: a change is told as often as the robustness is.
inline Lines twice(Lines const& once) {
    Lines lines = once;
    lines.insert(lines.end(), once.begin(), once.end());
    std::sort(lines.begin(), lines.end());
    return lines;
}

/// Reports of a group from any source, and of one from a source.
inline Lines const joined{"ALLOW 239.1.1.2 10.0.0.1", "TO_EX 239.1.1.1"};

class AgentTest : public testing::Test {
  protected:
    void SetUp() override {
        IHP_SKIP_WITHOUT_NETNS();
        net = network();
        wire = std::make_unique<Wire>(net->farName(), "down0");
    }

    /// What a shell command prints; its exit status goes to `status` if that is not null.
    static std::string output(std::string const& command, int* status = nullptr) {
        FILE* const pipe = popen(command.c_str(), "r");
        std::string text;
        char octets[4096];
        while (std::size_t const count = std::fread(octets, 1, sizeof octets, pipe))
            text.append(octets, count);
        int const end = WEXITSTATUS(pclose(pipe));
        if (status) *status = end;
        return text;
    }
    /// What ihproxyctl says.
    struct Answer {
        int status;
        std::string text; ///< what it prints, errors included
    };
    Answer ask(std::string const& arguments) const {
        Answer answer{0, {}};
        answer.text =
            output(IHPROXYCTL " --control " + agent->control() + " " + arguments + " 2>&1",
                   &answer.status);
        return answer;
    }
    /// Starts the agent with this configuration, and waits until it says that it is ready.
    void start(std::string const& configuration, std::optional<int> missingCapability = {}) {
        agent.reset();
        reloads = 0;
        folder.write("output", "");
        folder.write("ihproxyd.toml", configuration);
        agent = std::make_unique<AgentProcess>(folder, net->nearName(),
                                               Lines{"--config", folder.file("ihproxyd.toml"),
                                                     "--status", folder.file("status"), "--state",
                                                     folder.file("state")},
                                               missingCapability);
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
        folder.write("output", "");
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
    /// One whose bridge believes a leave soon, and does not wait long for answers (hundredths).
    static std::unique_ptr<Netns> network() {
        auto made = std::make_unique<Netns>();
        made->farIp("link set br0 type bridge mcast_last_member_interval 10 "
                    "mcast_query_response_interval 20");
        return made;
    }

    Folder folder;
    std::unique_ptr<Netns> net;
    std::unique_ptr<Wire> wire;
    std::unique_ptr<AgentProcess> agent;
    int reloads = 0;
};

} // namespace Testing
