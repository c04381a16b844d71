// Whoever watches a record that the library writes may change the world from inside a callback.
// Here somebody does: at every notification of every scenario, every change of a table, one at a
// time. Whatever the moment, the state in the end is the one that a root machine makes that is
// started afresh on the inputs as they are then.
#include "Play.h"

#include <cstdlib>
#include <functional>
#include <iostream>

namespace IgmpHostProxy {
namespace {

/// A world with what the operator and the routing daemon write into it. Each way to write does
/// nothing where somebody has taken away what it is about.
///
/// Lists are attached to a host that has appeared, and detached as it goes, so that each of their
/// rules counts once.
struct Life : Play {
    Life() { attacher.make(hostDir, this); }
    /// Another life on the same inputs, which does not know how they came about. VRFs come last, so
    /// that each host is published while its own interface is set up.
    explicit Life(Life const& other) : Life() {
        config = other.config;
        mfibDir = other.mfibDir;
        aclConfig = other.aclConfig;
        ipStatus = other.ipStatus;
        allIntfStatusDir = other.allIntfStatusDir;
        allIntfStatusLocalDir = other.allIntfStatusLocalDir;
        for (auto const& item : other.addresses.walk())
            addressOf(item.key.stringValue(), item.value.stringValue());
        kniTables_ = other.kniTables_;
        attached = other.attached;
        for (auto const& item : config->intfConfig()) item.value->aclListDelAll();
        start();
        for (auto const& item : other.allVrfStatusLocal->vrf())
            doEvents("vrf " + item.key.stringValue() + " " +
                     item.value->networkNamespace().stringValue());
        pass(3);
    }

    void doEvent(Words const& a) override {
        if (a[0] == "attach" || a[0] == "detach") {
            std::erase(attached, a[1]);
            if (a[0] == "attach") attached.push_back(a[1]);
            for (auto const& item : hostDir->igmpHost())
                doAttach(Lox::IntfId(item.key), a[1], a[0] == "attach");
        } else if (a[0] == "renew-host-status") {
            // Bound anew, a host has the address of the interface that was set up last.
            if (root && root->srcIntfIhpIntf() && root->srcIntfIhpIntf()->intfId() != up0) return;
            hostStatusDir->igmpHostStatusDel("up0");
            if (host("up0")) hostStatusDir->igmpHostStatusIs("up0");
        } else if (a[0] == "renew-table") {
            Nex::Ptr<Table> const before = tableOf(a[1]);
            tables_.erase(a[1]);
            doTable(a[1], a[1], a[2]);
            Nex::Ptr<Table> const table = tableOf(a[1]);
            for (auto const& item : before->route()) table->routeIs(item.key, item.value);
        } else if (a[0][0] == '-') { // the group goes with its last source
            bool const include = a[0][1] == 'i';
            Lox::IpAddr const source = address(a[0].substr(2)), group = address(a[1]);
            Nex::Ptr<GroupSource> const entry = configOf("")->groupSourceList(group);
            if (!entry) return;
            doWrite(*entry, false, include, source);
            if (entry->empty()) configOf("")->groupSourceListDel(group);
            takeBack(*configOf(""), source, group, include);
        } else {
            Play::doEvent(a);
            if (a[0] == "no-rule" && !rulesOf(a[1])->ruleBySequenceHas(number(a[2])))
                rulesOf(a[1])->ipRuleByIdDel(Acl::UniqueId(number(a[2])));
        }
    }
    /// All that the library has written, and its counts. The filter mode of a host's record is left
    /// out: it is that of whichever list changed last.
    Lines state() const {
        if (!root) return {};
        Lines lines = dump();
        std::erase_if(lines, [](auto const& line) { return line.find("filterMode") != line.npos; });
        for (auto const& item : status->intfStatus()) {
            auto const* const machine = root->igmpHostProxyIntfSm(item.key);
            if (!machine) {
                // Without tables it may be there or not, and says nothing.
                std::string const start = "intfStatus[" + Nex::textOf(item.key) + "]";
                std::erase_if(lines, [&](auto const& line) { return line.starts_with(start); });
                continue;
            }
            lines.push_back("source " + machine->srcIntfIhpIntf()->intfId().stringValue());
            machine->groupSourceRefCounter().forGroups([&, &m = *machine](Lox::IpAddr group) {
                lines.push_back(nameOf(group) + " counts" + countsOf(m, group));
            });
            for (auto const& helper : machine->igmpHostProxyAclHelper())
                for (auto const& cached : helper.value->cachedRules())
                    lines.push_back(helper.key + " applied rule " + Nex::textOf(cached.key));
        }
        for (auto const& item : entityManager->mounted()) lines.push_back("mounted " + item.key);
        std::sort(lines.begin(), lines.end());
        return lines;
    }

    struct Attacher : Nex::Reactor<Igmp::IgmpHostDir::NotifieeConst, Nex::PtrInterface> {
        Attacher(Nex::Ptr<Igmp::IgmpHostDir const> hosts, Life* life)
            : Reactor(std::move(hosts), static_cast<Nex::PtrInterface*>(nullptr)), life_(life) {}
        void onIgmpHost(Nex::Name name) override {
            for (auto const& list : std::vector(life_->attached))
                life_->doAttach(Lox::IntfId(name), list, notifier()->igmpHostHas(name));
        }
        Life* life_;
    };
    void doAttach(Lox::IntfId const& intf, std::string const& list, bool present) const {
        if (Nex::Ptr<IntfConfig> const record = config->intfConfig(intf))
            present ? record->aclListIs(list) : record->aclListDel(list);
    }
    std::vector<std::string> attached;
    Nex::Owned<Attacher> attacher;
};

std::string const rules = "new-rules v; rule v 1 permit 1 g0/30; rule v 2 deny 1 239.3.0.0/31;"
                          "rule v 3 permit * 239.4.0.0/31;";
std::string const iptv = rules + "force iptv v";
std::string const iptvWithDenyAll = rules + "rule v 6 deny * 0.0.0.0/0; force iptv v";
std::string const iptvAnew =
    "new-rules v; rule v 2 deny 1 239.3.0.0/31; rule v 4 permit 2 g0/31; force iptv v";
/// Has a pair of the other list, and one that the other list excludes.
std::string const news = "new-rules n; rule n 1 permit 1 g2; rule n 2 permit 1 239.3.0.0/31;"
                         "rule n 3 permit 2 g1; force news n";

/// All inputs but those of the interface itself.
std::string const prepare =
    "configure up0; +i1 g1; +e2 g5.1; +e* 239.4.1.1;" + iptv + ";" + news +
    "; attach iptv; table t t blue;"
    "route t 1 239.2.0.1; route t 2 239.2.0.1; route t 1 239.2.0.2; route t 2 239.2.0.2";
std::string const comeUp = "start; vrf blue ns-blue; intf up0 2 blue";
std::string const beUp = prepare + ";" + comeUp + "; +1";

/// A second interface in a VRF of its own, with tables of its own. It has the lists, too.
std::string const prepareTwo =
    prepare + "; configure up1; table u u green; route u 1 239.2.0.2; route u 2 239.2.0.5";
std::string const comeUpTwo = comeUp + "; vrf green ns-green; intf up1 3 green";

struct Scenario {
    std::string title, before, act;
    friend void PrintTo(Scenario const& scenario, std::ostream* out) { *out << scenario.title; }
};
Scenario const scenarios[] = {
    {"an interface comes up", prepare, comeUp},
    {"lists are attached and detached", beUp, "attach news; detach iptv; attach iptv; detach news"},
    {"lists are edited", beUp,
     "rule iptv 5 permit 2 g0/31; no-rule iptv 1;" + iptvAnew + "; no-list iptv;" + iptv},
    {"groups are configured and taken back", beUp,
     "+i2 g2; +i1 239.3.0.0; +e* 239.4.0.1; -e2 g5.1; -i1 g1; -e* 239.4.1.1; -e* 239.4.0.1; +i1 "
     "g1"},
    {"routes come and go", beUp,
     "route t 1 239.2.0.3; route t * 239.2.0.1; +1; no-route t 1 239.2.0.3;"
     "no-route t * 239.2.0.1; +1"},
    {"routes are shut out and let in", beUp, iptvWithDenyAll + "; +1;" + iptv},
    {"an interface goes down and comes back", beUp,
     "delist-intf up0; list-intf up0 ns-blue; address up0 0.0.0.0; address up0 198.51.100.2;"
     "device up0 5 ns-blue"},
    {"interfaces of two VRFs come up", prepareTwo, comeUpTwo},
    {"lists and tables of two VRFs change", prepareTwo + ";" + comeUpTwo + "; +1",
     "rule iptv 5 permit 2 239.2.0.4/31; route u * 239.2.0.2; no-route t 1 239.2.0.2; +1; no-rule "
     "iptv 5; no-tables green; renew-table u green; no-list news;" +
         news},
};

struct Change {
    char const* name;
    std::string happen;
    std::string undo; ///< empty for what undoes itself, or cannot be undone
};
std::string const deviceGoes = "address up0 0.0.0.0; delist-intf up0";
std::string const deviceComes = "address up0 198.51.100.2; list-intf up0 ns-blue";
Change const changes[] = {
    {"nothing", "", ""},
    {"a list is detached", "detach iptv", "attach iptv"},
    {"a list goes", "no-list iptv", iptv},
    {"another version is in force", iptvAnew, iptv},
    {"a rule is added", "rule iptv 7 permit 2 g2/31", "no-rule iptv 7"},
    {"a rule is withdrawn", "no-rule iptv 1", "rule iptv 1 permit 1 g0/30"},
    {"everything is denied", "rule iptv 6 deny * 0.0.0.0/0", "no-rule iptv 6"},
    {"a source is configured", "+i1 g2", "-i1 g2"},
    {"a source is excluded", "+e1 g3", "-e1 g3"},
    {"a configured source goes", "-i1 g1", "+i1 g1"},
    {"a route comes", "route t * 239.2.0.2", "no-route t * 239.2.0.2"},
    {"a route goes", "no-route t 1 239.2.0.1", "route t 1 239.2.0.1"},
    // Those of one VRF that go end all interfaces: they go together.
    {"the tables go", "no-tables blue; no-tables green", "renew-table t blue; renew-table u green"},
    {"the device goes", deviceGoes, deviceComes},
    {"the VRF goes", deviceGoes + "; no-vrf blue", "vrf blue ns-blue;" + deviceComes},
    {"the other interface goes", "address up1 0.0.0.0; delist-intf up1; no-vrf green",
     "vrf green ns-green; address up1 198.51.100.3; list-intf up1 ns-green"},
    {"another interface comes up", "configure up2; intf up2 4 blue", ""},
    {"the host agent starts anew", "renew-host-status", ""},
    {"the root goes", "end", ""},
    {"the interface leaves the configuration", "unconfigure up0",
     "configure up0; +i1 g1; attach iptv; attach news"},
    {"the interface is looked at anew", "decide up0", ""},
    {"the settings change", "version 2", "version 3"},
};

/// When a change is undone.
enum Undone { never, atOnce, afterwards };

std::string differences(Lines const& actual, Lines const& expected) {
    std::string text;
    for (auto const& line : actual)
        if (!std::binary_search(expected.begin(), expected.end(), line)) text += "+ " + line + "\n";
    for (auto const& line : expected)
        if (!std::binary_search(actual.begin(), actual.end(), line)) text += "- " + line + "\n";
    return text;
}

/// Disturbs at one notification of the records that the library writes.
Nex::Ptr<Disturber> disturb(Play const& world, unsigned at, std::function<void()> happen) {
    auto const disturber = Nex::newObject<Disturber>(at, std::move(happen));
    disturber->follow(world.status.get());
    disturber->follow(world.hostDir.get());
    disturber->follow(world.hostStatusDir.get());
    disturber->follow(world.sourceIntfSm.get());
    return disturber;
}

/// Plays the scenario, disturbed at one notification. Whether that came.
bool playDisturbed(Scenario const& scenario, Change const& change, Undone undone, unsigned at) {
    Life life;
    life.doEvents(scenario.before);
    auto const disturber = disturb(life, at, [&] {
        life.doEvents(change.happen);
        if (undone == atOnce) life.doEvents(change.undo);
    });
    try {
        life.doEvents(scenario.act);
        life.pass(3);
        if (undone == afterwards && disturber->disturbed()) life.doEvents(change.undo);
        life.pass(3);
        disturber->stop();
        Lines const actual = life.state();
        if (std::exchange(life.root, nullptr)) {
            EXPECT_EQ(differences(actual, Life(life).state()), "");
        }
    } catch (Nex::Exception const& error) {
        ADD_FAILURE() << error.what();
    }
    return disturber->disturbed();
}

// Where programs are slow, or many are run, each change starts elsewhere and skips some
// notifications.
unsigned const stride = [] {
    char const* const text = std::getenv("IHP_STRIDE");
    return text ? unsigned(std::stoul(text)) : IHP_DISTURBANCE_STRIDE;
}();

class Disturbance : public ::testing::TestWithParam<Scenario> {};

TEST_P(Disturbance, EndsAsAFreshStartOnTheSameInputs) {
    unsigned disturbances = 0;
    for (Change const& change : changes)
        for (Undone const undone : {never, atOnce, afterwards}) {
            if (undone != never && change.undo.empty()) continue;
            unsigned at = unsigned(&change - changes) % stride;
            for (bool disturbed = true; disturbed; at += stride) {
                SCOPED_TRACE(GetParam().title + ", " + change.name + " at " + std::to_string(at) +
                             " undone " + std::to_string(undone));
                disturbed = playDisturbed(GetParam(), change, undone, at);
                disturbances += disturbed;
            }
            EXPECT_GT(at, 5u);
        }
    std::cout << disturbances << " disturbances\n";
}

INSTANTIATE_TEST_SUITE_P(Library, Disturbance, ::testing::ValuesIn(scenarios),
                         Support::NameOfScenario());

// A watcher that throws interrupts whoever wrote. The host is filled in the next time, the
// interface goes as a whole, and comes up complete when it is configured anew.
TEST(DisturbanceByAnError, IsMadeGood) {
    std::string const comeUpAnyway = "tables blue; vrf blue ns-blue; configure up0; +i123 g1;"
                                     "+e* g2; intf up0 2 blue";
    Life calm;
    calm.doEvents("start;" + comeUpAnyway);
    bool disturbed = true;
    for (unsigned at = 0; disturbed && !::testing::Test::HasFailure(); ++at) {
        SCOPED_TRACE("thrown at notification " + std::to_string(at));
        Life world;
        auto const disturber =
            disturb(world, at, [] { throw Nex::RangeException("thrown by a watcher"); });
        world.doTurn("start;" + comeUpAnyway);
        world.doEvents(comeUpAnyway + "; decide up0");
        ASSERT_NE(world.host("up0"), nullptr);
        EXPECT_TRUE(world.host("up0")->enablePeriodicReport());
        bool const cameUpCalmly = !disturber->disturbed();
        world.doTurn("unconfigure up0");
        EXPECT_EQ(world.status->intfStatusCount() + world.hostDir->igmpHostCount(), 0u);
        EXPECT_EQ(world.root->igmpHostProxyIntfSm(up0), nullptr);
        disturbed = disturber->disturbed();
        if (cameUpCalmly) continue; // the host agent may have missed the host's end
        world.doEvents(comeUpAnyway);
        EXPECT_EQ(world.dump(), calm.dump());
    }
}

} // namespace
} // namespace IgmpHostProxy
