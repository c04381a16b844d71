#include "Nex/Ptr.h"

#include <atomic>
#include <mutex>
#include <new>

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

void PtrInterface::nexZeroReferences() const {
    if (destructionObserver_) destructionObserver_->onDestruction(*this);
    onZeroReferences();
}

bool PtrInterface::unusualAllocation_ = plainAllocation;

void PtrInterface::threadSafeIs(bool on) {
    threadSafe_ = on;
    unusualAllocation_ = on || plainAllocation;
}

/// Taken around the slabs where threads share them.
static constinit std::mutex mutex;

void* PtrInterface::allocateUnusually(std::size_t bytes) {
    if (plainAllocation || bytes > Slab::largest) return ::operator new(bytes);
    std::lock_guard const lock(mutex);
    return Slab::of(bytes).take(bytes);
}

void PtrInterface::freeUnusually(void* object, std::size_t bytes) noexcept {
    if (plainAllocation || bytes > Slab::largest) return ::operator delete(object);
    std::lock_guard const lock(mutex);
    Slab::of(bytes).giveBack(object);
}

bool Slab::trim(std::size_t most) {
    std::lock_guard const lock(mutex);
    bool more = false;
    for (std::size_t at = 1; at < slabs.size(); ++at)
        more = slabs[at].trim(at * granule, most) || more;
    return more;
}

} // namespace Nex
