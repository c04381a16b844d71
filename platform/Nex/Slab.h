// Memory for many objects of one size: chunks that are used up one after the other, and a free list
// in the objects that went. As the last object goes the chunks are used from the start again, so
// that objects made together lie together also the next time. Not for several threads at once.
#pragma once

#include <array>
#include <cstddef>
#include <new>
#include <utility>

namespace Nex {

class Slab {
  public:
    /// Sizes are rounded up to the granule. Octets.
    static constexpr std::size_t granule = 8;
    static constexpr std::size_t largest = 256;

    /// The slab of the objects of a size up to `largest`.
    static Slab& of(std::size_t bytes);

    /// Room for one object, aligned to the granule. Throws std::bad_alloc.
    [[gnu::always_inline]] void* take(std::size_t bytes) {
        ++objects_;
        if (free_) return std::exchange(free_, free_->next);
        bytes = (bytes + granule - 1) / granule * granule;
        if (left_ < bytes) [[unlikely]]
            refill();
        left_ -= bytes;
        return std::exchange(fresh_, fresh_ + bytes);
    }
    void giveBack(void* object) {
        free_ = ::new (object) Free{free_};
        if (--objects_ == 0) startAnew();
    }

  private:
    struct Free {
        Free* next;
    };
    static constexpr std::size_t chunkBytes = 64 * 1024;

    /// A piece of memory that begins with the address of the next one.
    struct Chunk {
        Chunk* next;
    };

    void refill();
    void startAnew();

    std::size_t objects_ = 0; ///< that live
    Free* free_ = nullptr;
    std::byte* fresh_ = nullptr;
    std::size_t left_ = 0; ///< octets at `fresh_`
    Chunk* first_ = nullptr;
    Chunk* current_ = nullptr; ///< the chunk of `fresh_`; null before the first
};

/// Never destroyed: objects may outlive every other static object.
inline constinit std::array<Slab, Slab::largest / Slab::granule + 1> slabs;

inline Slab& Slab::of(std::size_t bytes) { return slabs[(bytes + granule - 1) / granule]; }

} // namespace Nex
