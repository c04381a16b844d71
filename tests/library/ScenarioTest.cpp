// Runs the scenarios beside this file: what producers, device and host agent do, and what the
// library makes of it. Each line is a turn:
//
//     rule iptv 1 permit 1 g0/30; +1  |  g0..3 = i1 e 1:1; rules iptv = 1
//     > 7 Creating helper for acl: iptv
//
// First the events happen, in their order; then facts hold. Lines that begin with ">" are all that
// the library traced meanwhile, none is nothing; with ">>" they are among it in this order. An
// error that reaches whoever wrote is a fact, too: `thrown`. Besides:
//
//     when g1: -i1; throw             inside the notification by which this fact changes, these
//                                     events happen, once
//     when g1 = none: ...             ... by which it comes true
//     whenever g1: ...                ... each time
//     with $a | $b                    the scenario is run for each row of each such table,
//     . +i1   | i1 e 1:1              which stands for the names
//
// Play.h has the words for events and facts.
#include "Play.h"

namespace IgmpHostProxy {
namespace {

using Support::Line;

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

/// Plays all and checks the facts.
void play(Script const& script) {
    Play play;
    play.doEvents("trace 3");
    for (auto line = script.begin(); line != script.end();) {
        Line const turn = *line++;
        auto const expect = [&](std::string const& is, std::string const& expected) {
            if (is == expected) return;
            ADD_FAILURE_AT(turn.file.c_str(), turn.number) << turn.text << "\n"
                                                           << is << "\ninstead of\n"
                                                           << expected;
        };
        Words columns = parts(turn.text, '|');
        columns.resize(2);
        play.doTurn(columns[0]);
        if (columns[1].find("thrown") == std::string::npos) columns[1] += "; thrown = nothing";
        for (auto const& fact : parts(columns[1], ';')) {
            if (fact.empty()) continue;
            Words sides = parts(fact, '=');
            sides.resize(2);
            expect(sides[0] + " = " + play.fact(sides[0]), sides[0] + " = " + sides[1]);
        }
        if (line == script.end() || !line->text.starts_with(">")) continue;
        bool const some = line->text.starts_with(">>");
        Words expected, traced = play.traced();
        for (; line != script.end() && line->text.starts_with(">"); ++line)
            if (line->text.size() > 1)
                expected.push_back(parts(line->text.substr(1 + some), '\n')[0]);
        auto next = expected.begin();
        auto const beside = [&](std::string const& text) {
            return next == expected.end() || text != *next || (++next, false);
        };
        if (some) std::erase_if(traced, beside);
        expect(joined(traced, "\n"), joined(expected, "\n"));
    }
    if (play.waits()) ADD_FAILURE() << "a notification never came";
}

class ScenarioTest : public ::testing::TestWithParam<Support::Scenario> {};

TEST_P(ScenarioTest, EndsAsItShould) {
    for (Script const& script : scripts(GetParam().lines)) {
        play(script);
        if (!HasFailure()) continue;
        for (Line const& line : script) std::cout << line.text << "\n";
        break;
    }
}

INSTANTIATE_TEST_SUITE_P(, ScenarioTest, ::testing::ValuesIn(Support::scenariosIn(IHP_SCENARIOS)),
                         Support::NameOfScenario());

} // namespace
} // namespace IgmpHostProxy
