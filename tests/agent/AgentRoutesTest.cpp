// Multicast routes of the kernel as the upstream router comes to know them: whoever writes them, in
// each VRF, and beside groups that the operator wants.
#include "agent/AgentFixture.h"
#include "agent/kernel/MulticastRouter.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <set>

namespace Testing {
namespace {

using Agent::ip;

/// An smcrouted in a network namespace; it ends with the object.
class StaticRouter {
  public:
    static bool installed() { return std::system("command -v smcrouted >/dev/null") == 0; }

    StaticRouter(std::string const& space, std::string const& configuration) : space_(space) {
        folder_.write("conf", configuration);
        std::string const command = "exec ip netns exec " + space_ + " smcrouted -n -N -f " +
                                    folder_.file("conf") + " -P " + folder_.file("pid") + " -u " +
                                    folder_.file("sock") + " >/dev/null 2>&1";
        pid_ = fork();
        if (pid_ == 0) {
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
    }
    ~StaticRouter() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    StaticRouter(StaticRouter const&) = delete;
    StaticRouter& operator=(StaticRouter const&) = delete;

    /// Whether it takes the command of smcroutectl.
    bool control(std::string const& command) const {
        return std::system(("ip netns exec " + space_ + " smcroutectl -u " + folder_.file("sock") +
                            " " + command + " >/dev/null 2>&1")
                               .c_str()) == 0;
    }

  private:
    Folder const folder_;
    std::string space_;
    pid_t pid_ = -1;
};

/// The router of a near namespace: traffic comes in by the upstream interface and goes out by out0.
class RoutedNetns {
  public:
    RoutedNetns(Netns const& net, char const* upstream) {
        net.nearIp("link add out0 type veth peer name out1");
        net.nearIp("addr add 10.98.0.1/24 dev out0");
        net.nearIp("link set out0 up");
        net.nearIp("link set out1 up");
        Netns::Inside const inside(net.nearName());
        router_.emplace();
        router_->addInterface(0, int(if_nametoindex(upstream)));
        router_->addInterface(1, int(if_nametoindex("out0")));
    }
    void addRoute(char const* source, char const* group) {
        router_->addRoute(ip(source), ip(group), 0, {1});
    }
    void removeRoute(char const* source, char const* group) {
        router_->removeRoute(ip(source), ip(group));
    }
    Agent::MulticastRouter& router() { return *router_; }
    /// The routing daemon ends, and so do all its routes.
    void closeRouter() { router_.reset(); }

  private:
    std::optional<Agent::MulticastRouter> router_;
};

class AgentRoutesTest : public AgentTest {
  protected:
    void SetUp() override {
        AgentTest::SetUp();
        if (net) near.emplace(*net, "up0");
    }

    std::optional<RoutedNetns> near;
};

TEST_F(AgentRoutesTest, RoutesOfADaemonReachTheUpstreamRouterAndLeaveIt) {
    if (!StaticRouter::installed()) GTEST_SKIP() << "no smcrouted";
    near->closeRouter();
    start(groupsOn("up0", ""));
    {
        StaticRouter const daemon(net->nearName(), "phyint up0 enable\nphyint out0 enable\n"
                                                   "mroute from up0 group 239.1.1.1 source "
                                                   "10.0.0.1 to out0\n");
        EXPECT_TRUE(learned({"down0 239.1.1.1 include 10.0.0.1"}));
        ASSERT_TRUE(waitUntil([&] { return daemon.control("add up0 10.0.0.2 239.1.1.1 out0"); }));
        EXPECT_TRUE(daemon.control("add up0 10.0.0.2 239.1.1.2 out0"));
        EXPECT_TRUE(learned(
            {"down0 239.1.1.1 include 10.0.0.1,10.0.0.2", "down0 239.1.1.2 include 10.0.0.2"}));
        EXPECT_TRUE(daemon.control("remove up0 10.0.0.1 239.1.1.1"));
        EXPECT_TRUE(daemon.control("remove up0 10.0.0.2 239.1.1.2"));
        EXPECT_TRUE(learned({"down0 239.1.1.1 include 10.0.0.2"}));
    }
    EXPECT_TRUE(learned({})) << "the daemon was killed";
}

TEST_F(AgentRoutesTest, OnlyRoutesThatTheFileAsksForAreAnnounced) {
    near->addRoute("10.0.0.1", "239.1.1.1");
    near->router().addRoute(ip("10.0.0.1"), ip("239.1.1.2"), 0, {});
    near->router().addRoute(ip("10.0.0.1"), ip("239.1.1.3"), 1, {0});
    near->router().addRoute({}, ip("239.1.1.5"), 0, {1});
    struct {
        char const* table;
        std::set<int> groups;
    } const files[] = {
        {"", {1, 5}},
        {"require-output = false\n", {1, 2, 5}},
        {"incoming = 'any'\n", {1, 3, 5}},
        {"require-output = false\nincoming = 'any'\n", {1, 2, 3, 5}},
        {"incoming = 'proxy-interface'\n", {1, 5}},
    };
    start("");
    std::set<int> before;
    for (auto const& file : files) {
        {
            Netns::Inside const inside(net->nearName());
            Agent::trafficSend(ip("10.99.0.2"), ip("239.1.1.4"));
        }
        ASSERT_NE(net->nearIp("mroute show").find("unresolved"), std::string::npos);
        std::string const text = groupsOn("up0", "") + "[forwarding-table]\n" + file.table;
        folder.write("ihproxyd.toml", text);
        auto const diff = nlohmann::json::parse(ask("diff --json").text);
        for (auto const& change : diff.at("changes"))
            if (int const group = change.at("group").get<std::string>().back() - '0';
                !before.insert(group).second)
                before.erase(group);
        EXPECT_EQ(before, file.groups) << diff;
        reload(text);
        Lines table;
        for (int const group : file.groups)
            table.push_back("down0 239.1.1." + std::to_string(group) +
                            (group == 5 ? " exclude" : " include 10.0.0.1"));
        EXPECT_TRUE(learned(table)) << file.table;
    }
    for (auto const& [group, why] :
         {std::pair("1", "(10.0.0.1, 239.1.1.1) from up0 to out0, since "),
          std::pair("2", "(10.0.0.1, 239.1.1.2): no output interface (require-output)\n"),
          std::pair("3", "comes in by out0, no interface of the configuration (incoming)\n"),
          std::pair("4", "nobody asks for it")})
        EXPECT_NE(ask("why up0 239.1.1." + std::string(group)).text.find(why), std::string::npos)
            << ask("why up0 239.1.1." + std::string(group)).text;
    near->router().addRoute(ip("10.0.0.1"), ip("239.1.1.2"), 0, {1});
    near->router().addRoute(ip("10.0.0.1"), ip("239.1.1.1"), 0, {});
    near->removeRoute("0.0.0.0", "239.1.1.5");
    EXPECT_TRUE(learned({"down0 239.1.1.2 include 10.0.0.1"}));
    near->closeRouter();
    EXPECT_TRUE(learned({}));
}

TEST_F(AgentRoutesTest, GroupThatTheOperatorReleasesComesBackFromTheTable) {
    for (char const* group : {"239.1.1.1", "239.1.1.2", "239.1.1.3", "239.1.1.4"})
        near->addRoute("10.0.0.1", group);
    std::string const include = " = { include = ['10.0.0.9'] }\n";
    auto const rule = [](int sequence, std::string const& destination) {
        return "[[access-list.iptv]]\nsequence = " + std::to_string(sequence) +
               "\naction = 'permit'\nsource = '10.0.0.8'\ndestination = '" + destination + "'\n";
    };
    std::string const attached = "[interface.up0]\naccess-lists = ['iptv']\n"
                                 "unsolicited-report-interval = 0.1\n";
    auto const table = [](Lines const& sources) {
        Lines lines;
        for (std::size_t i = 0; i < sources.size(); ++i)
            lines.push_back("down0 239.1.1." + std::to_string(i + 1) + " include 10.0.0." +
                            sources[i]);
        return lines;
    };
    struct {
        char const* what;
        std::string file;
        Lines sources, others;
    } const steps[] = {
        {"a range by rule, one group by the file, one by both",
         attached + "[interface.up0.group]\n'239.1.1.1'" + include + "'239.1.1.2'" + include +
             rule(10, "239.1.1.2/31"),
         {"9", "8,10.0.0.9", "8", "1"},
         {}},
        {"the group of the file",
         attached + "[interface.up0.group]\n'239.1.1.2'" + include + rule(10, "239.1.1.2/31"),
         {"1", "8,10.0.0.9", "8", "1"},
         {}},
        {"both of the file", attached + rule(10, "239.1.1.2/31"), {"1", "8", "8", "1"}, {}},
        {"half of the range", attached + rule(10, "239.1.1.3"), {"1", "1", "8", "1"}, {}},
        {"the list", groupsOn("up0", "") + rule(10, "239.1.1.3"), {"1", "1", "1", "1"}, {}},
        {"the list again",
         attached + rule(20, "239.1.1.2/31") + rule(30, "239.1.1.6/31"),
         {"1", "8", "8", "1"},
         {"6 include 10.0.0.8", "7 include 10.0.0.8"}},
        {"one rule of two", attached + rule(20, "239.1.1.2/31"), {"1", "8", "8", "1"}, {}},
        {"all rules", attached, {"1", "1", "1", "1"}, {"6 include 10.0.0.1"}},
    };
    start(groupsOn("up0", ""));
    EXPECT_TRUE(learned(table({"1", "1", "1", "1"}))) << "routes from before the start";
    for (auto const& step : steps) {
        reload(step.file);
        Lines expected = table(step.sources);
        for (std::string const& other : step.others) expected.push_back("down0 239.1.1." + other);
        EXPECT_TRUE(learned(expected)) << step.what;
        if (step.what != std::string("one rule of two")) continue;
        near->addRoute("10.0.0.1", "239.1.1.6"); // a route of a group that was released before
        expected.push_back("down0 239.1.1.6 include 10.0.0.1");
        EXPECT_TRUE(learned(expected));
    }
}

TEST_F(AgentRoutesTest, DenyAllKeepsRoutesOutUntilTheLastOneGoes) {
    near->addRoute("10.0.0.1", "239.1.1.1");
    std::string const configured = "down0 239.1.1.9 exclude";
    auto const text = [](std::string const& lists, std::string const& denying) {
        std::string file = "[interface.up0]\naccess-lists = [" + lists +
                           "]\nunsolicited-report-interval = 0.1\n"
                           "[interface.up0.group]\n'239.1.1.9' = {}\n";
        for (char const list : denying)
            file += std::string("[[access-list.") + list +
                    "]]\nsequence = 1\naction = 'deny'\nsource = 'any'\ndestination = 'any'\n";
        return file;
    };
    struct {
        std::string lists, denying;
        bool denied;
    } const steps[] = {{"'a', 'b'", "ab", true}, {"'a', 'b'", "a", true}, {"'a', 'b'", "ab", true},
                       {"'b'", "ab", true},      {"'a', 'b'", "", false}, {"'a', 'b'", "b", true},
                       {"", "b", false}};
    start(text("'a'", ""));
    ASSERT_TRUE(learned({"down0 239.1.1.1 include 10.0.0.1", configured}));
    ASSERT_TRUE(wire->hears(twice({"ALLOW 239.1.1.1 10.0.0.1"})));
    bool denied = false;
    for (auto const& step : steps) {
        wire->forget();
        reload(text(step.lists, step.denying));
        std::string const change = step.denied ? "BLOCK" : "ALLOW";
        if (denied != step.denied) {
            EXPECT_TRUE(wire->hears(twice({change + " 239.1.1.1 10.0.0.1"})));
        }
        denied = step.denied;
        if (!step.denied) {
            EXPECT_TRUE(learned({"down0 239.1.1.1 include 10.0.0.1", configured}));
            continue;
        }
        EXPECT_TRUE(learned({configured}));
        near->removeRoute("10.0.0.1", "239.1.1.1");
        near->addRoute("10.0.0.1", "239.1.1.1");
        wire->forget();
        EXPECT_TRUE(wire->hearsOnly({})) << step.lists << " with " << step.denying;
    }
}

/// A second VRF, "red", whose interface up1 has the address of the other one's up0.
/// There is no VRF device in many kernels; as far as links go a bridge looks like one.
TEST_F(AgentRoutesTest, PortsOfAVrfDeviceAreItsInterfaces) {
    near->addRoute("10.0.0.1", "239.1.1.2"); // of another VRF's table
    start("[vrf.red]\ndevice = 'vrf-red'\n[interface.up0]\nvrf = 'red'\n"
          "unsolicited-report-interval = 0.1\n[interface.up0.group]\n'239.1.1.1' = {}\n");
    Lines const joins{"TO_EX 239.1.1.1", "TO_EX 239.1.1.1"};
    Lines const leaves{"TO_IN 239.1.1.1", "TO_IN 239.1.1.1"};
    EXPECT_TRUE(agent->says("up0: is no port of vrf-red")) << agent->output();
    net->nearIp("link add vrf-red type bridge mcast_snooping 0");
    net->nearIp("link set vrf-red up");
    EXPECT_TRUE(wire->hearsOnly({}));
    net->nearIp("link set up0 master vrf-red");
    EXPECT_TRUE(wire->hearsOnly(joins)) << agent->output();
    EXPECT_EQ(nlohmann::json::parse(ask("interfaces --json").text).at("interfaces")[0].at("vrf"),
              "red");
    net->nearIp("link set up0 nomaster");
    EXPECT_TRUE(wire->hearsOnly(leaves)) << agent->output();
    net->nearIp("link set up0 master vrf-red");
    EXPECT_TRUE(wire->hearsOnly(joins));
    net->nearIp("link set vrf-red down name vrf-blue");
    EXPECT_TRUE(wire->hearsOnly(leaves));
    net->nearIp("link set vrf-blue name vrf-red");
    EXPECT_TRUE(wire->hearsOnly(joins));
    net->nearIp("link del vrf-red");
    EXPECT_TRUE(wire->hearsOnly(leaves));
}

class AgentVrfTest : public AgentRoutesTest {
  protected:
    void SetUp() override {
        AgentRoutesTest::SetUp();
        if (!net) return;
        red = network();
        doRename();
        redNear.emplace(*red, "up1");
        near->addRoute("10.0.0.3", "239.1.1.2");
        redNear->addRoute("10.0.0.4", "239.1.1.2");
    }
    void doRename() const {
        red->nearIp("link set up0 down name up1");
        red->nearIp("link set up1 up");
    }
    std::string inRed(std::string const& groups) const {
        return "[vrf.red]\nnamespace = '" + red->nearName() +
               "'\n[interface.up1]\nvrf = 'red'\nunsolicited-report-interval = 0.1\n"
               "[interface.up1.group]\n" +
               groups;
    }
    testing::AssertionResult redLearned(Lines const& table) const { return learned(table, *red); }

    std::unique_ptr<Netns> red;
    std::optional<RoutedNetns> redNear;
};

std::string const here = groupsOn("up0", "'239.1.1.1' = { include = ['10.0.0.1'] }\n");
std::string const there = "'239.1.1.1' = { include = ['10.0.0.2'] }\n";
Lines const hereTold = twice({"ALLOW 239.1.1.1 10.0.0.1", "ALLOW 239.1.1.2 10.0.0.3"});
Lines const hereLearned{"down0 239.1.1.1 include 10.0.0.1", "down0 239.1.1.2 include 10.0.0.3"};
Lines const thereLearned{"down0 239.1.1.1 include 10.0.0.2", "down0 239.1.1.2 include 10.0.0.4"};

TEST_F(AgentVrfTest, VrfsWithTheSameAddressesAndGroupsDoNotMix) {
    start(here + inRed(there));
    ASSERT_TRUE(wire->hears(hereTold));
    EXPECT_TRUE(learned(hereLearned));
    EXPECT_TRUE(redLearned(thereLearned));

    // What happens in one is nothing to the other.
    wire->forget();
    redNear->removeRoute("10.0.0.4", "239.1.1.2");
    redNear->addRoute("10.0.0.3", "239.1.1.3");
    reload(here + inRed(""));
    EXPECT_TRUE(redLearned({"down0 239.1.1.3 include 10.0.0.3"}));
    redNear->closeRouter();
    EXPECT_TRUE(redLearned({}));
    EXPECT_TRUE(wire->hearsOnly({}));
    EXPECT_EQ(net->bridgeTable(), hereLearned);
}

TEST_F(AgentVrfTest, NamespaceThatIsDeletedAndMadeAgainHeals) {
    start(here + inRed(there));
    ASSERT_TRUE(wire->hears(hereTold));
    EXPECT_TRUE(redLearned(thereLearned));
    std::size_t const descriptors = agent->openDescriptors();
    wire->forget();
    for (int i = 0; i < 2; ++i) {
        redNear.reset();
        red->removeNear();
        // Its end of the link is gone when the agent holds nothing of it any more.
        EXPECT_TRUE(waitUntil([&] {
            return red->farIp("-brief link show").find("down0") == std::string::npos;
        })) << agent->output();
        EXPECT_TRUE(redLearned({}));
        red->addNear();
        doRename();
        redNear.emplace(*red, "up1");
        redNear->addRoute("10.0.0.4", "239.1.1.2");
        EXPECT_TRUE(redLearned(thereLearned));
    }
    EXPECT_TRUE(opens(descriptors));
    EXPECT_TRUE(wire->hearsOnly({}));
    EXPECT_EQ(net->bridgeTable(), hereLearned);
    agent->signal(SIGTERM);
    EXPECT_EQ(agent->exitStatus(), 0);
    EXPECT_TRUE(redLearned({}));
}

TEST_F(AgentVrfTest, ReloadAddsAndRemovesVrfsBesideOthers) {
    // Else the agent would give up what enters namespaces.
    std::string const file = here + "[vrf.none]\n";
    start(file);
    ASSERT_TRUE(wire->hears(hereTold));
    std::size_t const descriptors = agent->openDescriptors();
    wire->forget();
    for (int i = 0; i < 2; ++i) {
        reload(file + inRed(there));
        EXPECT_TRUE(redLearned(thereLearned));
        reload(file);
        EXPECT_TRUE(redLearned({}));
        // An interface that is gone goes on to tell its leaves.
        EXPECT_TRUE(opens(descriptors));
    }
    // Under another name; then the interface leaves the VRF for the default one, which lacks it.
    std::string blue = inRed(there);
    for (auto at = blue.find("red"); at != blue.npos; at = blue.find("red"))
        blue.replace(at, 3, "blue");
    reload(file + inRed(there));
    EXPECT_TRUE(redLearned(thereLearned));
    reload(file + blue);
    EXPECT_TRUE(redLearned(thereLearned));
    reload(file + groupsOn("up1", there));
    EXPECT_TRUE(redLearned({}));
    EXPECT_TRUE(wire->hearsOnly({}));
    EXPECT_EQ(net->bridgeTable(), hereLearned);
}

TEST_F(AgentRoutesTest, GroupsAnnouncedBeforeAreLeftOnlyOnceTheRoutesAreKnown) {
    near->addRoute("10.0.0.1", "239.2.0.1");
    near->addRoute("10.0.0.2", "239.2.0.2");
    start("[interface.up0]\nunsolicited-report-interval = 0.1\n");
    ASSERT_TRUE(wire->hears(twice({"ALLOW 239.2.0.1 10.0.0.1", "ALLOW 239.2.0.2 10.0.0.2"})));
    crash({"239.2.0.1", "239.2.0.2"});
    near->removeRoute("10.0.0.2", "239.2.0.2");
    wire->forget();
    start("[interface.up0]\nunsolicited-report-interval = 0.1\n");
    Lines const now = twice({"ALLOW 239.2.0.1 10.0.0.1", "BLOCK 239.2.0.2 10.0.0.2"});
    EXPECT_TRUE(wire->hearsOnly(now));
    net->nearIp("addr del 10.99.0.2/24 dev up0");
    EXPECT_TRUE(agent->says("up0: has no IPv4 address\n"));
    net->nearIp("addr add 10.99.0.2/24 dev up0");
    Lines const again = twice({"ALLOW 239.2.0.1 10.0.0.1"});
    EXPECT_TRUE(wire->hearsOnly(again));
}

} // namespace
} // namespace Testing
