// Refuses chosen allocations to a test program whose link wraps malloc, calloc and realloc. To be
// included by one of its sources.
#pragma once

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

/// Allocations of all threads since the count began, and which of them are refused.
struct Memory {
    std::atomic<bool> counting = false;
    std::atomic<long> count = 0;
    long first = 0, last = 0;

    /// Begins to count, and to refuse from the `from`th on up to the `to`th; 0 for none.
    void refuse(long from, long to) {
        count = 0;
        first = from;
        last = to;
        counting = true;
    }
    /// Ends that; returns the count.
    long stop() {
        counting = false;
        return count;
    }
    bool refuses() {
        if (!counting) return false;
        long const at = ++count;
        return first <= at && at <= last;
    }
};
Memory memory;

} // namespace

extern "C" {
void* __real_malloc(std::size_t);
void* __real_calloc(std::size_t, std::size_t);
void* __real_realloc(void*, std::size_t);
void* __wrap_malloc(std::size_t size) { return memory.refuses() ? nullptr : __real_malloc(size); }
void* __wrap_calloc(std::size_t n, std::size_t size) {
    return memory.refuses() ? nullptr : __real_calloc(n, size);
}
void* __wrap_realloc(void* old, std::size_t size) {
    return memory.refuses() ? nullptr : __real_realloc(old, size);
}
}

// Not inlined, or compilers see them in pairs with those of the library.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const room = memory.refuses() ? nullptr : __real_malloc(size);
    if (!room) throw std::bad_alloc();
    return room;
}
[[gnu::noinline]] void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
    return memory.refuses() ? nullptr : __real_malloc(size);
}
[[gnu::noinline]] void operator delete(void* room) noexcept { std::free(room); }
[[gnu::noinline]] void operator delete(void* room, std::size_t) noexcept { std::free(room); }
