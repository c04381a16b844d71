#include "Nex/Slab.h"

#include <algorithm>
#include <cstdlib>
#include <functional>

namespace Nex {

/// Takes from a chunk in which a trim found free places, else from one that holds nothing yet.
void* Slab::takeFromAnother(std::size_t bytes) {
    while (!free_ && reused_ < begun_) {
        Chunk& chunk = chunks_[reused_++];
        free_ = std::exchange(chunk.free, nullptr);
        chunk.freeCount = 0;
    }
    if (!free_) beginChunk();
    return take(bytes);
}

void Slab::beginChunk() {
    if (begun_ == count_) addChunk();
    Chunk& chunk = chunks_[begun_];
    chunk.free = nullptr;
    chunk.freeCount = 0;
    reused_ = ++begun_;
    fresh_ = chunk.memory;
    left_ = chunkBytes;
}

void Slab::addChunk() {
    if (count_ == room_) {
        std::size_t const room = room_ == 0 ? 4 : room_ * 2;
        void* const moved = std::realloc(chunks_, room * sizeof(Chunk));
        if (!moved) throw std::bad_alloc();
        chunks_ = static_cast<Chunk*>(moved);
        room_ = room;
    }
    auto* const memory = static_cast<std::byte*>(::operator new(chunkBytes));
    chunks_[count_++] = {memory, nullptr, 0};
}

void Slab::startAnew() {
    free_ = nullptr;
    begun_ = 0;
    reused_ = 0;
    left_ = 0;
}

bool Slab::trim(std::size_t bytes, std::size_t most) {
    std::size_t const places = chunkBytes / roundedUp(bytes);
    if (objects_ > count_ * places / 2) return false;
    while (count_ > begun_) release(count_ - 1);
    std::sort(chunks_, chunks_ + begun_,
              [](Chunk const& a, Chunk const& b) { return std::less()(a.memory, b.memory); });
    reused_ = 0;
    for (; free_ && most > 0; --most) sortIn(std::exchange(free_, free_->next), places);
    return free_ != nullptr;
}

/// Gives the chunk back once all its places are found free. The one of `fresh_` never is while
/// there is room at it.
void Slab::sortIn(Free* place, std::size_t placesOfChunk) {
    auto const isBefore = [](Free const* p, Chunk const& chunk) {
        return std::less<void const*>()(p, chunk.memory);
    };
    Chunk* const chunk = std::upper_bound(chunks_, chunks_ + begun_, place, isBefore) - 1;
    place->next = std::exchange(chunk->free, place);
    if (++chunk->freeCount == placesOfChunk) release(std::size_t(chunk - chunks_));
}

void Slab::release(std::size_t at) {
    ::operator delete(chunks_[at].memory);
    std::copy(chunks_ + at + 1, chunks_ + count_, chunks_ + at);
    --count_;
    if (at < begun_) --begun_;
    if (count_ > 0) return;
    std::free(std::exchange(chunks_, nullptr));
    room_ = 0;
}

} // namespace Nex
