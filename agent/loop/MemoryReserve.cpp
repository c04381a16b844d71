#include "agent/loop/MemoryReserve.h"

#include "agent/loop/EventLoop.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace Agent {

namespace {

/// More than one request and a piece of its answer take. The kernel has no page of it in use.
constexpr std::size_t reserveOctets = 1 << 20;

std::atomic<void*> reserve = nullptr;
std::atomic<bool> spent = false;

void giveUp() {
    void* const held = reserve.exchange(nullptr);
    if (!held) throw std::bad_alloc();
    spent = true;
    std::free(held);
}

} // namespace

MemoryReserve::MemoryReserve() {
    reserve = std::malloc(reserveOctets);
    if (!reserve) throw std::bad_alloc();
    std::set_new_handler(giveUp);
}

MemoryReserve::~MemoryReserve() {
    std::set_new_handler(nullptr);
    std::free(reserve.exchange(nullptr));
    spent = false;
}

bool MemoryReserve::isSpent() { return spent; }

void MemoryReserve::handleTurn() {
    if (!spent) return;
    reserve = std::malloc(reserveOctets);
    spent = !reserve;
    if (auto const heldBack = warnings_.admitted(EventLoop::now()))
        log(LogLevel::warning, "memory has run out; a reserve was used ({} more like this)",
            *heldBack);
}

} // namespace Agent
