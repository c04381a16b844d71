#include "agent/loop/Json.h"

#include <array>
#include <functional>
#include <mutex>
#include <new>

namespace Agent {

namespace {

/// For a request of the greatest length that is read, taken apart at its end. Without a page of the
/// kernel's until it is used.
constexpr std::size_t roomOctets = 2 << 20;

alignas(std::max_align_t) std::array<std::byte, roomOctets> room;
std::mutex roomMutex; ///< of what follows
std::size_t roomUsed = 0;
std::size_t roomPieces = 0; ///< that have been taken and not given back

} // namespace

void* jsonRoomTake(std::size_t octets) {
    if (void* const memory = operator new(octets, std::nothrow)) return memory;
    std::scoped_lock const lock(roomMutex);
    octets = (octets + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) *
             alignof(std::max_align_t);
    if (octets > roomOctets - roomUsed) throw std::bad_alloc();
    void* const memory = &room[roomUsed];
    roomUsed += octets;
    ++roomPieces;
    return memory;
}

void jsonRoomGive(void* memory) noexcept {
    auto const* const place = static_cast<std::byte const*>(memory);
    // Whatever is not in the room lies before or behind it.
    if (std::less<>()(place, room.data()) || !std::less<>()(place, room.data() + roomOctets))
        return operator delete(memory);
    std::scoped_lock const lock(roomMutex);
    if (--roomPieces == 0) roomUsed = 0;
}

} // namespace Agent
