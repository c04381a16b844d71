// Runs the agent's engine and the machines above it in a network of routers and other hosts, where
// everything goes wrong that may, and checks what has to hold at every moment: see Properties.h.
//
// Each run is a list of steps drawn from a seed. One that fails is made as short as it fails still,
// and printed in the form of the files in found/, which are played again here. From the
// environment: IHP_SEED, the first seed; IHP_SEEDS, how many; IHP_KEEP_ON=1 goes on after a
// failure, and IHP_SHORTEN=0 prints it as it is.
#include "simulator/World.h"

#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <iostream>

namespace Simulator {
namespace {

struct Outcome {
    std::string failure;
    double seconds = 0;
    std::uint64_t packets = 0;
};

Outcome outcomeOf(Steps const& run) {
    if (run.empty() || run[0].verb != "world") return {"no world", 0, 0};
    World world(run[0]);
    std::string const failure = world.play({run.begin() + 1, run.end()});
    return {failure, world.seconds(), world.packets()};
}

class Drawing {
  public:
    explicit Drawing(unsigned seed) : random_(seed) {}

    Steps run() {
        unsigned const robustness = oneOf({2, 2, 2, 3, 4});
        unsigned const interval = oneOf({20, 20, 60, 125});
        versions_ = oneOf({3, 3, 3, 2, 1, 0});
        Steps run{
            {0,
             "world",
             {unsigned(random_()), robustness, interval,
              std::min(oneOf({10, 40, 100}), interval * 5), oneOf({robustness, robustness, 2u})}},
            {0, "router", {0, version()}},
            {0, "start", {0}}};
        if (below(2)) run.push_back({0, "router", {1, version()}});
        for (unsigned s : {1u, 2u})
            if (below(2)) run.push_back({0, "start", {s}});
        calm_ = below(2);
        for (unsigned steps = 5 + below(60); steps > 0; --steps) {
            if (below(10)) {
                run.push_back(step());
                continue;
            }
            unsigned const s = oneOf({0, 0, 1, 2}), link = below(2);
            run.push_back({pause(), link ? "link" : "kill", {s}});
            for (unsigned left = below(3); left > 0; --left) run.push_back(want(s));
            run.push_back({pause(), link ? "link" : "start", {s, 1, link ? 0 : below(3)}});
        }
        return run;
    }

  private:
    unsigned below(unsigned count) { return unsigned(random_() % count); }
    unsigned oneOf(std::vector<unsigned> const& all) { return all[below(unsigned(all.size()))]; }
    unsigned version() { return versions_ > 0 && (calm_ || below(8)) ? versions_ : 1 + below(3); }
    double pause() {
        return std::vector{0., 0.01, 0.3, 1., 3., 30., 300.}[below(7)] * below(1000) / 1000;
    }
    Step want(unsigned s) {
        return {pause(), "want", {s, below(7), below(2), below(2) ? below(16) : below(3)}};
    }
    /// Half of them are about what is wanted. In a calm run routers have the time to learn.
    Step step() {
        unsigned const s = oneOf({0, 0, 1, 2});
        std::vector<Step> const steps{
            {0, "link", {s, below(3)}},
            {0, "address", {s, below(4)}},
            {0, "again", {s}},
            {0, "start", {s, below(5), oneOf({0, 2, 20})}},
            {0, "kill", {s}},
            {0, "stop", {s}},
            {0, "pace", {s, oneOf({1, 3, 100, 100}), oneOf({68, 576, 1500})}},
            {0,
             "ask",
             {calm_ ? 3 : oneOf({3, version()}), below(10), below(32) * below(2),
              oneOf({1, 10, 50, 127, 200})}},
            {0, "speak", {s, oneOf({1, 2, 3, 3, 3})}},
            {0, "router", {below(3), below(2) * version()}},
            {0, "storm", {below(100), below(101)}}};
        if (below(2)) return want(s);
        Step drawn = steps[below(unsigned(steps.size()) - (calm_ ? 3 : 0))];
        drawn.after = pause();
        return drawn;
    }

    std::mt19937 random_;
    unsigned versions_;
    bool calm_ = true;
};

/// Leaves out halves, then quarters, down to single steps, as long as the rest fails.
Steps shortened(Steps run) {
    for (std::size_t size = run.size() / 2; size > 0;) {
        bool shorter = false;
        for (std::size_t first = 1; first < run.size();) {
            Steps rest = run;
            auto const from = rest.begin() + std::ptrdiff_t(first);
            rest.erase(from, from + std::ptrdiff_t(std::min(size, run.size() - first)));
            if (outcomeOf(rest).failure.empty()) {
                first += size;
            } else {
                run = rest;
                shorter = true;
            }
        }
        if (!shorter) size /= 2;
    }
    return run;
}

unsigned number(char const* variable, unsigned otherwise) {
    char const* const text = std::getenv(variable);
    return text ? unsigned(std::stoul(text)) : otherwise;
}

TEST(SimulatorTest, WhatIsDrawnKeepsAllProperties) {
    unsigned const first = number("IHP_SEED", 1), count = number("IHP_SEEDS", IHP_SEEDS);
    double seconds = 0;
    std::uint64_t packets = 0;
    auto const start = std::chrono::steady_clock::now();
    for (unsigned seed = first; seed < first + count; ++seed) {
        Steps const run = Drawing(seed).run();
        Outcome const outcome = outcomeOf(run);
        seconds += outcome.seconds;
        packets += outcome.packets;
        if (outcome.failure.empty()) continue;
        Steps const found = number("IHP_SHORTEN", 1) ? shortened(run) : run;
        ADD_FAILURE() << "seed " << seed << ": " << outcome.failure
                      << "\n== " << outcomeOf(found).failure << "\n"
                      << textOf(found);
        if (!number("IHP_KEEP_ON", 0)) break;
    }
    std::chrono::duration<double> const took = std::chrono::steady_clock::now() - start;
    std::cout << count << " runs, " << seconds / 3600 << " hours, " << packets << " packets, "
              << seconds / 3600 / took.count() << " hours in a second\n";
}

class FoundTest : public testing::TestWithParam<Support::Scenario> {};

TEST_P(FoundTest, KeepsAllProperties) {
    Steps run;
    for (auto const& line : GetParam().lines) run.push_back(stepOf(line.text));
    EXPECT_EQ(outcomeOf(run).failure, "");
}

INSTANTIATE_TEST_SUITE_P(, FoundTest, testing::ValuesIn(Support::scenariosIn(IHP_FOUND)),
                         Support::NameOfScenario());

} // namespace
} // namespace Simulator
