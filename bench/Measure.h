// What the benchmarks share: addresses, memory in live bytes, and the numbers of one pass per item.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <unistd.h>

namespace Bench {

inline constexpr std::uint32_t firstGroup = 0xEF000000;  // 239.0.0.0
inline constexpr std::uint32_t firstSource = 0x0A000001; // 10.0.0.1

/// Resident memory of the process in octets.
inline double residentBytes() {
    std::ifstream statm("/proc/self/statm");
    long total = 0;
    long resident = 0;
    statm >> total >> resident;
    return double(resident) * double(sysconf(_SC_PAGESIZE));
}

/// Runs `build(state)` once per iteration under the clock and reports time and resident memory per
/// item; `setUp()` makes the state and tearing it down is not timed.
template <class SetUp, class Build>
void perItem(benchmark::State& state, std::size_t items, SetUp setUp, Build build) {
    double bytes = 0;
    double seconds = 0;
    for (auto unused : state) {
        auto world = setUp();
        double const before = residentBytes();
        auto const start = std::chrono::steady_clock::now();
        build(*world);
        std::chrono::duration<double> const elapsed = std::chrono::steady_clock::now() - start;
        if (bytes == 0) bytes = residentBytes() - before; // the first pass finds nothing to reuse
        seconds += elapsed.count();
        state.SetIterationTime(elapsed.count());
    }
    state.counters["ns/item"] = seconds / double(state.iterations()) / double(items) * 1e9;
    if (bytes > 0) state.counters["B/item"] = bytes / double(items);
}

} // namespace Bench
