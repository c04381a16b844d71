// Memory for many objects of one size: chunks that are used up one after the other, and a free list
// in the objects that went. As the last object goes the chunks are used from the start again, so
// that objects made together lie together also the next time. Not for several threads at once:
// `PtrInterface` sees to that where pointers are shared.
//
// A slab grows by a chunk and shrinks by nothing but `trim`. One object that stays keeps its chunk.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

namespace Nex {

class Slab {
  public:
    /// Sizes are rounded up to the granule. Octets.
    static constexpr std::size_t granule = 8;
    static constexpr std::size_t largest = 256;
    static constexpr std::size_t chunkBytes = 64 * 1024;

    /// The slab of the objects of a size up to `largest`; sizes that round up to the same share it.
    static Slab& of(std::size_t bytes);

    /// Room for one object, aligned to the granule, its octets undefined. `bytes` is the size with
    /// which `of` found the slab. Throws std::bad_alloc once a chunk is full and no other to be
    /// had.
    [[gnu::always_inline]] void* take(std::size_t bytes) {
        if (!free_) {
            bytes = roundedUp(bytes);
            if (left_ < bytes) [[unlikely]]
                return takeFromAnother(bytes);
            left_ -= bytes;
            ++objects_;
            return std::exchange(fresh_, fresh_ + bytes);
        }
        ++objects_;
        return std::exchange(free_, free_->next);
    }
    /// What `take` of this slab returned, once, its object destroyed. Constant time.
    void giveBack(void* object) {
        free_ = ::new (object) Free{free_};
        if (--objects_ == 0) startAnew();
    }

    /// Of all slabs that are free for the most part, gives the chunks in which nothing lives back
    /// to the heap. Looks at no more than `most` free places of each slab in one call, and returns
    /// whether there are more: whoever knows that much has gone calls it as there is time. Takes
    /// the lock of slabs that threads share.
    static bool trim(std::size_t most);
    /// The same of this slab, whose objects have that size.
    bool trim(std::size_t bytes, std::size_t most);
    /// What it holds of the heap, in octets, whether objects live there or not.
    std::size_t heldBytes() const { return count_ * chunkBytes; }

  private:
    struct Free {
        Free* next;
    };
    /// A piece of memory, and of the places in it those that were found free by a trim.
    struct Chunk {
        std::byte* memory;
        Free* free;
        std::uint32_t freeCount;
    };

    static constexpr std::size_t roundedUp(std::size_t bytes) {
        return (bytes + granule - 1) / granule * granule;
    }
    void* takeFromAnother(std::size_t bytes);
    void beginChunk();
    void addChunk();
    void startAnew();
    void sortIn(Free* place, std::size_t placesOfChunk);
    void release(std::size_t at);

    std::size_t objects_ = 0; ///< that live
    Free* free_ = nullptr;
    std::byte* fresh_ = nullptr;
    std::size_t left_ = 0; ///< octets at `fresh_`
    // Those from `begun_` on hold nothing; those below `reused_` hold nothing that a trim found
    // free.
    Chunk* chunks_ = nullptr;
    std::size_t count_ = 0;
    std::size_t room_ = 0;
    std::size_t begun_ = 0;
    std::size_t reused_ = 0;
};

/// Never destroyed: objects may outlive every other static object.
inline constinit std::array<Slab, Slab::largest / Slab::granule + 1> slabs;

inline Slab& Slab::of(std::size_t bytes) { return slabs[roundedUp(bytes) / granule]; }

} // namespace Nex
