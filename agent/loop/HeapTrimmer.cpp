#include "agent/loop/HeapTrimmer.h"

#include "Nex/Ptr.h"

#include <malloc.h>
#include <utility>

namespace Agent {

namespace {

/// From a busy turn to the look.
constexpr double lookDelaySeconds = 10;
/// How much unused memory is worth the work.
constexpr std::size_t worthwhileOctets = 8 << 20;
/// Free places of objects that are looked at in one turn: about a millisecond.
constexpr std::size_t sliceLength = 5000;

} // namespace

void HeapTrimmer::handleTurn() {
    if (std::exchange(trimmed_, false) || std::exchange(armed_, true)) return;
    alarm_.arm(lookDelaySeconds);
}

void HeapTrimmer::doTrim() {
    trimmed_ = true;
    if (Nex::PtrInterface::nexTrim(sliceLength)) return alarm_.arm(0);
    armed_ = false;
    struct mallinfo2 const heap = mallinfo2();
    if (heap.fordblks < worthwhileOctets || heap.fordblks < heap.uordblks / 4) return;
    if (heap.fordblks == untrimmable_) return;
    malloc_trim(0);
    untrimmable_ = mallinfo2().fordblks; // pages are given back without being counted
}

} // namespace Agent
