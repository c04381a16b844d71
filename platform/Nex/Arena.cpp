#include "Nex/Arena.h"

#include <algorithm>
#include <cstdlib>
#include <functional>

namespace Nex {

/// Until there is a free place of that size, or as much at `fresh_`. Puts back what a trim found
/// free in one chunk, be it of other sizes alone: nobody waits for a walk over all of them.
void Arena::makeRoom(std::size_t bytes) {
    while (reused_ < begun_ && !chunks_[reused_].free) ++reused_;
    if (reused_ < begun_) putBack(chunks_[reused_++]);
    if (!freeOf(bytes)) beginChunk();
}

void Arena::putBack(Chunk& chunk) {
    while (Free* const place = chunk.free) {
        chunk.free = place->next;
        place->next = std::exchange(freeOf(place->bytes), place);
    }
    chunk.freeBytes = chunk.tail;
}

void Arena::beginChunk() {
    if (begun_ == count_) addChunk();
    if (left_ > 0) {
        Chunk& full = chunks_[begun_ - 1];
        full.tail = std::uint32_t(left_);
        full.freeBytes += full.tail;
    }
    Chunk& chunk = chunks_[begun_++];
    chunk = {chunk.memory, nullptr, 0, 0};
    fresh_ = chunk.memory;
    left_ = chunkBytes;
}

void Arena::addChunk() {
    if (count_ == room_) {
        std::size_t const room = room_ == 0 ? 4 : room_ * 2;
        void* const moved = std::realloc(chunks_, room * sizeof(Chunk));
        if (!moved) throw std::bad_alloc();
        chunks_ = static_cast<Chunk*>(moved);
        room_ = room;
    }
    auto* const memory = static_cast<std::byte*>(::operator new(chunkBytes));
    chunks_[count_++] = {memory, nullptr, 0, 0};
}

void Arena::startAnew() {
    free_.fill(nullptr);
    begun_ = 0;
    reused_ = 0;
    left_ = 0;
}

bool Arena::trim(std::size_t most) {
    if (living_ > count_ * chunkBytes / 2) return false;
    while (count_ > begun_) release(chunks_ + count_ - 1);
    if (begun_ > 0) // the last one stays the last
        std::sort(chunks_, chunks_ + begun_ - 1,
                  [](Chunk const& a, Chunk const& b) { return std::less()(a.memory, b.memory); });
    reused_ = 0;
    for (Free*& free : free_)
        for (; free; --most) {
            if (most == 0) return true;
            sortIn(std::exchange(free, free->next));
        }
    return false;
}

/// Gives the chunk back once all of it is found free. The one of `fresh_` never is while there is
/// room at it.
void Arena::sortIn(Free* place) {
    std::less<void const*> const before;
    Chunk* const last = chunks_ + begun_ - 1;
    bool const inLast = !before(place, last->memory) && before(place, last->memory + chunkBytes);
    Chunk* const chunk =
        inLast ? last
               : std::upper_bound(chunks_, last, place, [&](Free const* p, Chunk const& other) {
                     return before(p, other.memory);
                 }) - 1;
    place->next = std::exchange(chunk->free, place);
    chunk->freeBytes += std::uint32_t(place->bytes);
    if (chunk->freeBytes == chunkBytes) release(chunk);
}

void Arena::release(Chunk* chunk) {
    ::operator delete(chunk->memory);
    bool const begun = chunk < chunks_ + begun_;
    std::copy(chunk + 1, chunks_ + count_, chunk);
    --count_;
    if (begun) --begun_;
    if (count_ > 0) return;
    std::free(std::exchange(chunks_, nullptr));
    room_ = 0;
}

} // namespace Nex
