// Prints what the library costs, as tables for docs/performance.md.
#include "Interfaces.h"
#include "Lists.h"
#include "Pairs.h"
#include "Routes.h"

#include <string>
#include <string_view>

namespace {

using namespace Bench;

/// A figure that is compared with its floor.
struct Row {
    char const* name;
    std::uint32_t items;
    Take floor;
    Take library;
    char const* wanted; ///< library ÷ floor
};
constexpr std::uint32_t many = 1 << 16;
constexpr std::uint32_t veryMany = 1 << 20;
constexpr Row rows[] = {
    {"new pair", many, take<NewPairs<PairFloor<1>, 1>>, take<NewPairs<PairWorld, 1>>, "1.3"},
    {"new pair", veryMany, take<NewPairs<PairFloor<1>, 1>>, take<NewPairs<PairWorld, 1>>, "1.1"},
    {"new pair, four sources a group", many, take<NewPairs<PairFloor<4>, 4>>,
     take<NewPairs<PairWorld, 4>>, "1.0"},
    {"one more source for a random group", many, take<MoreSources<PairFloor<16>>>,
     take<MoreSources<PairWorld>>, "2.0"},
    {"one group of a permit rule", many, take<PermitRule<ListFloor>>, take<PermitRule<ListWorld>>,
     "1.0"},
    {"one group of a permit rule", veryMany, take<PermitRule<ListFloor>>,
     take<PermitRule<ListWorld>>, "0.9"},
    {"one group of a rule that is taken back", many, take<RuleTakenBack<ListFloor>>,
     take<RuleTakenBack<ListWorld>>, ""},
    {"new route of a full sync", many, take<FullSync<RouteFloor, false>>,
     take<FullSync<RouteWorld, false>>, "1.5"},
    {"unchanged route of a full sync", many, take<FullSync<RouteFloor, true>>,
     take<FullSync<RouteWorld, true>>, "1.35"},
};

/// A figure by how many there are of what it is about.
struct Growth {
    char const* name;
    std::vector<std::uint32_t> counts;
    Take library;
};
std::vector<Growth> const growths = [] {
    std::vector<std::uint32_t> const items{1 << 10, 1 << 12, 1 << 14, 1 << 16,
                                           1 << 18, 1 << 20, 1 << 22};
    std::vector<std::uint32_t> const interfaces{1, 10, 100, 1000, 10000};
    std::vector<std::uint32_t> const vrfs{1, 8, 64, 512, 1024};
    std::vector<std::uint32_t> const rules{1, 100, 1000, 10000, 20000};
    return std::vector<Growth>{
        {"new pair", items, take<NewPairs<PairWorld, 1>>},
        {"one more source for a random group", items, take<MoreSources<PairWorld>>},
        {"one group of a permit rule", items, take<PermitRule<ListWorld>>},
        {"one group of a rule that is taken back", items, take<RuleTakenBack<ListWorld>>},
        {"new route of a full sync", items, take<FullSync<RouteWorld, false>>},
        {"unchanged route of a full sync", items, take<FullSync<RouteWorld, true>>},
        {"random changed route, from its notification to its review", items, take<ChangedRoutes>},
        {"whether any pair has a random group", items, take<AnyPairHasGroup>},
        {"rule of one group, withdrawn with all others", rules, take<RulesWithdrawn>},
        {"rule of one of two lists, which is detached", rules, take<OneOfTwoListsDetached>},
        {"interface that comes up", interfaces, take<ComingUp<IntfWorld>>},
        {"interface that goes", interfaces, take<Going<IntfWorld>>},
        {"interface with a new MAC address", interfaces, take<MacChanges>},
        {"VRF that comes", vrfs, take<ComingUp<VrfWorld>>},
        {"VRF that goes", vrfs, take<Going<VrfWorld>>},
        {"listing one interface out of as many VRFs", vrfs, take<Relistings>},
    };
}();

void printRow(Row const& row, unsigned samples) {
    Pair const warm = touched(row.floor, row.library, row.items, samples);
    Pair const cold = fresh(row.floor, row.library, row.items, samples);
    expectSameLines(warm);
    std::printf(
        "| %s | %u | %.0f | %.0f | **%.2f** | %s | %.0f | %.0f | **%.2f** | %.0f | %.0f |\n",
        row.name, row.items, warm.floor.nanoseconds, warm.library.nanoseconds,
        warm.library.nanoseconds / warm.floor.nanoseconds, row.wanted, cold.floor.nanoseconds,
        cold.library.nanoseconds, cold.library.nanoseconds / cold.floor.nanoseconds,
        cold.floor.octets, cold.library.octets);
}
void printRows(std::string_view filter, unsigned samples, std::uint32_t most) {
    std::printf(
        "| nanoseconds of the processor per item | items | floor | library | ratio | wanted "
        "| fresh: floor | library | ratio | octets: floor | library |\n"
        "|---|---|---|---|---|---|---|---|---|---|---|\n");
    for (Row const& row : rows)
        if (row.items <= most && std::string_view(row.name).find(filter) != std::string_view::npos)
            printRow(row, samples);
}

/// What has no floor, or another one.
void printParts(unsigned samples) {
    Pair const notified =
        touched(take<Notifications<TableOf>>, take<Notifications<RouteWorld>>, many, samples);
    auto const alone = [&](Take run) {
        return touched(nullptr, run, veryMany, samples).library.nanoseconds;
    };
    std::printf("\n| nanoseconds of the processor | wanted | measured |\n|---|---|---|\n"
                "| notification of a random route, without the table's own update | 70 | %.0f |\n",
                notified.library.nanoseconds - notified.floor.nanoseconds);
    std::printf("| ring record of two values, with the callback's time stamp | 3 | %.1f |\n"
                "| the same with a time stamp of its own | 12 | %.1f |\n"
                "| one address of the range iterator | 2 | %.1f |\n",
                alone(take<RingRecords<true>>), alone(take<RingRecords<false>>),
                alone(take<RangeSteps>));
}

/// Up to `most` of what the figures are about.
void printGrowth(unsigned samples, std::uint32_t most) {
    std::vector<std::uint32_t> const* head = nullptr;
    for (Growth const& growth : growths) {
        auto const end = std::upper_bound(growth.counts.begin(), growth.counts.end(), most);
        std::vector<std::uint32_t> const counts(growth.counts.begin(), end);
        if (!head || *head != growth.counts) {
            head = &growth.counts;
            std::printf("\n| nanoseconds of the processor for one of |");
            for (std::uint32_t const count : counts) std::printf(" %u |", count);
            std::printf("\n|---|");
            for (std::size_t at = 0; at < counts.size(); ++at) std::printf("---|");
            std::printf("\n");
        }
        std::printf("| %s |", growth.name);
        for (std::uint32_t const count : counts)
            std::printf(" %.0f |",
                        touched(nullptr, growth.library, count, samples).library.nanoseconds);
        std::printf("\n");
        std::fflush(stdout);
    }
}

} // namespace

int main(int count, char** arguments) {
    unsigned const samples = count > 1 ? unsigned(std::atoi(arguments[1])) : 9;
    if (samples == 0 || count > 3) {
        std::fprintf(stderr,
                     "usage: ihproxy_bench [SAMPLES [ROW | training | growth]]    prints all "
                     "tables, which takes 2.2 GB of memory; those rows that have a floor and ROW "
                     "in their names; what trains the compiler, in 0.2 GB; or how all grows, up "
                     "to 4 million items, in 9 GB\n");
        return 1;
    }
    std::string_view const part = count > 2 ? arguments[2] : "";
    if (part == "growth") {
        printGrowth(samples, ~std::uint32_t(0));
        return 0;
    }
    if (part == "training") {
        printRows("", samples, many);
        printGrowth(samples, many);
        return 0;
    }
    printRows(part, samples, veryMany);
    if (count > 2) return 0;
    printParts(samples);
    printGrowth(samples, veryMany);
}
