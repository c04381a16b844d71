// Whoever watches a record that the library writes may change the world from inside a callback.
// Here somebody does: at every notification of every scenario, every change of a table, one at a
// time. Whatever the moment, the state in the end is the one that a root machine makes that is
// started afresh on the inputs as they are then.
#include "Disturber.h"
#include "Producers.h"

#include <functional>

namespace IgmpHostProxy {
namespace {

Lox::IpAddr const groupH = ip("239.1.1.2");
std::uint32_t const slash31 = 0xFFFFFFFE;
L3::VrfName const blue("blue");

/// A world with what the operator and the routing daemon write into it. Each way to write does
/// nothing where somebody has taken away what it is about.
///
/// Lists are attached to a host that has appeared, and detached as it goes, so that each of their
/// rules counts once.
struct Life : World {
    Life() { attacher.make(hostDir, this); }
    /// Another life on the same inputs, which does not know how they came about.
    explicit Life(Life const& other) : Life() {
        config = other.config;
        mfibDir = other.mfibDir;
        aclConfig = other.aclConfig;
        ipStatus = other.ipStatus;
        allIntfStatusDir = other.allIntfStatusDir;
        allIntfStatusLocalDir = other.allIntfStatusLocalDir;
        allVrfStatusLocal = other.allVrfStatusLocal;
        for (auto const& item : other.addresses.walk()) addressOf(item.key, item.value);
        for (auto const& item : other.kniTables.walk())
            *kniTables.findOrInsert(item.key).first = item.value;
        attached = other.attached;
        for (auto const& item : config->intfConfig()) item.value->aclListDelAll();
        start();
        pass(3);
    }
    using World::addressOf;
    void addressOf(Lox::IntfId const& intf, Lox::IpAddr address) {
        World::addressOf(intf.stringValue(), address.stringValue());
    }

    void withConfig(std::function<void(IntfConfig&)> const& change) const {
        if (Nex::Ptr<IntfConfig> const record = config->intfConfig(up0)) change(*record);
    }
    void configure(Lox::IpAddr source, Lox::IpAddr group, bool include = true) const {
        withConfig([&](IntfConfig& record) {
            Nex::Ptr<GroupSource> const entry = record.groupSourceListIs(group);
            include ? entry->includeSourceListIs(source) : entry->excludeSourceListIs(source);
        });
    }
    void takeBack(Lox::IpAddr source, Lox::IpAddr group, bool include = true) const {
        withConfig([&](IntfConfig& record) {
            Nex::Ptr<GroupSource> const entry = record.groupSourceList(group);
            if (!entry) return;
            include ? entry->includeSourceListDel(source) : entry->excludeSourceListDel(source);
            if (entry->empty()) record.groupSourceListDel(group);
            IgmpHostProxy::takeBack(record, source, group, include);
        });
    }

    void attach(std::string const& list, bool present = true) {
        std::erase(attached, list);
        if (present) attached.push_back(list);
        if (host("up0")) doAttach(up0, list, present);
    }
    void doAttach(Lox::IntfId const& intf, std::string const& list, bool present) const {
        if (Nex::Ptr<IntfConfig> const record = config->intfConfig(intf))
            present ? record->aclListIs(list) : record->aclListDel(list);
    }
    using Rules = std::vector<std::pair<std::uint32_t, Acl::IpRuleConfig>>;
    /// Puts a whole version of a list in force; a rule's id is its sequence number.
    void listIs(std::string const& list, Rules const& rules) const {
        auto const version = Acl::AclSubConfig::AclSubConfigIs(list);
        for (auto const& [id, rule] : rules) {
            version->ipRuleByIdIs(Acl::UniqueId(id), rule);
            version->ruleBySequenceIs(id, Acl::UniqueId(id));
        }
        aclConfig->aclIs(list)->currCfgIs(version);
    }
    Nex::Ptr<Acl::AclSubConfig> rulesOf(std::string const& list) const {
        Nex::Ptr<Acl::AclConfig> const acl = aclConfig->acl(list);
        return acl ? acl->currCfg() : nullptr;
    }
    void ruleIs(std::string const& list, std::uint32_t id, Acl::IpRuleConfig const& rule) const {
        auto const rules = rulesOf(list);
        if (!rules) return;
        rules->ipRuleByIdIs(Acl::UniqueId(id), rule);
        rules->ruleBySequenceIs(id, Acl::UniqueId(id));
    }
    void ruleDel(std::string const& list, std::uint32_t id) const {
        auto const rules = rulesOf(list);
        if (!rules) return;
        rules->ruleBySequenceDel(id);
        if (!rules->ruleBySequenceHas(id)) rules->ipRuleByIdDel(Acl::UniqueId(id));
    }

    void routeIs(Lox::IpAddr source, Lox::IpAddr group, bool present = true) {
        std::uint8_t const length = source == anySource ? 0 : 32;
        Routing::Multicast::Fib::IpGenRouteKey const key{{source, length}, {group, 32}};
        std::erase(routes, key);
        if (present) routes.push_back(key);
        if (!table) return;
        present ? table->routeIs(key, {true, 0}) : table->routeDel(key);
    }
    /// The tables of the VRF, and their routes after them.
    void tablesAre(bool present) {
        table = present ? Kesh::Multicast::Fib::Status::StatusIs("table") : nullptr;
        if (!present) return mfibDir->keshCollDel(blue);
        Nex::Ptr<Kesh::Multicast::Fib::Status> const held = table;
        mfibDir->keshCollIs(blue)->keshPtrIs(held.get(), held);
        for (auto const& key : std::vector(routes)) held->routeIs(key, {true, 0});
    }

    /// The interface's device and its address.
    void deviceIs(bool present) {
        World::addressOf("up0", present ? "198.51.100.2" : "0.0.0.0");
        if (present) listIntf("up0", "ns-blue");
        if (!present && allIntfStatusDir->intfStatus(up0)) delistIntf("up0");
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
            auto const& counter = machine->groupSourceRefCounter();
            counter.forGroups([&](Lox::IpAddr group) {
                counter.forSources(group, [&](Lox::IpAddr source) {
                    SourceGroup const pair(source, group);
                    lines.push_back(Nex::textOf(pair) + " counts " +
                                    std::to_string(counter.count(pair)));
                });
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
    std::vector<std::string> attached;
    Nex::Owned<Attacher> attacher;
    std::vector<Routing::Multicast::Fib::IpGenRouteKey> routes;
    Nex::Ptr<Kesh::Multicast::Fib::Status> table;
};

struct Scenario {
    char const* name;
    std::function<void(Life&)> before;
    std::function<void(Life&)> act;
    friend void PrintTo(Scenario const& scenario, std::ostream* out) { *out << scenario.name; }
};
struct Change {
    char const* name;
    std::function<void(Life&)> happen;
    std::function<void(Life&)> undo; ///< null for what undoes itself, or cannot be undone
};

Life::Rules const iptv{{1, permit(sourceS, ip("239.1.1.0"), 0xFFFFFFFC)},
                       {2, deny(sourceS, ip("239.3.0.0"), slash31)},
                       {3, permit(anySource, ip("239.4.0.0"), slash31)}};
Life::Rules const iptvAnew{{2, deny(sourceS, ip("239.3.0.0"), slash31)},
                           {4, permit(sourceT, ip("239.1.1.0"), slash31)}};
/// Has a pair of the other list, and one that the other list excludes.
Life::Rules const news{{1, permit(sourceS, groupH)},
                       {2, permit(sourceS, ip("239.3.0.0"), slash31)},
                       {3, permit(sourceT, groupG)}};

void comeUp(Life& life) {
    life.start();
    life.vrf("blue", "ns-blue");
    life.usableIntf("up0", 2, "blue");
}
/// All inputs but those of the interface itself.
void prepare(Life& life) {
    auto const record = life.config->intfConfigIs(up0);
    life.configure(sourceS, groupG);
    life.configure(sourceT, ip("239.1.5.1"), false);
    life.configure(anySource, ip("239.4.1.1"), false);
    life.listIs("iptv", iptv);
    life.listIs("news", news);
    life.attached = {"iptv"};
    life.tablesAre(true);
    for (auto const* const group : {"239.2.0.1", "239.2.0.2"}) {
        life.routeIs(sourceS, ip(group));
        life.routeIs(sourceT, ip(group));
    }
}
void beUp(Life& life) {
    prepare(life);
    comeUp(life);
    life.pass(1);
}

Scenario const scenarios[] = {
    {"an interface comes up", prepare, comeUp},
    {"lists are attached and detached", beUp,
     [](Life& life) {
         life.attach("news");
         life.attach("iptv", false);
         life.attach("iptv");
         life.attach("news", false);
     }},
    {"lists are edited", beUp,
     [](Life& life) {
         life.ruleIs("iptv", 5, permit(sourceT, ip("239.1.1.0"), slash31));
         life.ruleDel("iptv", 1);
         life.listIs("iptv", iptvAnew);
         life.aclConfig->aclDel("iptv");
         life.listIs("iptv", iptv);
     }},
    {"groups are configured and taken back", beUp,
     [](Life& life) {
         life.configure(sourceT, groupH);
         life.configure(sourceS, ip("239.3.0.0"));
         life.configure(anySource, ip("239.4.0.1"), false);
         life.takeBack(sourceT, ip("239.1.5.1"), false);
         life.takeBack(sourceS, groupG);
         life.takeBack(anySource, ip("239.4.1.1"), false);
         life.takeBack(anySource, ip("239.4.0.1"), false);
         life.configure(sourceS, groupG);
     }},
    {"routes come and go", beUp,
     [](Life& life) {
         life.routeIs(sourceS, ip("239.2.0.3"));
         life.routeIs(anySource, ip("239.2.0.1"));
         life.pass(1);
         life.routeIs(sourceS, ip("239.2.0.3"), false);
         life.routeIs(anySource, ip("239.2.0.1"), false);
         life.pass(1);
     }},
    {"routes are shut out and let in", beUp,
     [](Life& life) {
         Life::Rules withDenyAll = iptv;
         withDenyAll.emplace_back(6, denyAll);
         life.listIs("iptv", withDenyAll);
         life.pass(1);
         life.listIs("iptv", iptv);
     }},
    {"an interface goes down and comes back", beUp,
     [](Life& life) {
         life.delistIntf("up0");
         life.listIntf("up0", "ns-blue");
         life.World::addressOf("up0", "0.0.0.0");
         life.World::addressOf("up0", "198.51.100.2");
         life.kernelDevice("up0", 5, "ns-blue");
     }},
};

Change const changes[] = {
    {"nothing", [](Life&) {}, nullptr},
    {"a list is detached", [](Life& life) { life.attach("iptv", false); },
     [](Life& life) { life.attach("iptv"); }},
    {"a list goes", [](Life& life) { life.aclConfig->aclDel("iptv"); },
     [](Life& life) { life.listIs("iptv", iptv); }},
    {"another version is in force", [](Life& life) { life.listIs("iptv", iptvAnew); },
     [](Life& life) { life.listIs("iptv", iptv); }},
    {"a rule is added",
     [](Life& life) { life.ruleIs("iptv", 7, permit(sourceT, ip("239.1.1.2"), slash31)); },
     [](Life& life) { life.ruleDel("iptv", 7); }},
    {"a rule is withdrawn", [](Life& life) { life.ruleDel("iptv", 1); },
     [](Life& life) { life.ruleIs("iptv", 1, iptv[0].second); }},
    {"everything is denied", [](Life& life) { life.ruleIs("iptv", 6, denyAll); },
     [](Life& life) { life.ruleDel("iptv", 6); }},
    {"a source is configured", [](Life& life) { life.configure(sourceS, groupH); },
     [](Life& life) { life.takeBack(sourceS, groupH); }},
    {"a source is excluded", [](Life& life) { life.configure(sourceS, ip("239.1.1.3"), false); },
     [](Life& life) { life.takeBack(sourceS, ip("239.1.1.3"), false); }},
    {"a configured source goes", [](Life& life) { life.takeBack(sourceS, groupG); },
     [](Life& life) { life.configure(sourceS, groupG); }},
    {"a route comes", [](Life& life) { life.routeIs(anySource, ip("239.2.0.2")); },
     [](Life& life) { life.routeIs(anySource, ip("239.2.0.2"), false); }},
    {"a route goes", [](Life& life) { life.routeIs(sourceS, ip("239.2.0.1"), false); },
     [](Life& life) { life.routeIs(sourceS, ip("239.2.0.1")); }},
    {"the tables go", [](Life& life) { life.tablesAre(false); },
     [](Life& life) { life.tablesAre(true); }},
    {"the device goes", [](Life& life) { life.deviceIs(false); },
     [](Life& life) { life.deviceIs(true); }},
    {"the VRF goes",
     [](Life& life) {
         life.deviceIs(false);
         life.allVrfStatusLocal->vrfDel(blue);
     },
     [](Life& life) {
         life.vrf("blue", "ns-blue");
         life.deviceIs(true);
     }},
    {"the host agent starts anew",
     [](Life& life) {
         life.hostStatusDir->igmpHostStatusDel("up0");
         if (life.host("up0")) life.hostStatusDir->igmpHostStatusIs("up0");
     },
     nullptr},
    {"the root goes", [](Life& life) { life.root = nullptr; }, nullptr},
    {"the interface leaves the configuration", [](Life& life) { life.config->intfConfigDel(up0); },
     [](Life& life) {
         life.config->intfConfigIs(up0);
         life.configure(sourceS, groupG);
         if (life.host("up0"))
             for (auto const& list : life.attached) life.doAttach(up0, list, true);
     }},
    {"the interface is looked at anew",
     [](Life& life) {
         if (life.root) life.root->handleIntfConfig(up0);
     },
     nullptr},
    {"the settings change",
     [](Life& life) {
         life.withConfig([](IntfConfig& record) { record.igmpVersionIs(IgmpVersion::v2); });
     },
     [](Life& life) {
         life.withConfig([](IntfConfig& record) { record.igmpVersionIs(IgmpVersion::v3); });
     }},
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
Nex::Ptr<Disturber> disturb(World const& world, unsigned at, std::function<void()> happen) {
    auto const disturber = Nex::newObject<Disturber>(at, std::move(happen));
    disturber->follow(world.status.get());
    disturber->follow(world.hostDir.get());
    disturber->follow(world.hostStatusDir.get());
    disturber->follow(world.sourceIntfSm.get());
    return disturber;
}

/// Plays the scenario, disturbed at one notification. Whether that came.
bool play(Scenario const& scenario, Change const& change, Undone undone, unsigned at) {
    Life life;
    scenario.before(life);
    auto const disturber = disturb(life, at, [&] {
        change.happen(life);
        if (undone == atOnce) change.undo(life);
    });
    try {
        scenario.act(life);
        life.pass(3);
        if (undone == afterwards && disturber->disturbed()) change.undo(life);
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

// Where programs are slow, each change starts elsewhere and skips some notifications.
constexpr unsigned stride = IHP_DISTURBANCE_STRIDE;

class Disturbance : public ::testing::TestWithParam<Scenario> {};

TEST_P(Disturbance, EndsAsAFreshStartOnTheSameInputs) {
    for (Change const& change : changes)
        for (Undone const undone : {never, atOnce, afterwards}) {
            if (undone != never && !change.undo) continue;
            unsigned at = unsigned(&change - changes) % stride;
            for (bool disturbed = true; disturbed; at += stride) {
                SCOPED_TRACE(std::string(GetParam().name) + ", " + change.name + " at " +
                             std::to_string(at) + " undone " + std::to_string(undone));
                disturbed = play(GetParam(), change, undone, at);
            }
            EXPECT_GT(at, 5u);
        }
}

INSTANTIATE_TEST_SUITE_P(Library, Disturbance, ::testing::ValuesIn(scenarios),
                         [](auto const& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), ' ', '_');
                             return name;
                         });

// The root's one slot is for whichever interface came last: each has its own source all the same.
TEST(DisturbanceByAnotherInterface, LeavesEachItsOwn) {
    for (unsigned at = 0;; ++at) {
        SCOPED_TRACE(at);
        Life life;
        prepare(life);
        auto const disturber = disturb(life, at, [&] {
            life.config->intfConfigIs(up1);
            life.usableIntf("up1", 3, "blue");
        });
        comeUp(life);
        if (!disturber->disturbed()) break;
        for (auto const& [intf, address] : {std::pair(up0, "192.0.2.2"), {up1, "192.0.2.3"}}) {
            auto const* const machine = life.root->igmpHostProxyIntfSm(intf);
            auto const* const binding = life.root->igmpHostIntfSm(intf);
            ASSERT_TRUE(machine && binding) << intf;
            EXPECT_EQ(machine->srcIntfIhpIntf()->intfId(), intf);
            EXPECT_EQ(binding->srcIntfIhpIntf()->intfId(), intf);
            EXPECT_EQ(life.host(intf.stringValue())->ipAddr(), ip(address));
        }
    }
}

// A watcher that throws interrupts whoever wrote. The host is filled in the next time, the
// interface goes as a whole, and comes up complete when it is configured anew.
TEST(DisturbanceByAnError, IsMadeGood) {
    auto const comeUpAnyway = [](Life& life) {
        if (!life.root) life.start();
        life.tables("blue");
        life.vrf("blue", "ns-blue");
        life.config->intfConfigIs(up0);
        for (auto const source : {sourceS, sourceT, ip("10.0.0.3")}) life.configure(source, groupG);
        life.configure(anySource, groupH, false);
        life.usableIntf("up0", 2, "blue");
    };
    Life calm;
    comeUpAnyway(calm);
    for (unsigned at = 0;; ++at) {
        SCOPED_TRACE("thrown at notification " + std::to_string(at));
        Life world;
        auto const disturber =
            disturb(world, at, [] { throw Nex::RangeException("thrown by a watcher"); });
        auto const attempt = [&](auto const& act) {
            try {
                act();
            } catch (Nex::RangeException const&) {
            }
        };
        attempt([&] { comeUpAnyway(world); });
        comeUpAnyway(world);
        world.root->handleIntfConfig(up0);
        ASSERT_NE(world.host("up0"), nullptr);
        EXPECT_TRUE(world.host("up0")->enablePeriodicReport());
        bool const cameUpCalmly = !disturber->disturbed();
        attempt([&] { world.config->intfConfigDel(up0); });
        EXPECT_EQ(world.status->intfStatusCount() + world.hostDir->igmpHostCount(), 0u);
        EXPECT_EQ(world.root->igmpHostProxyIntfSm(up0), nullptr);
        if (!disturber->disturbed()) break;
        if (cameUpCalmly) continue; // the host agent may have missed the host's end
        comeUpAnyway(world);
        EXPECT_EQ(world.dump(), calm.dump());
        if (::testing::Test::HasFailure()) break;
    }
}

} // namespace
} // namespace IgmpHostProxy
