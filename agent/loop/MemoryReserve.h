// A piece of memory that nobody uses, given back when there is no other: what is under way comes to
// its end by it, and what can wait does not begin before there is memory again. JSON values, which
// must not be refused any as they end, have a room besides (Json.h).
#pragma once

#include "agent/loop/Log.h"

namespace Agent {

/// One in a program at a time. Holds for all threads, and for whatever comes from operator new.
class MemoryReserve {
  public:
    /// Throws std::bad_alloc.
    MemoryReserve();
    ~MemoryReserve();
    MemoryReserve(MemoryReserve const&) = delete;
    MemoryReserve& operator=(MemoryReserve const&) = delete;

    /// Whether it has been given up: nothing that can wait should begin.
    static bool isSpent();
    /// The end of a turn of the loop: puts it by again, if there is memory.
    void handleTurn();

  private:
    LogLimit warnings_;
};

} // namespace Agent
