#include "Nex/Ptr.h"

#include <atomic>
#include <mutex>
#include <new>
#include <vector>

// Under the address sanitizer every object is an allocation of its own, so that a use after the
// end is seen.
#if defined(__SANITIZE_ADDRESS__)
static constexpr bool plainAllocation = true;
#elif defined(__has_feature)
static constexpr bool plainAllocation = __has_feature(address_sanitizer);
#else
static constexpr bool plainAllocation = false;
#endif

namespace Nex {

void PtrInterface::nexRefDecShared() const {
    if (std::atomic_ref(references_).fetch_sub(1, std::memory_order_acq_rel) == 1)
        nexZeroReferences();
}

void PtrInterface::nexEnd() const {
    if (destructionObserver_) destructionObserver_->onDestruction(*this);
    onZeroReferences();
}

/// Destructors of this thread that are on the stack, within each other. An object that would end
/// deeper than the deepest is held until the one that holds it has ended, so a long chain of
/// objects needs no long stack.
static constexpr unsigned deepest = 50;
static constinit thread_local unsigned depth = 0;
static constinit thread_local std::vector<PtrInterface const*>* held = nullptr;

void PtrInterface::nexZeroReferences() const {
    if (held) {
        references_ = 1; // the list's
        held->push_back(this);
    } else if (++depth < deepest) {
        nexEnd();
        --depth;
    } else {
        std::vector<PtrInterface const*> waiting;
        held = &waiting;
        nexEnd();
        while (!waiting.empty()) {
            PtrInterface const* const next = waiting.back();
            waiting.pop_back();
            if (--next->references_ == 0) next->nexEnd(); // nobody has found it meanwhile
        }
        held = nullptr;
        --depth;
    }
}

bool PtrInterface::unusualAllocation_ = plainAllocation;

void PtrInterface::threadSafeIs(bool on) {
    threadSafe_ = on;
    unusualAllocation_ = on || plainAllocation;
}

/// Taken around the arena where threads share it.
static constinit std::mutex mutex;

void* PtrInterface::allocateUnusually(std::size_t bytes) {
    if (plainAllocation || bytes > Arena::largest) return ::operator new(bytes);
    std::lock_guard const lock(mutex);
    return arena_.take(bytes);
}

void PtrInterface::freeUnusually(void* object, std::size_t bytes) noexcept {
    if (plainAllocation || bytes > Arena::largest) return ::operator delete(object);
    std::lock_guard const lock(mutex);
    arena_.giveBack(object, bytes);
}

bool PtrInterface::nexTrim(std::size_t most) {
    std::lock_guard const lock(mutex);
    return arena_.trim(most);
}

} // namespace Nex
