// How the benchmarks measure: processor time per item, the library beside its floor, samples of the
// two in turns in one process, and the least of each.
//
// There are two cases. With a heap that was touched beforehand nothing is asked of the kernel; in
// fresh processes, one for each sample, every page is.
#pragma once

#include "Lumen/Ring.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace Bench {

inline constexpr std::uint32_t firstGroup = 0xEF000000;  // 239.0.0.0
inline constexpr std::uint32_t firstSource = 0x0A000001; // 10.0.0.1

/// All per item.
struct Sample {
    double nanoseconds = 0; ///< of the processor
    double lines = 0;       ///< in the trace ring
    double octets = 0;      ///< by which the process has grown
};

/// Resident memory of the process in octets.
inline double residentOctets() {
    std::ifstream statm("/proc/self/statm");
    long total = 0;
    long resident = 0;
    statm >> total >> resident;
    return double(resident) * double(sysconf(_SC_PAGESIZE));
}

inline double processorNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) * 1e9 + double(now.tv_nsec);
}

/// Ends the benchmarks: a figure would be a wrong one.
[[noreturn]] inline void fail(char const* what) {
    std::fprintf(stderr, "ihproxy_bench: %s\n", what);
    std::abort();
}

/// One sample. A `World` is made for so many items, which is not measured; `run()` is, and `done()`
/// then says whether all came out as it should.
template <class World>
Sample take(std::uint32_t items) {
    World world(items);
    double const resident = residentOctets();
    std::uint64_t const lines = Lumen::ring.written();
    double const start = processorNanoseconds();
    world.run();
    double const elapsed = processorNanoseconds() - start;
    Sample const sample{elapsed / items, double(Lumen::ring.written() - lines) / items,
                        (residentOctets() - resident) / items};
    if (!world.done()) fail("a run has not come out as it should");
    return sample;
}
using Take = Sample (*)(std::uint32_t items);

/// Runs `work` in a child process and returns its plain result.
template <class Work>
auto inChild(Work work) {
    decltype(work()) result{};
    int ends[2];
    std::fflush(nullptr);
    if (pipe(ends) != 0) fail("no pipe");
    pid_t const child = fork();
    if (child < 0) fail("no child process");
    if (child == 0) {
        result = work();
        bool const told = write(ends[1], &result, sizeof result) == ssize_t(sizeof result);
        std::exit(told ? 0 : 1); // not _exit: a run that trains the compiler writes its profile
    }
    close(ends[1]);
    bool const heard = read(ends[0], &result, sizeof result) == ssize_t(sizeof result);
    close(ends[0]);
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0 || !heard) fail("a child has failed");
    return result;
}

struct Pair {
    Sample floor, library;
};

inline void keepLeast(Sample& least, Sample const& sample, bool first) {
    if (first || sample.nanoseconds < least.nanoseconds) least = sample;
}
/// The floor writes as many lines to the trace ring as the library does, or it is none.
inline void expectSameLines(Pair const& pair) {
    if (std::abs(pair.floor.lines - pair.library.lines) <= 0.1) return;
    std::fprintf(stderr, "lines: floor %.2f, library %.2f\n", pair.floor.lines, pair.library.lines);
    fail("the floor does not write the lines that the library writes");
}

/// What this process has of the heap from now on is given back to nobody.
inline void keepHeap() {
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, -1);
}

/// In one process whose heap was touched beforehand, and is given back to nobody. `floor` may be
/// null.
inline Pair touched(Take floor, Take library, std::uint32_t items, unsigned samples) {
    return inChild([&] {
        keepHeap();
        std::size_t const room = std::size_t(items) * 2048 + (std::size_t(64) << 20);
        void* const heap = std::malloc(room);
        if (!heap) fail("no memory");
        std::memset(heap, 1, room);
        std::free(heap);
        Pair least;
        for (unsigned at = 0; at < samples; ++at) {
            if (floor) keepLeast(least.floor, floor(items), at == 0);
            keepLeast(least.library, library(items), at == 0);
        }
        return least;
    });
}
/// Each sample in a process of its own.
inline Pair fresh(Take floor, Take library, std::uint32_t items, unsigned samples) {
    Pair least;
    for (unsigned at = 0; at < samples; ++at) {
        if (floor) keepLeast(least.floor, inChild([&] { return floor(items); }), at == 0);
        keepLeast(least.library, inChild([&] { return library(items); }), at == 0);
    }
    return least;
}

} // namespace Bench
