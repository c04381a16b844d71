// Prints what the whole agent costs in a throw-away network, as tables for docs/performance.md.
// Several builds of the agent may be named, which take turns. Needs root.
#include "AgentReloads.h"
#include "AgentRoutes.h"
#include "AgentStanding.h"

#include <algorithm>
#include <array>
#include <map>

namespace {

using namespace AgentBench;

struct Row {
    std::string name;
    std::function<Took(std::size_t)> measure; ///< with so many groups
};
/// The medians of five, all rows in turns.
void printTable(char const* until, std::vector<Row> const& rows) {
    constexpr std::size_t sizes[] = {10000, 65536};
    std::vector<std::array<std::array<Took, 5>, 2>> taken(rows.size());
    for (std::size_t round = 0; round < 5; ++round)
        for (std::size_t row = 0; row < rows.size(); ++row)
            for (std::size_t size : {0u, 1u})
                taken[row][size][round] = rows[row].measure(sizes[size]);
    std::printf("| milliseconds until %s | 10,000: processor | first report | wall clock | 65,536: "
                "processor | first report | wall clock |\n|---|---|---|---|---|---|---|\n",
                until);
    for (std::size_t row = 0; row < rows.size(); ++row) {
        std::printf("| %s |", rows[row].name.c_str());
        for (auto& all : taken[row])
            for (double Took::*figure : {&Took::processor, &Took::first, &Took::wall}) {
                std::sort(all.begin(), all.end(),
                          [&](Took const& a, Took const& b) { return a.*figure < b.*figure; });
                if (all[2].*figure > 0)
                    std::printf(" %.0f |", 1e3 * all[2].*figure);
                else
                    std::printf(" |");
            }
        std::printf("\n");
    }
    std::printf("\n");
    std::fflush(stdout);
}

} // namespace

int main(int count, char** arguments) try {
    std::string const unavailable = Testing::Netns::unavailableReason();
    if (!unavailable.empty()) fail(unavailable);
    std::vector<std::string> programs(arguments + 1, arguments + count);
    if (programs.empty()) programs = {IHPROXYD};
    for (std::string const& program : programs)
        if (access(program.c_str(), X_OK) != 0)
            fail(program + " is no program; usage: ihproxy_agent_bench [AGENT...]");

    std::map<std::size_t, Frames> sent; // by the agent, of so many groups
    std::vector<Row> reloads, starts;
    for (std::string const& program : programs) {
        auto const row = [&](char const* name, auto measure) {
            return Row{program + ": " + name, measure};
        };
        reloads.push_back(row("one rule", [&](std::size_t groups) {
            return ofAgent(program, groups, ruleOver(groups), sent[groups]);
        }));
        reloads.push_back(row("single groups", [&](std::size_t groups) {
            return ofAgent(program, groups, singleGroups(groups), sent[groups]);
        }));
        reloads.push_back(row("reading those of the file alone", [&](std::size_t groups) {
            return ofCheck(program, singleGroups(groups));
        }));
        starts.push_back(
            row("from its start", [&](std::size_t routes) { return ofRoutes(program, routes); }));
    }
    reloads.push_back({"bare sender of the same packets",
                       [&](std::size_t groups) { return ofSender(groups, sent[groups]); }});
    reloads.push_back({"the kernel's own joins", ofKernel});
    starts.push_back({"bare dump", ofDump});
    printTable("the bridge knows all groups", reloads);
    printTable("all routes of the kernel are told", starts);

    std::printf("| milliseconds of the processor for one interface out of |  | new MAC address | "
                "down and up | gone and back |\n|---|---|---|---|---|\n");
    for (std::size_t const interfaces : {10u, 100u, 1000u, 10000u}) {
        Single const one = ofInterfaces(programs.front(), interfaces);
        std::printf("| %s | %zu | %.2f | %.2f | %.2f |\n", programs.front().c_str(), interfaces,
                    one.address, one.downAndUp, one.goneAndBack);
        std::fflush(stdout);
    }

    constexpr std::size_t many = 65536;
    std::printf("\n| at rest with 65,536 groups | wake-ups a second | octets a group |\n"
                "|---|---|---|\n");
    for (std::string const& program : programs) {
        double const alone = atRest(program, 0, head("")).octets;
        for (auto const& [name, configuration] :
             {std::pair("one rule", ruleOver(many, "")),
              std::pair("single groups", singleGroups(many, ""))}) {
            Rest const rest = atRest(program, many, configuration);
            std::printf("| %s: %s | %.2f | %.0f |\n", program.c_str(), name, rest.wakeUps,
                        (rest.octets - alone) / double(many));
            std::fflush(stdout);
        }
    }
} catch (std::exception const& error) {
    fail(error.what());
}
