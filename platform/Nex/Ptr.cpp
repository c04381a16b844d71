#include "Nex/Ptr.h"

#include <array>
#include <atomic>
#include <mutex>
#include <new>

// Under the address sanitizer every object is an allocation of its own, so that a use after the
// end is seen.
#if defined(__SANITIZE_ADDRESS__)
#define NEX_PLAIN_ALLOCATION 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define NEX_PLAIN_ALLOCATION 1
#endif
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

#ifdef NEX_PLAIN_ALLOCATION

void* PtrInterface::operator new(std::size_t bytes) { return ::operator new(bytes); }
void PtrInterface::operator delete(void* object, std::size_t) noexcept {
    ::operator delete(object);
}

#else

namespace {

constexpr std::size_t granule = 8;
constexpr std::size_t largest = 256;
constexpr std::size_t chunkBytes = 64 * 1024;

/// All objects of one size: a free list in the objects themselves, filled a chunk at a time.
class Slab {
  public:
    void* take(std::size_t bytes) {
        if (free_) return std::exchange(free_, free_->next);
        if (left_ < bytes) {
            fresh_ = static_cast<std::byte*>(::operator new(chunkBytes));
            left_ = chunkBytes;
        }
        left_ -= bytes;
        return std::exchange(fresh_, fresh_ + bytes);
    }
    void giveBack(void* object) { free_ = ::new (object) Free{free_}; }

  private:
    struct Free {
        Free* next;
    };
    Free* free_ = nullptr;
    std::byte* fresh_ = nullptr;
    std::size_t left_ = 0;
};

// Never destroyed: objects may outlive every other static object.
constinit std::array<Slab, largest / granule + 1> slabs;
constinit std::mutex mutex;

/// Runs `use` alone where threads share the slabs.
template <class Use>
auto guarded(Use use) {
    if (!PtrInterface::threadSafe()) [[likely]]
        return use();
    std::lock_guard const lock(mutex);
    return use();
}

} // namespace

void* PtrInterface::operator new(std::size_t bytes) {
    if (bytes > largest) return ::operator new(bytes);
    std::size_t const size = (bytes + granule - 1) / granule;
    return guarded([=] { return slabs[size].take(size * granule); });
}

void PtrInterface::operator delete(void* object, std::size_t bytes) noexcept {
    if (bytes > largest) return ::operator delete(object);
    guarded([=] { slabs[(bytes + granule - 1) / granule].giveBack(object); });
}

#endif

} // namespace Nex
