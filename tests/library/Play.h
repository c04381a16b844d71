// A world that is written and looked at by words, for tests that are written down as text.
//
// 1 to 9 are the sources 10.0.0.1 and so on, * is any source; g3 is 239.1.1.3, g2.3 is 239.1.2.3;
// "+i12 g1" configures sources, "-i1" takes one back, "s+e*" writes into the status itself: see
// doSources(). doEvent() names the events, fact() what is to be known.
#pragma once

#include "Disturber.h"
#include "Library.h"
#include "support/Scenario.h"

#include <list>
#include <map>

namespace IgmpHostProxy {

using Support::parts;
using Support::words;
using Support::Words;

template <>
struct Watch<Vardo::EntityManager> : Nex::Reactor<Vardo::EntityManager::NotifieeConst, Disturber> {
    using Reactor::Reactor;
    void onMounted(Nex::String) override { machine()->hear(nullptr); }
};

inline std::string joined(Words const& all, char const* between) {
    std::string text;
    for (auto const& each : all) text += (&each == all.data() ? "" : between) + each;
    return text;
}

/// A platform whose time is moved by hand and whose kernel tables can be filled before anybody
/// mounts them. What an event does not name is about interface up0.
class Play : public Support::InProcessPlatform, Nex::TraceSink {
  public:
    Play() {
        Nex::TraceHandle::sinkIs(this);
        entityManager->factoryIs("KernelNetInfo::Status", [this](Nex::String const& path) {
            if (path == pathOf(refused_)) throw Nex::RangeException(path);
            return kniTable(path);
        });
    }
    ~Play() {
        traceHandle.levelIs(0);
        Nex::TraceHandle::sinkIs(nullptr);
    }
    void doEvents(std::string const& text) {
        for (auto const& event : parts(text, ';'))
            if (Words a = words(event); !a.empty()) {
                a.resize(8);
                doEvent(a);
            }
    }
    /// A turn of a scenario. What it throws is a fact.
    void doTurn(std::string const& events) {
        traced_.clear();
        stamps_ = stamps();
        std::size_t const colon = events.find(": ");
        attempt([&] {
            if (events.starts_with("when"))
                doWhen(parts(events.substr(0, colon), '='), events.substr(colon + 1));
            else
                doEvents(events);
        });
    }
    void attempt(std::function<void()> const& act) {
        thrown_ = "nothing";
        try {
            act();
        } catch (std::exception const& error) {
            thrown_ = error.what();
        }
    }
    /// Moves the time on, firing all timers on the way at their times.
    void pass(double seconds) {
        double const end = time.now() + seconds;
        for (;;) {
            double const next = std::min(clock->nextExpiry(), timerWheel->nextExpiry());
            if (next > end) break;
            time.nowIs(std::max(next, time.now()));
            clock->timeIs(time.now());
            timerWheel->timeIs(time.now());
        }
        time.nowIs(end);
    }
    /// The whole state that the library writes.
    Lines dump() const {
        Lines lines = Dump::of(*status);
        Lines const hosts = Dump::of(*hostDir);
        lines.insert(lines.end(), hosts.begin(), hosts.end());
        return lines;
    }
    /// In the last turn, "LEVEL TEXT" for each line.
    Lines const& traced() const { return traced_; }
    /// Whether something is to happen still inside a notification.
    bool waits() const {
        return !std::all_of(nested_.begin(), nested_.end(), std::mem_fn(&Nested::happened));
    }

  protected:
    using W = Words const&; ///< an event
    using Table = Kesh::Multicast::Fib::Status;
    using Directory = Interface::DeviceIntfStatusDir;
    using Counters = Igmp::IgmpHostStatus;

    // Words
    static Lox::IpAddr address(std::string const& word) {
        if (word == "*") return anySource;
        if (word.size() == 1) return ip("10.0.0." + word);
        if (word[0] != 'g') return ip(word);
        return ip((word.find('.') == word.npos ? "239.1.1." : "239.1.") + word.substr(1));
    }
    /// "g1,g3", or "g1..3" for all from g1 to g3.
    static std::vector<Lox::IpAddr> allOf(std::string const& word) {
        std::vector<Lox::IpAddr> all;
        for (auto const& part : parts(word, ',')) {
            std::size_t const dots = part.find("..");
            Lox::IpAddr const first = address(part.substr(0, dots));
            auto const last = dots == part.npos ? first : address("g" + part.substr(dots + 2));
            for (std::uint32_t host = first.host(); host <= last.host(); ++host)
                all.push_back(Lox::IpAddr::fromHost(host));
        }
        return all;
    }
    static std::uint32_t number(std::string const& word) { return std::uint32_t(std::stoul(word)); }
    /// "g0/30" or "g0/255.255.0.255"; without a mask, a single address, or any.
    static Lox::IpAddrWithFullMask range(std::string const& word) {
        Words const split = parts(word, '/');
        Lox::IpAddr const base = address(split[0]);
        if (split.size() == 1) return {base, base == anySource ? 0 : ~0u};
        bool const dotted = split[1].find('.') != std::string::npos;
        return {base,
                dotted ? ip(split[1]).host() : std::uint32_t(~0ull << (32 - number(split[1])))};
    }
    /// "-" is the empty name.
    static std::string orDefault(std::string const& name,
                                 std::string const& otherwise = "default") {
        return name.empty() ? otherwise : name == "-" ? "" : name;
    }
    static std::string seconds(double time) {
        std::ostringstream text;
        time == Nex::never ? text << "never" : text << std::round(time * 1000) / 1000;
        return text.str();
    }

    /// What is to happen inside a notification.
    struct Nested {
        std::string last; ///< what the fact was that is waited for
        bool happened = false;
        Nex::Ptr<Disturber> watch = nullptr;
    };

    /// The record of that name, made when there is none.
    template <class Record, class Make>
    static Nex::Ptr<Record> named(std::map<std::string, Nex::Ptr<Record>>& records,
                                  std::string const& name, Make make) {
        auto& record = records[name];
        return record ? record : record = make();
    }

    void onTrace(Nex::TraceHandle const&, unsigned level, std::string const& text) override {
        std::string& line = traced_.emplace_back(std::to_string(level) + " " + text);
        line.erase(line.find_last_not_of(' ') + 1);
        for (auto const& [name, table] : tables_) doName(line, table.get(), name);
        if (!root || !root->igmpHostProxyIntfSm(up0)) return;
        for (auto const& item : machine().igmpHostProxyAclHelper())
            doName(line, item.value.get(), item.key);
    }
    static std::string pathOf(std::string const& ns) { return "kni/ns/" + ns + "/status"; }
    Nex::Ptr<KernelNetInfo::Status> kniTable(Nex::String const& path) {
        return named(kniTables_, path, [&] { return KernelNetInfo::Status::StatusIs(path); });
    }
    /// Everything that a usable interface has. The VRF "default" lies in the namespace of that
    /// name, any other in "ns-" and its name.
    void doIntf(std::string const& intf, std::string const& index, std::string const& vrf) {
        std::string const ns = vrf == "default" ? vrf : "ns-" + vrf;
        vrfOfIntf(intf, vrf);
        addressOf(intf, "192.0.2." + index);
        doDevice({"", intf, index, ns, "", ""});
        listIntf(intf, ns);
    }
    static void doName(std::string& line, void const* object, std::string const& name) {
        std::string const address = Nex::textOf(object);
        if (auto const at = line.find(address); at != line.npos)
            line.replace(at, address.size(), name);
    }

    IgmpHostProxyIntfSm& machine() const { return *root->igmpHostProxyIntfSm(up0); }
    IgmpHostIntfSm& binding() const { return *root->igmpHostIntfSm(up0); }
    KernelVrfIntfStatus* view(std::string const& vrf) const {
        return root->kernelVrfIntfStatus(L3::VrfName(vrf));
    }
    // Records by name: "" is the world's own, while there is one, and "nothing" is null.
    Nex::Ptr<IntfConfig> configOf(std::string const& name) {
        if (name == "nothing") return nullptr;
        if (Nex::Ptr<IntfConfig> const record = config->intfConfig(up0); record && name.empty())
            return record;
        return named(configs_, name, [] { return IntfConfig::IntfConfigIs(up0); });
    }
    Nex::Ptr<IntfStatus> statusOf(std::string const& name) {
        if (name == "nothing") return nullptr;
        if (name.empty()) return intfStatus("up0");
        return named(statuses_, name, [] { return IntfStatus::IntfStatusIs(up0); });
    }
    /// A list's rules in force, or a version of its own.
    Nex::Ptr<Acl::AclSubConfig> rulesOf(std::string const& name) {
        if (auto const found = versions_.find(name); found != versions_.end()) return found->second;
        Nex::Ptr<Acl::AclConfig> const list = aclConfig->aclIs(name);
        if (!list->currCfg()) list->currCfgIs(Acl::AclSubConfig::AclSubConfigIs(name));
        return list->currCfg();
    }
    Nex::Ptr<Table> tableOf(std::string const& name) {
        return named(tables_, name, [&] { return Table::StatusIs(name); });
    }
    Nex::Ptr<Directory> directoryOf(std::string const& name) {
        return named(directories_, name, [&] { return Directory::DeviceIntfStatusDirIs(name); });
    }

    /// "[c|d|s|m][+|-][[i|e]SOURCES] [GROUPS]": what comes or goes in the groups that are
    /// configured, listed as deleted, or announced; in the machine's counts. Without sources the
    /// group itself does. "+i1" is "c+i1", and "-i1" takes a source back as the writer of the
    /// configuration does.
    void doSources(char where, bool add, std::string const& sources, std::string const& groups) {
        auto const written = configOf(config_);
        for (auto const group : allOf(groups.empty() ? "g1" : groups)) {
            if (sources.empty() && !add)
                where == 's'   ? statusOf(status_)->groupSourceListDel(group)
                : where == 'd' ? written->deletedGroupSourceListDel(group)
                               : written->groupSourceListDel(group);
            bool const include = sources[0] == 'i';
            for (char const name : sources.empty() ? sources : sources.substr(1)) {
                Lox::IpAddr const source = address({name});
                if (where == 'm') {
                    auto const count = add && include ? &IgmpHostProxyIntfSm::addIncludeSourceGroup
                                       : add          ? &IgmpHostProxyIntfSm::addExcludeSourceGroup
                                       : include ? &IgmpHostProxyIntfSm::removeIncludeSourceGroup
                                                 : &IgmpHostProxyIntfSm::removeExcludeSourceGroup;
                    (machine().*count)(source, group);
                } else if (where == ' ' && !add) {
                    takeBack(*written, source, group, include);
                } else {
                    doWrite(*entryIs(where, group), add, include, source);
                }
            }
            if (sources.empty() && add) entryIs(where, group);
        }
    }
    Nex::Ptr<GroupSource> entryIs(char where, Lox::IpAddr group) {
        return where == 's'   ? statusOf(status_)->groupSourceListIs(group)
               : where == 'd' ? configOf(config_)->deletedGroupSourceListIs(group)
                              : configOf(config_)->groupSourceListIs(group);
    }

    std::map<std::string, std::function<void(W)>> const events_{
        // Interfaces
        {"start", [&](W) { start(); }},
        {"end", [&](W) { root = nullptr; }},
        {"configure", [&](W a) { config->intfConfigIs(intfOf(a)); }},
        {"unconfigure", [&](W a) { config->intfConfigDel(intfOf(a)); }},
        {"intf", [&](W a) { doIntf(a[1], a[2], orDefault(a[3])); }},
        {"in-vrf", [&](W a) { vrfOfIntf(intfOf(a).stringValue(), a[2]); }},
        {"in-no-vrf", [&](W a) { ipStatus->ipIntfStatusIs(intfOf(a)); }},
        {"list-intf", [&](W a) { listIntf(a[1], orDefault(a[2])); }},
        {"delist-intf", [&](W a) { delistIntf(a[1]); }},
        {"device", [&](W a) { doDevice(a); }},
        {"address", [&](W a) { addressOf(a[1], a[2]); }},
        {"tables", [&](W a) { tables(orDefault(a[1])); }},
        {"no-tables", [&](W a) { mfibDir->keshCollDel(vrfOf(a)); }},
        {"decide", [&](W a) { root ? root->handleIntfConfig(intfOf(a)) : void(); }},
        {"decide-all", [&](W) { root->handleIntfConfig(); }},
        {"decide-tables", [&](W) { root->handleMfibKesh(); }},
        {"take-down", [&](W a) { root->deleteIntfSm(intfOf(a)); }},
        {"no-machine", [&](W) { root->igmpHostProxyIntfSmDel(up0); }},
        {"version", [&](W a) { configOf("")->igmpVersionIs(IgmpVersion(number(a[1]))); }},
        {"interval", [&](W a) { configOf("")->unsolicitedReportIntvlIs(interval(a[1])); }},
        // VRFs
        {"vrf", [&](W a) { allVrfStatusLocal->vrfIs(vrfOf(a))->networkNamespaceIs(nsOf(a[2])); }},
        {"no-vrf", [&](W a) { allVrfStatusLocal->vrfDel(vrfOf(a)); }},
        {"mount", [&](W a) { entityManager->doMount(pathOf(a[1]), "KernelNetInfo::Status", 3); }},
        {"refuse-mount", [&](W a) { refused_ = a[1]; }},
        {"copy-mac", [&](W a) { root->getIntfEthAddr(vrfOf(a), number(a[2])); }},
        {"hold-directory", [&](W a) { directories_[a[2]] = view(a[1])->deviceIntfStatusDir(); }},
        {"directory", [&](W a) { view(a[1])->deviceIntfStatusDirIs(directoryOf(a[2])); }},
        {"entry", [&](W a) { doEntry(a); }},
        {"no-entry",
         [&](W a) { directoryOf(a[1])->intfStatusAndDeviceNameDel(Lox::IntfId(a[2])); }},
        // The host and its agent
        {"host-status", [&](W a) { hostStatusDir->igmpHostStatusIs(a[1]); }},
        {"no-host-status", [&](W a) { hostStatusDir->igmpHostStatusDel(a[1]); }},
        {"fill-host", [&](W a) { root->initializeIgmpHost(a[1]); }},
        {"mark-host", [&](W) { host("up0")->useMuxIs(true), host("up0")->taggedIs(true); }},
        {"bind", [&](W a) { root->createOrDeleteIgmpHostIntfSm(a[1]); }},
        {"bind-all", [&](W) { root->createOrDeleteIgmpHostIntfSm(); }},
        {"unbind", [&](W a) { root->igmpHostIntfSmDel(intfOf(a)); }},
        {"counter", [&](W a) { doCounter(hostStatusDir->igmpHostStatus("up0"), a); }},
        {"watch-counter", [&](W a) { binding().igmpHostStatusIs(doCounter(newCounters(), a)); }},
        {"reset-counters", [&](W) { binding().resetPacketCounters(); }},
        {"show-reports", [&](W) { binding().handleIgmpHostV3ReportsSent(); }},
        {"new-binding", [&](W) { binding().initializedIs(false); }},
        {"start-binding", [&](W) { binding().handleNew(); }},
        {"copy-address", [&](W) { binding().handleIntfEthAddr(); }},
        {"list-groups", [&](W a) { binding().handleGroupList(address(a[1])); }},
        {"bind-status", [&](W a) { binding().intfStatusIs(statusOf(a[1])); }},
        {"status-device", [&](W a) { written().deviceNameIs(a[1]); }},
        {"record-source", [&](W a) { doRecordSource(a); }},
        {"no-record-sources", [&](W) { host("up0")->v3group(groupG)->sourceListIs(nullptr); }},
        // Access lists
        {"attach", [&](W a) { configOf("")->aclListIs(a[1]); }},
        {"detach", [&](W a) { configOf("")->aclListDel(a[1]); }},
        {"list", [&](W a) { rulesOf(a[1]); }},
        {"no-list", [&](W a) { aclConfig->aclDel(a[1]); }},
        {"rule", [&](W a) { doRule(a), doSequence(a[1], a[2], a[2]); }},
        {"no-rule", [&](W a) { rulesOf(a[1])->ruleBySequenceDel(number(a[2])); }},
        {"text", [&](W a) { doRule(a); }},
        {"sequence", [&](W a) { doSequence(a[1], a[2], a[3]); }},
        {"hold-rules", [&](W a) { versions_[a[2]] = rulesOf(a[1]); }},
        {"new-rules", [&](W a) { versions_[a[1]] = Acl::AclSubConfig::AclSubConfigIs(a[1]); }},
        {"force", [&](W a) { doForce(a); }},
        {"apply", [&](W a) { helper(a[1])->handleRule(Acl::UniqueId(number(a[2]))); }},
        {"purge-nothing", [&](W a) { helper(a[1])->purgeCachedRule(Acl::IpRuleConfig()); }},
        {"new-lists", [&](W) { aclConfig = Acl::AclTypeConfig::AclTypeConfigIs(); }},
        {"watch-lists", [&](W) { machine().ipAclConfigIs(aclConfig); }},
        // Counts and records
        {"count", [&](W a) { machine().groupSourceRefCounterIs(pair(a), number(a[3])); }},
        {"no-count", [&](W a) { machine().groupSourceRefCounterDel(pair(a)); }},
        {"no-counts", [&](W) { machine().groupSourceRefCounterDelAll(); }},
        {"config", [&](W a) { config_ = a[1]; }},
        {"status", [&](W a) { status_ = a[1]; }},
        {"watch-config", [&](W a) { machine().intfConfigIs(configOf(a[1])); }},
        {"watch-status", [&](W a) { machine().intfStatusIs(statusOf(a[1])); }},
        {"look-at-groups", [&](W) { machine().handleGroupList(); }},
        {"deny", [&](W a) { written().denyMrouteIs(a[1] == "on"); }},
        {"throw", [&](W) { throw Nex::Exception("by us"); }},
        // Routes
        {"table", [&](W a) { doTable(a[1], orDefault(a[2], a[1]), orDefault(a[3])); }},
        {"table-to-come", [&](W a) { collection()->keshPtrIs(tableOf(a[1]).get(), nullptr); }},
        {"no-table", [&](W a) { collection()->keshPtrDel(tableOf(a[1]).get()); }},
        {"no-watched-tables", [&](W) { machine().mfibKeshDirDel(); }},
        {"route", [&](W a) { doRoutes(a); }},
        {"no-route", [&](W a) { doRoutes(a); }},
        {"review", [&](W) { machine().doReview(); }},
        {"full-sync", [&](W) { machine().handleDenyMroute(); }},
        {"release", [&](W a) { machine().doReleaseGroups(range(a[1])); }},
        {"watch-clock", [&](W a) { machine().clockIs(a[1] == "nothing" ? nullptr : clock); }},
        {"pace",
         [&](W a) {
             float const delay = std::stof(a[1]);
             machine().reviewTimerIs(machine().reviewTimer()->reactor(), 0, 1, delay, delay);
         }},
        {"quantum", [&](W a) { machine().reviewQuantumIs(std::stod(a[1])); }},
        {"step", [&](W a) { time.stepSecondsIs(std::stod(a[1])); }},
        {"to-next", [&](W a) { toNext(number(orDefault(a[1], "1"))); }},
        {"trace", [&](W a) { traceHandle.levelIs(number(a[1])); }},
    };

    virtual void doEvent(Words const& a) {
        if (a[0][0] == '+' && std::isdigit(a[0][1])) return pass(std::stod(a[0]));
        std::size_t const at = a[0].find_first_of("+-");
        if (at < 2 && (a[0].size() == at + 1 || a[0][at + 1] == 'i' || a[0][at + 1] == 'e'))
            return doSources(at == 0 ? ' ' : a[0][0], a[0][at] == '+', a[0].substr(at + 1), a[1]);
        auto const found = events_.find(a[0]);
        if (found == events_.end()) throw std::logic_error("no such event: " + a[0]);
        found->second(a);
    }

    // Events of more than a line
    /// To the next review, so many times; what the last throws is told.
    void toNext(unsigned times) {
        auto const next = [&] { pass(clock->nextExpiry() - time.now()); };
        for (; times > 1; --times) attempt(next);
        next();
    }
    /// Which may name another index than its own, and have another address.
    void doDevice(Words const& a) {
        auto const index = number(a[2]), mac = number(orDefault(a[5], a[2]));
        kniTable(pathOf(orDefault(a[3])))
            ->interfaceIs(KernelNetInfo::InterfaceKey(index),
                          {number(orDefault(a[4], a[2])), a[1], macOf(mac)});
    }
    void doEntry(Words const& a) {
        auto const directory = directoryOf(a[1]);
        std::string const device = orDefault(a[3]);
        Lox::IntfId const intf(orDefault(a[4]));
        directory->intfToDeviceNameIs(number(a[2]), {intf, device});
        directory->intfStatusAndDeviceNameIs(intf, {nullptr, device, number(a[2])});
    }
    static Nex::Ptr<Counters> newCounters() { return Counters::IgmpHostStatusIs("up0"); }
    static Nex::Ptr<Counters> doCounter(Nex::Ptr<Counters> const& counters, W a) {
#define IHP_COUNTER(TYPE, NAME, UPPER)                                                             \
    if (a[1] == #NAME) counters->NAME##Is(number(a[2]));
        IGMP_PACKET_COUNTERS(IHP_COUNTER, IHP_COUNTER)
#undef IHP_COUNTER
        return counters;
    }
    void doRecordSource(Words const& a) const {
        host("up0")->v3group(groupG)->sourceIs()->sourceIpIs(address(a[1]),
                                                             std::uint8_t(number(a[2])));
    }
    void doRule(Words const& a) {
        auto const action = a[3] == "permit" ? Acl::Action::permit
                            : a[3] == "deny" ? Acl::Action::deny
                                             : Acl::Action(number(a[3]));
        rulesOf(a[1])->ipRuleByIdIs(Acl::UniqueId(number(a[2])),
                                    {action, {range(a[4]), range(a[5])}});
    }
    void doSequence(std::string const& list, std::string const& at, std::string const& id) {
        rulesOf(list)->ruleBySequenceIs(number(at), Acl::UniqueId(number(id)));
    }
    void doForce(Words const& a) {
        aclConfig->aclIs(a[1])->currCfgIs(a[2] == "nothing" ? nullptr : rulesOf(a[2]));
    }
    /// Lists a table at the address of another one.
    void doTable(std::string const& name, std::string const& at, std::string const& vrf) {
        collection(vrf)->keshPtrIs(tableOf(at).get(), tableOf(name));
    }
    void doRoutes(Words const& a) {
        Words const groups = parts(a[3], '/');
        auto const length = std::uint8_t(groups.size() > 1 ? number(groups[1]) : 32);
        for (auto const group : allOf(groups[0])) {
            auto const key = routeKey(a[2], group, length);
            a[0] == "route" ? tableOf(a[1])->routeIs(key, {true, number(orDefault(a[4], "0"))})
                            : tableOf(a[1])->routeDel(key);
        }
    }

    /// "when FACT", and what it is to come to, if that matters.
    void doWhen(Words const& sides, std::string const& events) {
        bool const once = sides[0].starts_with("when ");
        std::string const about = sides[0].substr(sides[0].find(' '));
        Nested& nested = nested_.emplace_back(Nested{fact(about)});
        auto const hear = [=, this, &nested] {
            if (once && nested.happened) return;
            std::string const is = fact(about), was = std::exchange(nested.last, is);
            if (is == was || (sides.size() > 1 && is != sides[1])) return;
            nested.happened = true;
            doEvents(events);
        };
        nested.watch = Nex::newObject<Disturber>(Disturber::always, hear);
        nested.watch->follow(entityManager.get());
        nested.watch->follow(hostDir.get());
        nested.watch->follow(status.get());
    }

    // Facts
    static std::string nameOf(Lox::IpAddr address) {
        std::string const dotted = address.stringValue();
        if (address == anySource) return "*";
        if (dotted.starts_with("239.1.1.")) return "g" + dotted.substr(8);
        return dotted.starts_with("10.0.0.") ? dotted.substr(7) : dotted;
    }
    static std::string namesOf(auto addresses) {
        std::string text;
        for (Lox::IpAddr const address : Nex::sortedKeys(std::move(addresses)))
            text += nameOf(address);
        return text;
    }
    static std::string textOf(GroupSource const* entry) {
        if (!entry) return "none";
        return "i" + namesOf(entry->includeSourceList()) + " e" +
               namesOf(entry->excludeSourceList());
    }
    static GroupSource const* entryOf(auto const* groups, Lox::IpAddr group) {
        return groups ? groups->groupSourceList(group) : nullptr;
    }
    std::string group(Lox::IpAddr group) const {
        std::string const text = textOf(entryOf(intfStatus("up0"), group));
        return root && root->igmpHostProxyIntfSm(up0) ? text + countsOf(machine(), group) : text;
    }
    static std::string countsOf(IgmpHostProxyIntfSm const& machine, Lox::IpAddr group) {
        Lines counts;
        auto const& counter = machine.groupSourceRefCounter();
        counter.forSources(group, [&](Lox::IpAddr source) {
            if (auto const count = counter.count({source, group}))
                counts.push_back(" " + nameOf(source) + ":" + std::to_string(count));
        });
        std::sort(counts.begin(), counts.end());
        return joined(counts, "");
    }
    std::string record(Lox::IpAddr group) const {
        auto const* const record = host("up0")->v3group(group);
        if (!record) return "none";
        bool const include = record->filterMode() == Lox::IgmpV3GroupRecordType::modeIsInclude;
        std::string const text = include ? "include" : "exclude";
        if (!record->source()) return text + " nothing";
        Lines sources;
        for (auto const& item : record->source()->sourceIp())
            sources.push_back(" " + nameOf(item.key) + (item.value == 0 ? ":0" : ""));
        std::sort(sources.begin(), sources.end());
        return text + joined(sources, "");
    }
    /// The change stamps of up0's host entity and its records.
    std::map<std::string, std::uint32_t> stamps() const {
        std::map<std::string, std::uint32_t> all;
        if (!host("up0")) return all;
        all["config"] = host("up0")->configVersion();
        all["intf-config"] = host("up0")->intfConfigVersion();
        for (auto const& item : host("up0")->v3group())
            all[nameOf(item.key)] = item.value->version();
        return all;
    }
    std::string intf(std::string const& name) const {
        Lox::IntfId const intf(name);
        std::string text;
        if (sourceIntfSm->registered(intf)) text += " registered";
        if (intfStatus(name)) text += " status";
        if (root && root->igmpHostProxyIntfSm(intf)) text += " machine";
        if (host(name)) text += " host";
        if (root && root->igmpHostIntfSm(intf)) text += " binding";
        if (root && root->checkInterfaceHas(intf)) text += " waiting";
        return text;
    }
    /// An attribute of a record, as dumps show it.
    static std::string attribute(auto const* record, std::string const& name) {
        if (record)
            for (auto const& line : Dump::of(*record))
                if (line.starts_with(name + " = ")) return line.substr(name.size() + 3);
        return "absent";
    }
    /// The groups that full syncs have walked.
    std::string walked() const {
        std::string text;
        for (auto const& line : traced_)
            if (line.starts_with("3 Syncing ")) {
                std::size_t const at = line.find(", ") + 2;
                text += " " + nameOf(ip(line.substr(at, line.find('/', at) - at)));
            }
        return text;
    }
    std::string rules(std::string const& list) const {
        if (!helper(list)) return "no helper";
        std::string text;
        for (auto const& item : helper(list)->cachedRules()) text += Nex::textOf(item.key) + " ";
        return text;
    }
    std::string mounted(std::string const& ns) const {
        auto const* const table = entityManager->mounted(pathOf(ns));
        if (!table) return "none";
        return table->typeName() + " " + std::to_string(table->mountInfoType()) + " times " +
               std::to_string(table->mounts());
    }
    std::string directoryOf(KernelVrfIntfStatus const* view) {
        if (!view) return "none";
        auto const directory = view->deviceIntfStatusDir();
        for (auto const& [name, known] : directories_)
            if (known == directory) return name;
        return directory->name();
    }

    static std::string text(auto number) { return std::to_string(number); }
    static char const* yes(void const* object) { return object ? "yes" : "no"; }

    std::map<std::string, std::function<std::string(W)>> const facts_{
        {"thrown", [&](W) { return thrown_; }},
        {"record", [&](W a) { return record(address(a[1])); }},
        {"helper", [&](W a) { return textOf(entryOf(helper(a[1]), address(a[2]))); }},
        {"rules", [&](W a) { return rules(a[1]); }},
        {"raised", [&](W a) { return text(stamps()[a[1]] - stamps_[a[1]]); }},
        {"status", [&](W a) { return attribute(intfStatus(orDefault(a[2], "up0")), a[1]); }},
        {"host", [&](W a) { return attribute(host(orDefault(a[2], "up0")), a[1]); }},
        {"intf", [&](W a) { return intf(a[1]); }},
        {"slot", [&](W) { return root->srcIntfIhpIntf()->intfId().stringValue(); }},
        {"groups", [&](W) { return text(intfStatus("up0")->groupSourceListCount()); }},
        {"next", [&](W) { return seconds(clock->nextExpiry() - time.now()); }},
        {"next-check", [&](W) { return seconds(timerWheel->nextExpiry() - time.now()); }},
        {"sync", [&](W) { return machine().syncAllRoutes() ? "wanted" : "over"; }},
        {"changed", [&](W) { return text(machine().changedRoute().size()); }},
        {"walked", [&](W) { return walked(); }},
        {"reviewed",
         [&](W) { return seconds(time.now() - machine().reviewTimer()->lastReviewTime()); }},
        {"list-reactor", [&](W a) { return yes(machine().acl(a[1])); }},
        {"mounted", [&](W a) { return mounted(a[1]); }},
        {"managed",
         [&](W a) { return yes(root->intfStatusManagerRoot()->intfStatusManager(nsOf(a[1]))); }},
        {"directory", [&](W a) { return directoryOf(view(orDefault(a[1]))); }},
        {"corruptions", [&](W a) { return text(kniTable(pathOf(a[1]))->corruptions()); }},
        {"lines",
         [&](W a) {
             return text(std::count_if(traced_.begin(), traced_.end(), [&](auto const& line) {
                 return line.find(a[1]) != line.npos;
             }));
         }},
    };

  public:
    /// What is now; of groups, what all of them are, or else what each is.
    std::string fact(std::string const& text) {
        Words a = words(text);
        a.resize(3);
        auto const found = facts_.find(a[0]);
        if (found != facts_.end()) return joined(words(found->second(a)), " ");
        if (a[0][0] != 'g') return "no such fact";
        Words all;
        for (auto const each : allOf(a[0])) all.push_back(group(each));
        if (std::count(all.begin(), all.end(), all[0]) == long(all.size())) return all[0];
        return joined(all, "; ");
    }

  protected:
    Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl>
    collection(std::string const& vrf = "default") const {
        return mfibDir->keshCollIs(L3::VrfName(vrf));
    }
    IgmpHostProxyAclHelper* helper(std::string const& list) const {
        return machine().igmpHostProxyAclHelper(list);
    }
    IntfStatus& written() { return *statusOf(status_); }
    static UnsolicitedReportInterval interval(std::string const& word) {
        return UnsolicitedReportInterval(std::stod(word));
    }
    static Lox::IntfId intfOf(W a) { return Lox::IntfId(orDefault(a[1], "")); }
    static L3::VrfName vrfOf(W a) { return L3::VrfName(orDefault(a[1])); }
    static Lox::NamespaceName nsOf(std::string const& word) { return Lox::NamespaceName(word); }
    static SourceGroup pair(Words const& a) { return {address(a[1]), address(a[2])}; }
    static Routing::Multicast::Fib::IpGenRouteKey
    routeKey(std::string const& source, Lox::IpAddr group, std::uint8_t length = 32) {
        return {{address(source), std::uint8_t(source == "*" ? 0 : 32)}, {group, length}};
    }

    Nex::ManualTime time{100};
    std::map<std::string, Nex::Ptr<KernelNetInfo::Status>> kniTables_;
    std::map<std::string, Nex::Ptr<IntfConfig>> configs_;
    std::map<std::string, Nex::Ptr<IntfStatus>> statuses_;
    std::map<std::string, Nex::Ptr<Acl::AclSubConfig>> versions_;
    std::map<std::string, Nex::Ptr<Table>> tables_;
    std::map<std::string, Nex::Ptr<Directory>> directories_;
    std::string config_, status_; ///< which of them are written
    std::string refused_;         ///< the namespace whose table can't be mounted
    std::list<Nested> nested_;
    Lines traced_;
    std::string thrown_;
    std::map<std::string, std::uint32_t> stamps_;
};

} // namespace IgmpHostProxy
