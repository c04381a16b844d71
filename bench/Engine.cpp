// What the IGMP host engine takes for all groups of an interface, from the wish to the last leave.
// It also trains the compiler for packages.
#include "Harness.h"
#include "agent/igmp/HostEngine.h"
#include "agent/igmp/IgmpTestPackets.h"

#include <array>

namespace {

using Agent::HostEngine;

constexpr std::uint32_t groups = 1 << 16;

struct Case {
    char const* name;
    unsigned version;
    std::uint32_t sources; ///< of each group
};
constexpr Case cases[] = {{"version 3, no source", 3, 0},
                          {"version 3, one source", 3, 1},
                          {"version 3, four sources", 3, 4},
                          {"version 2", 2, 0}};

enum Phase { taken, told, repeated, asked, answered, left, phases };
constexpr char const* phaseNames[phases] = {
    "taking the groups in", "reports",     "repeats",
    "general query",        "its answers", "leaving, told twice"};

struct Cost {
    double milliseconds; ///< of the processor
    std::uint64_t packets;
};
using Costs = std::array<Cost, phases>;

class Host : HostEngine::Output {
  public:
    explicit Host(Case const& kind) : case_(kind) {
        HostEngine::Settings settings;
        settings.version = kind.version;
        settings.address = Lox::IpAddr("10.99.0.2");
        settings.packetsPer100ms = 1'000'000;
        engine_.setSettings(now_, settings);
        engine_.linkUp(now_);
        for (std::uint32_t source = 0; source < kind.sources; ++source)
            sources_.push_back(Lox::IpAddr::fromHost(Bench::firstSource + source));
    }

    Costs run() {
        Agent::Bytes const query = Agent::packetOf(
            case_.version == 3 ? Agent::v3Query(100)
                               : Agent::message(Agent::IgmpType::query, Lox::IpAddr(), 100));
        Costs costs{};
        costs[taken] = cost([&] {
            auto const mode =
                sources_.empty() ? Agent::FilterMode::exclude : Agent::FilterMode::include;
            for (std::uint32_t at = 0; at < groups; ++at)
                engine_.setGroup(Lox::IpAddr::fromHost(Bench::firstGroup + at), mode, sources_);
        });
        costs[told] = cost([&] { engine_.flush(now_); });
        costs[repeated] = cost([&] { pass(); });
        costs[asked] = cost([&] { engine_.received(now_, query); });
        costs[answered] = cost([&] { pass(); });
        costs[left] = cost([&] {
            engine_.leaveAll(now_);
            pass();
        });
        if (engine_.memberCount() > 0 || !engine_.hasLeft()) Bench::fail("groups are left over");
        return costs;
    }

  private:
    void send(std::span<std::uint8_t const>) override { ++packets_; }
    void warn(std::string const&) override {}

    /// All that is due for the next half a minute.
    void pass() {
        double const end = now_ + 30;
        for (; engine_.nextExpiry() <= end; engine_.advance(now_))
            now_ = std::max(now_, engine_.nextExpiry());
        now_ = end;
    }
    template <class Work>
    Cost cost(Work work) {
        std::uint64_t const packets = packets_;
        double const start = Bench::processorNanoseconds();
        work();
        return {1e-6 * (Bench::processorNanoseconds() - start), packets_ - packets};
    }

    Case case_;
    double now_ = 1000;
    std::uint64_t packets_ = 0;
    std::vector<Lox::IpAddr> sources_;
    HostEngine engine_{*this, std::mt19937(7)};
};

/// The least of the samples, the heap touched by one before them.
Costs least(Case const& kind, unsigned samples) {
    return Bench::inChild([&] {
        Bench::keepHeap();
        Costs costs = Host(kind).run();
        for (unsigned at = 0; at < samples; ++at) {
            Costs const sample = Host(kind).run();
            for (std::size_t phase = 0; phase < phases; ++phase)
                if (at == 0 || sample[phase].milliseconds < costs[phase].milliseconds)
                    costs[phase] = sample[phase];
        }
        return costs;
    });
}

} // namespace

int main(int count, char** arguments) {
    unsigned const samples = count > 1 ? unsigned(std::atoi(arguments[1])) : 9;
    if (samples == 0 || count > 2) {
        std::fprintf(stderr, "usage: ihproxy_engine_bench [SAMPLES]\n");
        return 1;
    }
    std::printf("| milliseconds of the processor for %u groups (packets) |", groups);
    for (char const* const name : phaseNames) std::printf(" %s |", name);
    std::printf("\n|---|---|---|---|---|---|---|\n");
    for (Case const& kind : cases) {
        std::printf("| %s |", kind.name);
        for (Cost const& cost : least(kind, samples)) {
            std::printf(" %.*f", cost.milliseconds < 0.1 ? 3 : 1, cost.milliseconds);
            if (cost.packets > 0) std::printf(" (%llu)", (unsigned long long)cost.packets);
            std::printf(" |");
        }
        std::printf("\n");
    }
}
