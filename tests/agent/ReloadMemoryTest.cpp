// A reload for which memory runs out, at each of its allocations in turn.
#include "agent/ConfigurationText.h"
#include "agent/Daemon.h"
#include "agent/Wire.h"
#include "agent/loop/Json.h"
#include "agent/records/Announced.h"
#include "support/Folder.h"
#include "support/RefusedMemory.h"

#include <csignal>

namespace Agent {
namespace {

using Lines = std::vector<std::string>;
using Testing::rule;

std::string const before = R"(
[interface.up0]
igmp-version = 2
access-lists = ["stays", "goes"]
[interface.up0.group]
"239.1.1.1" = {}
"239.1.1.2" = { include = ["10.0.0.1", "10.0.0.2"] }
)" + rule("stays", 10, "239.1.1.0/30", "10.0.0.3") +
                           rule("stays", 20, "239.2.0.0/30", "any") +
                           rule("goes", 10, "239.2.0.0/31", "10.0.0.4");

std::string const after = R"(
[vrf.red]
namespace = "no-such-namespace"
[interface.up0]
access-lists = ["comes", "stays"]
[interface.up0.group]
"239.1.1.2" = { include = ["10.0.0.2", "10.0.0.5"] }
"239.4.0.1" = {}
[interface.up1]
access-lists = ["comes"]
)" + rule("stays", 20, "239.1.1.0/30", "10.0.0.3") +
                          rule("comes", 10, "239.3.0.0/29", "any");

class ReloadMemoryTest : public testing::Test {
  protected:
    void SetUp() override {
        IHP_SKIP_WITHOUT_NETNS();
        setLogLevel(LogLevel::error);
        net.emplace();
        Testing::Netns::addPair(net->nearName(), "up1", "aux1", "10.98.0.1/24");
        net->nearAwaitUp("up1"); // what comes up later would be announced later
        inside.emplace(net->nearName());
        daemon.emplace(Daemon::Options{path, {}, {}, path + "-control"},
                       configurationParse(before, path).configuration,
                       std::vector<InterfaceState>());
        daemon->loop().atEndOfTurn([this] {
            if (--turnsLeft_ <= 0) daemon->loop().stop(0);
        });
        tick_.emplace(daemon->loop(), [this] { tick_->arm(0); });
        doAddRoutes();
        daemon->state().mfibDir->keshColl(L3::VrfName("default"))->keshPtrIs(table.get(), table);
        for (int i = 0; i < 100 && announced().size() < 10; ++i) doTurns(10);
    }
    void TearDown() override { setLogLevel(LogLevel::info); }
    /// Of a group that the configuration selects on one interface, and of one on none; as new ones,
    /// so that they are reviewed.
    void doAddRoutes() const {
        for (char const* const group : {"239.1.1.1", "239.9.9.9"}) {
            Kesh::Multicast::Fib::IpGenRouteKey const key{
                Lox::IpPrefix(Lox::IpAddr("10.0.0.7"), 32), Lox::IpPrefix(Lox::IpAddr(group), 32)};
            table->routeDel(key);
            table->routeIs(key, Kesh::Multicast::Fib::Route{true});
        }
    }
    void doTurns(int turns) {
        turnsLeft_ = turns;
        tick_->arm(0);
        daemon->run();
    }
    void doReload(std::string const& configuration) {
        folder.write("ihproxyd.toml", configuration);
        memory.count = 0;
        std::raise(SIGHUP);
        memory.counting = memory.first != 0;
        doTurns(2); // one in which the signal arrives, at least
        while (daemon->reading()) doTurns(1);
        doTurns(1);
        memory.counting = false;
    }
    /// Until timers have done what is left.
    void doSettle(double seconds = 0.15) {
        double const end = EventLoop::now() + seconds;
        while (EventLoop::now() < end) doTurns(1);
        doTurns(2); // what is due by then, however late that was
    }
    Lines announced() const { return Agent::announced(daemon->state()); }

    Support::Folder folder;
    std::string const path = folder.file("ihproxyd.toml");
    Nex::Ptr<Kesh::Multicast::Fib::Status> const table =
        Kesh::Multicast::Fib::Status::StatusIs("routes");
    std::optional<Testing::Netns> net;
    std::optional<Testing::Netns::Inside> inside;
    std::optional<Daemon> daemon;

  private:
    std::optional<Alarm> tick_;
    int turnsLeft_ = 0;
};

TEST_F(ReloadMemoryTest, EndsWithTheOldOrTheNewConfigurationAndTheNextOneMendsTheRest) {
    doSettle();
    Lines const old = announced();
    doReload(after);
    doSettle();
    Lines const wanted = announced();
    doReload(before);
    doSettle();
    ASSERT_EQ(announced(), old);
    ASSERT_NE(old, wanted);
    ASSERT_EQ(wanted.size(), 24u) << testing::PrintToString(wanted);
    testing::internal::CaptureStderr();
    long refused = 0;
    for (long const length : {1, 40}) {
        for (long at = 1;; at += IHP_REFUSAL_STRIDE * (length == 1 ? 1 : 7)) {
            memory.first = at;
            memory.last = at + length - 1;
            doReload(after);
            bool const reached = memory.count >= at;
            memory.first = 0;
            if (!reached) break;
            if (++refused % 20 == 0) { // routes are reviewed meanwhile
                doAddRoutes();
                doSettle();
            }
            if (length == 1 && (at <= 3 || announced() != old)) { // until it is read, it is owed
                ASSERT_EQ(announced(), wanted) << "refused: allocation " << at;
            }
            doReload(after);
            ASSERT_EQ(announced(), wanted) << "refused: " << length << " from " << at;
            doReload(before);
            ASSERT_EQ(announced(), old) << "refused: " << length << " from " << at;
        }
    }
    testing::internal::GetCapturedStderr();
    EXPECT_GT(refused, 200 / IHP_REFUSAL_STRIDE);
}

TEST_F(ReloadMemoryTest, MachinesThatWaitToBeBuiltAnewHearOfNoReload) {
    Nex::Ptr const status = daemon->state().status->intfStatus(Lox::IntfId("up0"));
    daemon->loop().doReportExhaustion();
    doTurns(1);
    doReload(after);
    EXPECT_EQ(status->groupSourceList(Lox::IpAddr("239.4.0.1")), nullptr);
    EXPECT_EQ(announced().size(), 24u);
}

TEST_F(ReloadMemoryTest, BuildingAnewTellsTheNetworkNothing) {
    Testing::Wire wire(net->farName(), "down0");
    doReload(after);
    Lines const all = announced();
    doSettle(1.2); // until all repeats are out
    ASSERT_FALSE(wire.heard().empty());
    wire.forget();
    Nex::Ptr const host = daemon->state().hostDir->igmpHost("up0");
    daemon->loop().doReportExhaustion();
    doSettle(1.5);
    EXPECT_NE(daemon->state().hostDir->igmpHost("up0"), host) << "it was not built anew";
    EXPECT_EQ(announced(), all);
    EXPECT_EQ(wire.heard(), Lines());
}

TEST(RefusedMemoryTest, JsonValuesEndAndLinesAreWrittenWithoutAny) {
    auto value = nlohmann::json::parse(R"([[1, {"a": [2, 3]}], {"b": {"c": [4]}}])");
    nlohmann::json object, array;
    testing::internal::CaptureStderr();
    memory.refuse(1, 1000);
    log(LogLevel::error, "a long text, for which there is no room: {}", -1);
    EXPECT_THROW(object["a long name, for which there is no room"] = 1, std::bad_alloc);
    EXPECT_THROW(array.push_back("a long text, for which there is no room"), std::bad_alloc);
    value = object = array = nullptr;
    EXPECT_GT(memory.stop(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "error: a long text, for which there is no room: -1\n");
}

} // namespace
} // namespace Agent
