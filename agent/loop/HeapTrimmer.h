// Gives memory back that a large change has left unused: the objects' empty chunks to the heap, and
// the heap's pages to the kernel. The C library would keep whatever lies below memory in use.
//
// One alarm: it looks some time after the loop has been busy, and goes on in the next turn. An idle
// agent is not woken.
#pragma once

#include "agent/loop/Alarm.h"

#include <cstddef>

namespace Agent {

class HeapTrimmer {
  public:
    /// `loop` outlives this.
    explicit HeapTrimmer(EventLoop& loop) : alarm_(loop, [this] { doTrim(); }) {}
    /// The end of a turn of the loop.
    void handleTurn();

  private:
    void doTrim();

    Alarm alarm_;
    bool armed_ = false;
    bool trimmed_ = false;        ///< in this turn
    std::size_t untrimmable_ = 0; ///< octets that were unused after the last time
};

} // namespace Agent
