// Memory for many small objects: chunks that are used up one after the other, and for each size a
// free list in the objects that went. Objects that are made together lie together whatever their
// sizes, so that all there is of one group stands in a few lines of one page. As the last object
// goes the chunks are used from the start again, and it is so also the next time. Not for several
// threads at once: `PtrInterface` sees to that where pointers are shared.
//
// An arena grows by a chunk and shrinks by nothing but `trim`. One object that stays keeps its
// chunk.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

namespace Nex {

/// Keeps its chunks as it goes: it lives as long as the program, or is trimmed when it is empty.
class Arena {
  public:
    // In octets. Sizes are rounded up to the granule, and to the smallest.
    static constexpr std::size_t granule = 8;
    static constexpr std::size_t smallest = 16;
    static constexpr std::size_t largest = 256;
    static constexpr std::size_t chunkBytes = 64 * 1024;

    /// Room for one object of a size up to `largest`, aligned to the granule, its octets undefined.
    /// Throws std::bad_alloc once a chunk is full and no other to be had.
    [[gnu::always_inline]] void* take(std::size_t bytes) {
        bytes = roundedUp(bytes);
        Free*& free = freeOf(bytes);
        if (!free && left_ < bytes) [[unlikely]]
            makeRoom(bytes);
        living_ += bytes;
        if (free) return std::exchange(free, free->next);
        left_ -= bytes;
        return std::exchange(fresh_, fresh_ + bytes);
    }
    /// What `take` returned for that size, once, its object destroyed. Constant time.
    [[gnu::always_inline]] void giveBack(void* object, std::size_t bytes) {
        bytes = roundedUp(bytes);
        Free*& free = freeOf(bytes);
        free = ::new (object) Free{free, bytes};
        if ((living_ -= bytes) == 0) [[unlikely]]
            startAnew();
    }

    /// Where most of it is free, gives the chunks in which nothing lives back to the heap. Looks at
    /// no more than `most` free places in one call, and returns whether there are more: whoever
    /// knows that much has gone calls it as there is time.
    bool trim(std::size_t most);
    /// What it holds of the heap, in octets, whether objects live there or not.
    std::size_t heldBytes() const { return count_ * chunkBytes; }

  private:
    struct Free {
        Free* next;
        std::size_t bytes;
    };
    static_assert(sizeof(Free) <= smallest);
    /// A piece of memory, and of the places in it those that were found free by a trim.
    struct Chunk {
        std::byte* memory;
        Free* free;
        std::uint32_t freeBytes; ///< of these places, and of the tail
        std::uint32_t tail;      ///< octets at its end that were too few for the object that came
    };

    static constexpr std::size_t roundedUp(std::size_t bytes) {
        return bytes <= smallest ? smallest : (bytes + granule - 1) / granule * granule;
    }
    Free*& freeOf(std::size_t bytes) { return free_[bytes / granule]; }
    void makeRoom(std::size_t bytes);
    void putBack(Chunk& chunk);
    void beginChunk();
    void addChunk();
    void startAnew();
    void sortIn(Free* place);
    void release(Chunk* chunk);

    std::size_t living_ = 0; ///< octets of the objects that live
    std::byte* fresh_ = nullptr;
    std::size_t left_ = 0; ///< octets at `fresh_`
    std::array<Free*, largest / granule + 1> free_{};
    // Those from `begun_` on hold nothing; those below `reused_` hold nothing that a trim found
    // free. While there is room at `fresh_`, that is in the last one that was begun.
    Chunk* chunks_ = nullptr;
    std::size_t count_ = 0;
    std::size_t room_ = 0;
    std::size_t begun_ = 0;
    std::size_t reused_ = 0;
};

} // namespace Nex
