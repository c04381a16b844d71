// JSON values, to be included in place of the library's own header. They ask for memory as they
// end, for a list of what they hold, and whoever refuses it then ends the process: so that list
// comes from a room of its own where there is no other memory.
#pragma once

#include <cstddef>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <type_traits>

namespace Agent {

/// As operator new, or else from the room. Throws std::bad_alloc where that is full, too.
void* jsonRoomTake(std::size_t octets);
/// Of any memory that came by it.
void jsonRoomGive(void* memory) noexcept;

} // namespace Agent

/// Known before the library's header needs it, and the same in every source.
template <>
class std::allocator<nlohmann::json> {
  public:
    using value_type = nlohmann::json;
    using propagate_on_container_move_assignment = std::true_type;

    allocator() = default;
    template <class Other>
    explicit(false) allocator(std::allocator<Other> const&) noexcept {}

    inline nlohmann::json* allocate(std::size_t count);
    void deallocate(nlohmann::json* values, std::size_t) noexcept { Agent::jsonRoomGive(values); }

    friend bool operator==(allocator const&, allocator const&) { return true; }
};

#include <nlohmann/json.hpp>

inline nlohmann::json* std::allocator<nlohmann::json>::allocate(std::size_t count) {
    return static_cast<nlohmann::json*>(Agent::jsonRoomTake(count * sizeof(nlohmann::json)));
}
