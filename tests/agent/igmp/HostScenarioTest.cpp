// Runs the scenarios beside this file: what happens to a host of IGMP, and what it says. "== " and
// a title begin one. Each other line is a turn in up to three columns:
//
//   +9  include g1 a b; v2-query 100  |  ALLOW g1 a b; v2 g2  |  version=2 idle=1   # comment
//
// First that many seconds pass, and then the events happen, in their order. Behind the first "|"
// stand all packets that leave meanwhile, as sets of records, in any order; "..." stands for at
// least one, "in 2: " goes before those that leave in the 2 seconds that follow, and "twice" before
// those that leave at once and once more in the next 9. Behind the second stands what holds in the
// end: a counter, or a name of facts().
// Before the first turn the link is up, changes are repeated within a second, and no pace is set.
//
// g1 is 239.1.1.1; a, b and c are 10.0.0.11 and the next ones; "10.0.0.1*4" is as many in a row.
#include "agent/igmp/HostEngineFixture.h"
#include "support/Scenario.h"

#include <functional>
#include <map>
#include <set>

namespace Agent {
namespace {

using Support::Line;
using Support::parts;
using Support::words;
using Support::Words;

Sources addresses(std::string const& word) {
    std::size_t const star = word.find('*');
    std::string first = word.substr(0, star);
    if (first == "us") first = "10.0.0.2";
    if (first.size() == 1) first = "10.0.0.1" + std::to_string(first[0] - 'a' + 1);
    if (first[0] == 'g') first = "239.1.1." + first.substr(1);
    return range(first.c_str(), star == word.npos ? 1 : unsigned(std::stoul(&word[star + 1])));
}

/// The records of each packet, in any order, with addresses in full.
std::multiset<std::set<std::string>> packets(std::string const& text) {
    std::multiset<std::set<std::string>> all;
    for (std::string const& packet : parts(text, ';')) {
        std::set<std::string> records;
        for (std::string const& each : parts(packet, ',')) {
            Words const said = words(each);
            std::string record = said.at(0);
            for (std::size_t i = 1; i < said.size(); ++i)
                for (Lox::IpAddr const address : addresses(said[i]))
                    record += " " + address.stringValue();
            records.insert(record);
        }
        all.insert(records);
    }
    return all;
}

class HostScenarioTest : public HostEngineFixture,
                         public testing::WithParamInterface<Support::Scenario> {
  protected:
    void doTurn(Line const& line) {
        Words columns = parts(line.text, '|');
        columns.resize(3);
        std::string events = columns[0];
        if (events.starts_with("+")) {
            std::size_t digits = 0;
            serve(std::stod(events, &digits));
            events.erase(0, digits);
        }
        for (std::string const& event : parts(events, ';'))
            if (Words const all = words(event); !all.empty()) doEvent(Event(all));
        engine->flush(now);
        std::string& expected = columns[1];
        if (expected.starts_with("twice ")) {
            expected.erase(0, 6);
            EXPECT_EQ(packets(taken()), packets(expected));
            serve(9);
        } else if (expected.starts_with("in ")) {
            EXPECT_EQ(taken(), "");
            std::size_t const colon = expected.find(':');
            serve(std::stod(expected.substr(3, colon)));
            expected.erase(0, colon + 1);
        }
        std::string const said = taken();
        if (expected == "...")
            EXPECT_NE(said, "");
        else
            EXPECT_EQ(packets(said), packets(expected));
        for (std::string const& fact : words(columns[2])) {
            std::string const name = fact.substr(0, fact.find('='));
            double const is = name == "changed" ? engine->takeHeldChange() : facts().at(name);
            EXPECT_EQ(is, std::stod(&fact[name.size() + 1])) << fact;
        }
    }

  private:
    /// An event in words: "v3-query 10 g1 a b from=us".
    struct Event {
        explicit Event(Words const& all) : verb(all[0]) {
            for (std::size_t i = 1; i < all.size(); ++i) {
                std::size_t const equals = all[i].find('=');
                if (equals != std::string::npos)
                    options[all[i].substr(0, equals)] = all[i].substr(equals + 1);
                else if (all[i].find_first_not_of("0123456789") == std::string::npos)
                    code = std::uint8_t(std::stoul(all[i]));
                else if (groups.empty())
                    groups = addresses(all[i]);
                else
                    for (Lox::IpAddr const source : addresses(all[i])) sources.push_back(source);
            }
            if (groups.empty()) groups = {{}};
        }
        std::string option(char const* name, std::string const& otherwise) const {
            auto const found = options.find(name);
            return found == options.end() ? otherwise : found->second;
        }
        std::string verb;
        std::uint8_t code = 0;
        Sources groups, sources; ///< the first group is zero where none is named
        std::map<std::string, std::string> options;
    };

    void doEvent(Event const& event) {
        std::map<std::string, std::function<void()>> const changes{
            {"include", [&] { include(event.groups, event.sources); }},
            {"exclude", [&] { exclude(event.groups, event.sources); }},
            {"delete", [&] { engine->removeGroup(event.groups[0]); }},
            {"link-down", [&] { engine->linkDown(now); }},
            {"link-up", [&] { engine->linkUp(now); }},
            {"leave-all", [&] { engine->leaveAll(now); }},
            {"former-end", [&] { engine->formerEnd(now); }},
            {"set", [&] { doSet(event.options); }},
            {"restart", [&] { doRestart(); }},
        };
        auto const change = changes.find(event.verb);
        change != changes.end() ? change->second() : doHear(event);
    }

    void doHear(Event const& event) {
        Lox::IpAddr const group = event.groups[0];
        unsigned long const robustness = std::stoul(event.option("qrv", "2"));
        std::map<std::string, Bytes> const messages{
            {"v1-query", message(IgmpType::query, group)},
            {"v2-query", message(IgmpType::query, group, event.code)},
            {"v3-query", v3Query(event.code, group, event.sources, std::uint8_t(robustness))},
            {"v1-report", message(IgmpType::v1Report, group)},
            {"v2-report", message(IgmpType::v2Report, group)},
            {"v2-leave", message(IgmpType::v2Leave, group)},
            {"v3-report", message(IgmpType::v3Report, group)},
            {"unknown", message(IgmpType(0x13), group)},
        };
        bool const query = event.verb.ends_with("-query");
        std::string const to = (query ? allSystems : group).stringValue();
        Envelope envelope;
        envelope.source = addresses(event.option("from", query ? "10.0.0.1" : "0.0.0.0"))[0];
        envelope.destination = addresses(event.option("to", to))[0];
        envelope.ttl = std::uint8_t(std::stoul(event.option("ttl", "1")));
        if (event.option("alert", "1") == "0") envelope.options.clear();
        hear(messages.at(event.verb), envelope);
    }

    void doSet(std::map<std::string, std::string> const& options) {
        std::map<std::string, unsigned*> const numbers{{"version", &settings.version},
                                                       {"prefix", &settings.prefixLength},
                                                       {"mtu", &settings.mtu},
                                                       {"robustness", &settings.robustness},
                                                       {"pace", &settings.packetsPer100ms}};
        for (auto const& [name, value] : options) {
            if (name == "address")
                settings.address = ip(value.c_str());
            else if (name == "also")
                settings.localAddresses.push_back(ip(value.c_str()));
            else if (name == "interval")
                settings.unsolicitedReportInterval = std::stod(value);
            else if (name == "alert")
                settings.requireRouterAlert = true;
            else if (name == "ssm-only")
                settings.ssmOnly = true;
            else
                *numbers.at(name) = unsigned(std::stoul(value));
        }
        settingsApply();
    }

    /// Another engine, told what this one holds.
    void doRestart() {
        RecordList const former = held();
        engine.emplace(*this, std::mt19937(7));
        settingsApply();
        engine->addFormer(former);
    }

    std::map<std::string, double> facts() const {
        std::map<std::string, double> all{
            {"version", engine->version()},
            {"warnings", double(warnings.size())},
            {"idle", engine->nextExpiry() == never},
            {"left", engine->hasLeft()},
            {"former", engine->hasFormer()},
            {"held", double(held().size())},
            {"querier", engine->querier().version},
            {"told", engine->times(ip("239.1.1.1")).told},
            {"answered", engine->times(ip("239.1.1.1")).answered},
            {"older-for", engine->versionExpiry() - now},
        };
#define AGENT_FACT(type, name, Name) all[#name] = engine->counters().name;
        AGENT_HOST_COUNTERS(AGENT_FACT)
#undef AGENT_FACT
#define AGENT_FACT(name) all[#name] = engine->counters().dropped[std::size_t(DropReason::name)];
        AGENT_DROP_REASONS(AGENT_FACT)
#undef AGENT_FACT
        return all;
    }
};

TEST_P(HostScenarioTest, SaysWhatItShould) {
    for (Line const& line : GetParam().lines) {
        SCOPED_TRACE(line.file + ":" + std::to_string(line.number) + ": " + GetParam().title);
        ASSERT_NO_THROW(doTurn(line));
    }
}

INSTANTIATE_TEST_SUITE_P(, HostScenarioTest, testing::ValuesIn(Support::scenariosIn(IHP_SCENARIOS)),
                         Support::NameOfScenario());

} // namespace
} // namespace Agent
