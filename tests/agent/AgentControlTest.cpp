// The agent as its operator meets it: through ihproxyctl.
#include "agent/AgentFixture.h"

#include <grp.h>
#include <regex>
#include <sys/stat.h>

namespace Testing {
namespace {

class AgentControlTest : public AgentTest {
  protected:
    /// What ihproxyctl says, with what differs from run to run taken out, and an exit status that
    /// is not zero.
    std::string askFor(std::string const& arguments) const {
        auto [status, text] = ask(arguments);
        if (status != 0) text += "(" + std::to_string(status) + ")\n";
        for (auto const& [pattern, word] :
             {std::pair(folder.file("ihproxyd.toml"), "FILE"),
              std::pair(std::string("[0-9]+:[0-9]{2}:[0-9]{2}"), "TIME"),
              std::pair(std::string("ihproxyd [0-9.]+, up [0-9]+ s"), "ihproxyd VERSION, up N s"),
              std::pair(std::string("within [0-9: s]+,"), "within TIME,")})
            text = std::regex_replace(text, std::regex(pattern), word);
        return text;
    }
    /// The configuration file is this; what a command then does.
    std::string with(std::string const& configuration, std::string const& arguments) const {
        folder.write("ihproxyd.toml", configuration);
        return askFor(arguments);
    }
};

/// The transcript has what ihproxyctl is asked, and what it prints.
TEST_F(AgentControlTest, SaysWhatIsAnnouncedAndWhatIsNot) {
    net->farIp("link set br0 type bridge mcast_querier 0"); // nobody asks what is answered then
    start(twoOnUp0 +
          "[interface.eth9.group]\n\"239.1.1.9\" = {}\n"
          "[interface.up0x]\naccess-lists = [\"iptv\"]\n" +
          rule("iptv", 1, "239.3.0.0/31", "10.0.0.9"));
    ASSERT_TRUE(wire->hears(joined));
    std::string const transcript =
        shell("cat " IHP_SOURCES "/tests/agent/control/transcript.txt").text;
    std::istringstream lines(transcript);
    std::string played;
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with("$ ")) played += line + "\n" + askFor(line.substr(2));
    EXPECT_EQ(played, transcript);
    EXPECT_NE(shell("TERM=xterm script -qec '" IHPROXYCTL " --control " + control() +
                    " interfaces' /dev/null")
                  .text.find("default  \033[32mup\033[0m       10.99.0.2"),
              std::string::npos)
        << "on a terminal in colour, and aligned";
    EXPECT_EQ(json("trace --last 3").at("entries").size(), 3u);
    EXPECT_EQ(json("events --last 1").at("events").size(), 1u);
    auto const complete = [&](std::string const& words) {
        return shell("bash -c '. " IHP_SOURCES "/agent/completion.bash; COMP_WORDS=(" IHPROXYCTL
                     " --control " +
                     control() + " " + words +
                     "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _ihproxy $COMP_WORDS "
                     "\"${COMP_WORDS[-1]}\" \"${COMP_WORDS[-2]}\"; echo ${COMPREPLY[@]}'")
            .text;
    };
    EXPECT_EQ(complete("st"), "status stop\n");
    EXPECT_EQ(complete("reload --un"), "--undo-after\n");
    EXPECT_EQ(complete("why \"\""), "eth9 up0 up0x\n");
    EXPECT_EQ(complete("groups -i u"), "up0 up0x\n");
    EXPECT_EQ(complete("why up0 \"\""), "239.1.1.1 239.1.1.2\n");
    agent->signal(SIGTERM);
    ASSERT_EQ(agent->exitStatus(), 0);
    EXPECT_EQ(ask("status").status, 2);
}

TEST_F(AgentControlTest, ReloadSaysWhatItDidAndCanBeTakenBack) {
    std::string const first = groupsOn("up0", "\"239.1.1.1\" = {}\n");
    std::string const second =
        groupsOn("up0", "\"239.1.1.1\" = { include = [\"10.0.0.1\"] }\n\"239.1.1.3\" = {}\n");
    start(first);
    auto const holds = [&](char const* sources, std::size_t groups) {
        auto const all = json("groups").at("groups");
        return all.size() == groups && all.at(0).at("sources").dump() == sources;
    };
    EXPECT_EQ(with("[interface.up0]\nigmp-version = 9\n", "reload"),
              "FILE:2:16: error: igmp-version is 9, expected an integer from 1 to 3\n"
              "ihproxyctl: FILE was not taken over; nothing is changed\n(1)\n");
    for (std::string const& empty : {std::string("[interface.up0]\n"),
                                     groupsOn("up00", "'239.1.1.1' = {}\n")}) // a misspelt name
        EXPECT_TRUE(with(empty, "reload").ends_with("(1)\n")) << empty;
    EXPECT_TRUE(holds("[]", 1));
    EXPECT_EQ(with(second, "reload"), "in force (#2): 1 group joined, 1 group changed\n");
    EXPECT_TRUE(holds("[\"10.0.0.1\"]", 2));
    EXPECT_EQ(ask("confirm").status, 1);
    EXPECT_EQ(ask("undo").text, "in force (#1): 1 group left, 1 group changed\n");
    EXPECT_TRUE(holds("[]", 1));
    EXPECT_EQ(
        with(second, "reload --undo-after 60s"),
        "in force (#3): 1 group joined, 1 group changed; `ihproxyctl confirm` within TIME, or "
        "#1 returns\n");
    EXPECT_EQ(ask("reload").status, 1);
    EXPECT_EQ(ask("confirm").text, "#3 stays in force\n");
    with(first, "reload --undo-after 0.2s");
    EXPECT_TRUE(agent->says("configuration #3 is in force again: #4 was not confirmed"));
    EXPECT_TRUE(holds("[\"10.0.0.1\"]", 2));
    EXPECT_EQ(with("[interface.up0]\n", "reload --allow-empty"), "in force (#5): 2 groups left\n");
}

TEST_F(AgentControlTest, AnswersAreAsDocumentedWhateverIsAsked) {
    start(twoOnUp0 + "[interface.'z*']\n[interface.eth9]\naccess-lists = [\"a\"]\n" +
          rule("a", 1, "239.1.1.0/30", "10.0.0.9", "deny"));
    ASSERT_TRUE(wire->hears(joined));
    wire->send(Agent::v3Query(1));
    EXPECT_EQ(shell("/usr/bin/python3 " IHP_SOURCES "/tests/agent/control/answers.py " + control() +
                    " " IHP_SOURCES "/docs/control.schema.json 2>&1")
                  .text,
              "as documented\n");
    EXPECT_EQ(json("groups").at("groups").size(), 2u);
}

/// Configurations that differ in their groups, their sources, a list and an interface.
std::string const configurations[] = {
    having("access-lists = ['iptv']", twoOnUp0) + rule("iptv", 1, "239.1.1.4/30", "any"),
    having("access-lists = ['iptv']",
           groupsOn("up0", "'239.1.1.2' = { include = ['10.0.0.2', '10.0.0.1'] }\n")) +
        rule("iptv", 1, "239.1.1.0/31", "any"),
    groupsOn("up0", "'239.1.1.0' = { exclude = ['10.0.0.3'] }\n'239.1.1.1' = {}\n"),
    "[vrf.none]\n[interface.eth9.group]\n'239.9.9.9' = {}\n",
    groupsOn("up0", "'239.1.1.1' = { include = ['10.0.0.1'] }\n"),
};

TEST_F(AgentControlTest, DiffSaysWhatAReloadThenDoes) {
    start("[vrf.none]\n"); // else the agent would give up what enters namespaces
    auto const announced = [&] {
        auto groups = nlohmann::json::object();
        for (auto const answer = json("groups"); auto const& each : answer.at("groups"))
            groups[std::string(each.at("group"))] = {{"mode", each.at("mode")},
                                                     {"sources", each.at("sources")}};
        return groups;
    };
    for (std::string const& configuration : configurations) {
        auto const before = announced();
        folder.write("ihproxyd.toml", "allow-empty = true\n" + configuration);
        // Leaves of the round before are told for a second.
        ASSERT_TRUE(waitUntil([&] { return wire->hearsOnly({}) && wire->hearsOnly({}); }));
        auto const diff = json("diff");
        EXPECT_EQ(announced(), before);
        EXPECT_TRUE(wire->hearsOnly({})) << "the copy is heard";
        auto const done = json("reload").at("changes");
        for (char const* const kind : {"joined", "left", "changed"})
            EXPECT_EQ(done.at(kind), diff.at(kind)) << diff;
        auto expected = before;
        for (auto const& change : diff.at("changes")) {
            std::string const group = change.at("group");
            EXPECT_EQ(change.at("before"), before.value(group, nlohmann::json()));
            expected.merge_patch({{group, change.at("after")}});
        }
        EXPECT_EQ(announced(), expected) << diff;
    }
    EXPECT_NE(ask("diff").text.find("no change, "), std::string::npos);
    Netns::addPair(net->farName(), "up1", "aux0", "10.97.0.1/24");
    folder.write("ihproxyd.toml", having("vrf = 'red'", groupsOn("'u*1'", "'239.5.5.5' = {}\n")) +
                                      vrfIn(net->farName()));
    EXPECT_EQ(json("diff").at("joined"), 1) << "by a pattern, where nothing was followed before";
    EXPECT_EQ(json("reload").at("changes").at("joined"), 1);
    folder.write("other", groupsOn("up0", "\"239.8.8.8\" = {}\n") + "[interface.up0]\n");
    EXPECT_EQ(ask("diff " + folder.file("other")).status, 1) << "a table twice";
}

TEST_F(AgentControlTest, FiguresAreUnderstoodByMonitoring) {
    start("[metrics]\nlisten = \"127.0.0.1:9643\"\n" + twoOnUp0 + "[interface.\"a\\\"b\"]\n");
    ASSERT_TRUE(wire->hears(twice(joined)));
    // What a monitoring system makes of them is the same from either place, once no packet comes
    // between the two.
    std::string const read = "/usr/bin/python3 " IHP_SOURCES "/tests/agent/control/metrics.py";
    std::string served;
    EXPECT_TRUE(waitUntil([&] {
        served = shell("ip netns exec " + net->nearName() + " " + read +
                       " http://127.0.0.1:9643/metrics")
                     .text;
        return ask("metrics | " + read + " -").text == served;
    })) << served;
    for (char const* const line :
         {"ihproxy_groups up0 default 2\n", "ihproxy_interface_up up0 default 1\n",
          "ihproxy_groups_by_origin up0 configuration default 2\n",
          "ihproxy_configuration_number 1\n", "ihproxy_obstacles 1\n",
          "ihproxy_packets_total sent up0 state_change_report 3 default "})
        EXPECT_NE(served.find(line), std::string::npos) << line << served;

    auto const sent = [&] {
        return json("counters -i up0").at("counters").at(0).at("v3StateChangeReportSent");
    };
    EXPECT_GT(sent(), 0);
    EXPECT_EQ(ask("counters -i up0 reset").status, 0);
    EXPECT_EQ(sent(), 0);
    EXPECT_EQ(ask("log debug --for 0.2s").text, "log level debug\n");
    EXPECT_TRUE(waitUntil([&] { return json("status").at("logLevel") == "info"; }));
}

TEST_F(AgentControlTest, PatternHoldsForWhatMatchesAndHasNoSectionOfItsOwn) {
    std::string const file = groupsOn("'up?'", "'239.1.1.1' = {}\n") +
                             groupsOn("'u*'", "'239.1.1.2' = {}\n") + "[interface.'zz*']\n" +
                             groupsOn("up9", "'239.1.1.9' = {}\n");
    auto const rows = [this] {
        Lines rows;
        for (auto const answer = json("interfaces"); auto const& row : answer.at("interfaces"))
            rows.push_back(std::string(row.at("name")) + ": " + std::string(row.at("why")));
        return rows;
    };
    auto const rename = [this](std::string const& from, std::string const& to) {
        net->nearIp("link set " + from + " down");
        EXPECT_TRUE(learned({})) << "the bridge looks at its links now and then";
        net->nearIp("link set " + from + " name " + to);
        net->nearIp("link set " + to + " up");
    };
    EXPECT_TRUE(startTells(file, {"TO_EX 239.1.1.1"}));
    EXPECT_EQ(rows(), (Lines{"up0: ", "up9: does not exist", "u*: no such interface",
                             "zz*: no such interface"}));
    reload(file + "[interface.more]\n");
    EXPECT_EQ(ask("undo").status, 0);
    EXPECT_TRUE(wire->hearsOnly({})) << "what matches stays";

    rename("up0", "upper");
    EXPECT_TRUE(learned({"down0 239.1.1.2 exclude"}));
    EXPECT_EQ(rows(), (Lines{"up9: does not exist", "upper: ", "up?: no such interface",
                             "zz*: no such interface"}));
    rename("upper", "up9");
    EXPECT_TRUE(learned({"down0 239.1.1.9 exclude"}));
    net->nearIp("link del up9");
    EXPECT_TRUE(waitUntil([&] { return rows().front() == "up9: does not exist"; }))
        << "what has gone is forgotten";
}

TEST_F(AgentControlTest, ConfigurationInForceAndInTheFileAreShownAlike) {
    std::string const shown = shell("cat " IHP_SOURCES "/tests/agent/config/shown.toml").text;
    folder.write("part.toml", shown + "robustness = 2\nvrf = 'default'\n"); // as it would be
    start("include = ['*part.toml']\n");
    EXPECT_EQ(ask("config").text, shown);
    EXPECT_NE(ask("why eth0.7 239.2.0.9").text.find("part.toml:40"), std::string::npos);
    EXPECT_EQ(with("[interface.up0]\nigmp-version = 9\n", "config"),
              "FILE:2:16: error: igmp-version is 9, expected an integer from 1 to 3\n"
              "ihproxyctl: FILE would not be taken over\n(1)\n");
    EXPECT_EQ(ask("config --running").text, shown);
    EXPECT_EQ(with(shown, "config"), shown) << "it is a file of the same meaning";
}

TEST_F(AgentControlTest, GroupsKeptAtTheEndAreTakenOverByTheNextRun) {
    Netns::addPair(net->farName(), "up1", "aux0", "10.97.0.1/24");
    Wire other(net->farName(), "aux0");
    auto const both = [&](std::string const& here, std::string const& there) {
        return groupsOn("up0", here) +
               having("vrf = 'red'\nigmp-version = 2", groupsOn("up1", there)) +
               vrfIn(net->farName());
    };
    std::string const all = both(twoGroups, "'239.2.2.1' = {}\n'239.2.2.2' = {}\n");
    std::string const less =
        both("'239.1.1.2' = { include = ['10.0.0.1'] }\n", "'239.2.2.1' = {}\n");
    for (bool const asked : {true, false}) {
        ASSERT_TRUE(startTells(asked ? all : "keep-groups = true\n" + all, joined));
        ASSERT_TRUE(other.hearsOnly(twice({"v2 239.2.2.1", "v2 239.2.2.2"})));
        if (asked)
            EXPECT_EQ(ask("stop --keep-groups").text,
                      "ended; the groups are kept for the next run\n");
        else
            agent->signal(SIGTERM);
        EXPECT_EQ(agent->exitStatus(), 0);
        EXPECT_TRUE(startTells(less, {"ALLOW 239.1.1.2 10.0.0.1", "TO_IN 239.1.1.1"}));
        EXPECT_TRUE(other.hearsOnly(twice({"leave 239.2.2.2", "v2 239.2.2.1"})));
        EXPECT_EQ(ask("stop >&-; echo $?").text, "0\n") << "where nobody listens";
        EXPECT_TRUE(wire->hearsOnly(twice({"BLOCK 239.1.1.2 10.0.0.1"})));
        EXPECT_TRUE(other.hearsOnly(twice({"leave 239.2.2.1"})));
    }
}

TEST_F(AgentControlTest, SocketIsForAGroupThatTheAgentIsAMemberOf) {
    auto const group = [&] {
        struct stat status {};
        EXPECT_EQ(stat(control().c_str(), &status), 0);
        return status.st_gid;
    };
    if (shell("setpriv --groups daemon true").status != 0)
        GTEST_SKIP() << "may not choose its groups";
    gid_t const member = getgrnam("daemon")->gr_gid;
    start("[control]\ngroup = 'daemon'\n", {"setpriv", "--groups", "daemon"});
    EXPECT_EQ(group(), member);
    for (auto const& [name, reason] :
         {std::pair("bin", "cannot be given to group bin: Operation not permitted"),
          std::pair("no-such", "there is no group no-such")}) {
        reload("[control]\ngroup = '" + std::string(name) + "'\n");
        EXPECT_TRUE(agent->says(std::string("the control socket: ") + reason));
        EXPECT_EQ(group(), getegid());
    }
    reload("[control]\ngroup = 'daemon'\n");
    EXPECT_EQ(group(), member);
}

TEST_F(AgentControlTest, GroupsThatCannotBeKeptAreLeft) {
    ASSERT_TRUE(startTells("keep-groups = true\n" + groupsOn("up0", "'239.1.1.1' = {}\n"),
                           {"TO_EX 239.1.1.1"}));
    ASSERT_TRUE(keeps({"239.1.1.1"}));
    std::filesystem::remove(folder.file("state"));
    std::filesystem::create_directory(folder.file("state"));
    EXPECT_EQ(json("stop"), nlohmann::json({{"groupsKept", false}}));
    EXPECT_TRUE(wire->hearsOnly(twice({"TO_IN 239.1.1.1"})));

    begin("keep-groups = true\n");
    EXPECT_TRUE(agent->says("keep-groups: has no effect, for --state names no file"));
    EXPECT_EQ(ask("stop --keep-groups").status, 1);
    EXPECT_EQ(ask("stop").text, "ended; the groups are left\n");
}

} // namespace
} // namespace Testing
