// Runs the scenarios beside this file: what producers, device and host agent do, and what the
// library makes of it. Each line is a turn:
//
//     rule iptv 1 permit 1 g0/30; +1  |  g0..3 = i1 e 1:1; rules iptv = 1
//     > 7 Creating helper for acl: iptv
//     > ...
//
// First the events happen, in their order; then facts hold. Lines that begin with ">" are all that
// the library traced meanwhile, "..." any of it, and none is nothing. An error that reaches whoever
// wrote is a fact, too: `thrown`. Besides:
//
//     when g1: -i1; throw             inside the notification by which this fact changes, these
//                                     events happen, once
//     when g1 = none: ...             ... by which it comes true
//     whenever g1: ...                ... each time
//     with $a | $b                    the scenario is run for each row of each such table,
//     . +i1   | i1 e 1:1              which stands for the names
//     ~ tables                        such lines come in any order, and all orders end alike
//
// Play.h has the words for events and facts.
#include "Play.h"

#include <random>

namespace IgmpHostProxy {
namespace {

using Support::Line;

/// Whether the lines are those that are expected; "..." stands for any.
bool matches(auto line, auto end, auto expected, auto last) {
    if (expected == last) return line == end;
    if (*expected != "...")
        return line != end && *line == *expected && matches(line + 1, end, expected + 1, last);
    for (;; ++line) {
        if (matches(line, end, expected + 1, last)) return true;
        if (line == end) return false;
    }
}
using Script = std::vector<Line>;

/// The scenario for each choice of rows from its tables.
std::vector<Script> scripts(Script const& lines) {
    struct Rows {
        Words names;
        std::vector<Words> values;
    };
    std::vector<Rows> tables;
    std::vector<Script> all(1);
    for (Line line : lines) {
        line.text.erase(0, line.text.find_first_not_of(' '));
        if (line.text.starts_with("with "))
            tables.push_back({parts(line.text.substr(5), '|'), {}});
        else if (line.text.starts_with(". "))
            tables.back().values.push_back(parts(line.text.substr(2), '|'));
        else
            all[0].push_back(line);
    }
    for (auto& [names, rows] : tables)
        for (auto const& script : std::exchange(all, {}))
            for (Words& values : rows) {
                values.resize(names.size());
                all.push_back(script);
                for (Line& line : all.back())
                    for (std::size_t n = 0; n < names.size(); ++n)
                        for (std::size_t at; (at = line.text.find(names[n])) != line.text.npos;)
                            line.text.replace(at, names[n].size(), values[n]);
            }
    return all;
}

/// Plays all and checks the facts. What the library has written in the end.
Lines play(Script const& script) {
    Play play;
    play.doEvents("trace 3");
    for (auto line = script.begin(); line != script.end();) {
        Line const turn = *line++;
        auto const fail = [&](std::string const& is) {
            ADD_FAILURE_AT(turn.file.c_str(), turn.number) << turn.text << "\n" << is;
        };
        Words columns = parts(turn.text, '|');
        columns.resize(2);
        play.doTurn(columns[0]);
        bool told = false;
        for (auto const& fact : parts(columns[1], ';')) {
            std::size_t const equals = fact.find('=');
            Words about = words(fact.substr(0, equals));
            if (about.empty()) continue;
            std::string const expected = joined(words(fact.substr(equals + 1)), " ");
            told = told || about[0] == "thrown";
            for (auto const& is : play.facts(about))
                if (is != expected) fail(joined(about, " ") + " = " + is);
        }
        if (!told && play.facts({"thrown"})[0] != "nothing") fail(play.facts({"thrown"})[0]);
        if (line == script.end() || !line->text.starts_with(">")) continue;
        Words expected;
        for (; line != script.end() && line->text.starts_with(">"); ++line)
            if (line->text.size() > 1) expected.push_back(parts(line->text.substr(1), '\n')[0]);
        auto const& traced = play.traced();
        if (!matches(traced.begin(), traced.end(), expected.begin(), expected.end()))
            fail(joined(traced, "\n") + "\ninstead of\n" + joined(expected, "\n"));
    }
    if (play.waits()) ADD_FAILURE() << "a notification never came";
    return play.dump();
}

class ScenarioTest : public ::testing::TestWithParam<Support::Scenario> {};

TEST_P(ScenarioTest, EndsAsItShould) {
    for (Script script : scripts(GetParam().lines)) {
        std::vector<Line*> anyOrder;
        for (Line& line : script)
            if (line.text.starts_with("~")) anyOrder.push_back(&line), line.text.erase(0, 1);
        Lines const expected = play(script);
        std::mt19937 random(1);
        for (unsigned order = 1; !anyOrder.empty() && order < 120 && !HasFailure(); ++order) {
            for (std::size_t n = anyOrder.size(); n > 1; --n)
                std::swap(*anyOrder[n - 1], *anyOrder[random() % n]);
            EXPECT_EQ(play(script), expected);
        }
        if (!HasFailure()) continue;
        for (Line const& line : script) std::cout << line.text << "\n";
        break;
    }
}

INSTANTIATE_TEST_SUITE_P(, ScenarioTest, ::testing::ValuesIn(Support::scenariosIn(IHP_SCENARIOS)),
                         Support::NameOfScenario());

} // namespace
} // namespace IgmpHostProxy
