// Runs the agent's engine and the machines above it in a network of routers and other hosts, where
// everything goes wrong that may, and checks what has to hold at every moment: see World.h.
//
// Each run is a list of steps drawn from a seed. One that fails is made as short as it fails still,
// and printed in the form of the files in found/, which are played again here. From the
// environment: IHP_SEED, the first seed; IHP_SEEDS, how many; IHP_KEEP_ON=1 goes on after a
// failure, and IHP_SHORTEN=0 prints it as it is. A run that kills the process, or has no end, shows
// its seed.
#include "simulator/World.h"
#include "support/Scenario.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <iostream>
#include <tuple>
#include <unistd.h>

/// Of the sanitizers, where they are: they end the process in their own way.
extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

namespace Simulator {
namespace {

constexpr unsigned mostSeconds = 120; // that a run may take, anywhere
double hours = 0;                     // simulated
std::string atHand;                   // what is played, for whoever finds the process dead

void doShowSeed() { std::ignore = ::write(STDERR_FILENO, atHand.data(), atHand.size()); }

void handleSignal(int signal) {
    doShowSeed();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

/// What goes wrong, if anything does.
std::string failureOf(Steps const& run) {
    ::alarm(mostSeconds);
    World world(Step(run.at(0)).with);
    std::string failure;
    try {
        world.play({run.begin() + 1, run.end()});
    } catch (std::exception const& e) {
        failure = e.what();
    }
    hours += world.seconds() / 3600;
    return failure;
}

class Drawing {
  public:
    explicit Drawing(unsigned seed) : random_(seed) {
        versions_ = oneOf({3, 3, 3, 2, 1, 0});
        calm_ = below(2);
        // Older routers do not say what is set in them, so it has to be the same in all.
        bool const differ = calm_ && versions_ == 3 && below(2);
        unsigned const robustness = differ ? 4 : oneOf({2, 2, 2, 3, 4});
        unsigned const interval = differ ? 125 : oneOf({20, 20, 60, 125});
        add("world", {unsigned(random_()), robustness, interval,
                      differ ? 100 : std::min(oneOf({10, 40, 100}), interval * 5),
                      oneOf({robustness, robustness, 2})});
        for (unsigned const router : {0u, 1u, 2u, 3u, 4u})
            if (router < 2 || below(3) == 0)
                add("router", {router, version(), differ ? oneOf({2, 3, 4}) : 0,
                               oneOf({20, 60, 125}), oneOf({10, 40, 100})});
        for (unsigned s : {0u, 1u, 2u})
            if (s == 0 || below(2)) add("start", {s});
        for (unsigned steps = 5 + below(60); steps > 0; --steps) {
            unsigned const s = oneOf({0, 0, 1, 2}), link = below(2);
            if (below(10)) {
                addStep(s);
                continue;
            }
            add(link ? "link" : "kill", {s});
            for (unsigned left = below(3); left > 0; --left) addWant(s);
            add(link ? "link" : "start", {s, 1, link ? 0 : below(3)});
        }
    }
    Steps run;

  private:
    unsigned below(unsigned count) { return unsigned(random_() % count); }
    unsigned oneOf(std::vector<unsigned> const& all) { return all[below(unsigned(all.size()))]; }
    unsigned version() { return versions_ > 0 && (calm_ || below(8)) ? versions_ : 1 + below(3); }
    double pause() {
        double const most = std::array{0., 0.01, 0.3, 1., 3., 30., 300.}[below(7)];
        return most * below(1000) / 1000;
    }
    void add(char const* verb, std::vector<unsigned> const& with) {
        std::ostringstream text;
        text << "+" << pause() << " " << verb;
        for (unsigned const each : with) text << " " << each;
        run.push_back(text.str());
    }
    void addWant(unsigned s) {
        add("want", {s, below(7), below(2), below(2) ? below(16) : below(3)});
    }
    /// Half of them are about what is wanted. In a calm run routers have the time to learn.
    void addStep(unsigned s) {
        std::pair<char const*, std::vector<unsigned>> const steps[] = {
            {"link", {s, below(3)}},
            {"address", {s, below(4)}},
            {"again", {s}},
            {"start", {s, below(5), oneOf({0, 2, 20})}},
            {"kill", {s}},
            {"stop", {s}},
            {"pace", {s, oneOf({1, 3, 100, 100}), oneOf({68, 576, 1500})}},
            {"ask",
             {calm_ ? 3 : oneOf({3, version()}), below(10), below(32) * below(2),
              oneOf({1, 10, 50, 127, 200}), oneOf({0, 4, 7})}},
            {"speak", {s, oneOf({1, 2, 3, 3, 3})}},
            {"router", {below(5), below(2) * version()}},
            {"storm", {below(100), below(101)}}};
        if (below(2)) return addWant(s);
        auto const& [verb, with] = steps[below(calm_ ? 8 : 11)];
        add(verb, with);
    }

    std::mt19937 random_;
    unsigned versions_;
    bool calm_ = true;
};

/// Without its numbers, which a shorter run changes.
std::string kindOf(std::string failure) {
    std::erase_if(failure, [](char c) { return std::strchr("0123456789.-+e", c); });
    return failure;
}

/// Leaves out halves, then quarters, down to single steps, as long as the rest fails like that.
Steps shortened(Steps run, std::string const& kind) {
    for (std::size_t size = run.size() / 2; size > 0; size /= 2)
        for (std::size_t first = 1; first < run.size();) {
            Steps rest(run.begin(), run.begin() + std::ptrdiff_t(first));
            for (std::size_t i = first + size; i < run.size(); ++i) rest.push_back(run[i]);
            if (kindOf(failureOf(rest)) == kind)
                run = rest;
            else
                first += size;
        }
    return run;
}

unsigned number(char const* variable, unsigned otherwise) {
    char const* const text = std::getenv(variable);
    return text ? unsigned(std::stoul(text)) : otherwise;
}

TEST(SimulatorTest, WhatIsDrawnKeepsAllProperties) {
    unsigned const first = number("IHP_SEED", 1), count = number("IHP_SEEDS", IHP_SEEDS);
    if (__sanitizer_set_death_callback) __sanitizer_set_death_callback(doShowSeed);
    for (int const signal : {SIGALRM, SIGTERM, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
        if (!__sanitizer_set_death_callback || signal == SIGALRM) std::signal(signal, handleSignal);
    for (unsigned seed = first; seed < first + count; ++seed) {
        Steps run = Drawing(seed).run;
        atHand = "seed " + std::to_string(seed) + "\n";
        std::string const failure = failureOf(run);
        if (failure.empty()) continue;
        if (number("IHP_SHORTEN", 1)) run = shortened(run, kindOf(failure));
        std::string text;
        for (std::string const& step : run) text += step + "\n";
        ADD_FAILURE() << "seed " << seed << ": " << failure << "\n== " << failureOf(run) << "\n"
                      << text;
        if (!number("IHP_KEEP_ON", 0)) break;
    }
    std::cout << hours << " hours\n";
}

class FoundTest : public testing::TestWithParam<Support::Scenario> {};

TEST_P(FoundTest, KeepsAllProperties) {
    Steps run;
    for (Support::Line const& line : GetParam().lines) run.push_back(line.text);
    EXPECT_EQ(failureOf(run), "");
}

INSTANTIATE_TEST_SUITE_P(, FoundTest, testing::ValuesIn(Support::scenariosIn(IHP_FOUND)),
                         Support::NameOfScenario());

} // namespace
} // namespace Simulator
