// JSON values, to be included in place of the library's own header. They ask for memory as they
// end, for a list of what they hold, and whoever refuses it then ends the process; and one that is
// to become an object or an array says that it is one before there is memory for it, so that its
// end looks for what is not there. For both, memory comes from a room of its own where there is no
// other.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <type_traits>
#include <vector>

namespace Agent {

/// As operator new, or else from the room. Throws std::bad_alloc where that is full, too.
void* jsonRoomTake(std::size_t octets);
/// Of any memory that came by it.
void jsonRoomGive(void* memory) noexcept;

template <class Value>
class JsonAllocator {
  public:
    using value_type = Value;
    using propagate_on_container_move_assignment = std::true_type;

    Value* allocate(std::size_t count) {
        return static_cast<Value*>(jsonRoomTake(count * sizeof(Value)));
    }
    void deallocate(Value* values, std::size_t) noexcept { jsonRoomGive(values); }
};

using JsonArray = std::vector<nlohmann::json>;
using JsonObject = std::map<std::string, nlohmann::json, std::less<>>;

} // namespace Agent

// Known before the library's header needs them, and the same in every source.

#define AGENT_JSON_ALLOCATOR(VALUE)                                                                \
    template <>                                                                                    \
    class std::allocator<VALUE> : public Agent::JsonAllocator<VALUE> {                             \
      public:                                                                                      \
        allocator() = default;                                                                     \
        template <class Other>                                                                     \
        explicit(false) allocator(std::allocator<Other> const&) noexcept {}                        \
        friend bool operator==(allocator const&, allocator const&) { return true; }                \
    };
AGENT_JSON_ALLOCATOR(nlohmann::json)
AGENT_JSON_ALLOCATOR(Agent::JsonArray)
AGENT_JSON_ALLOCATOR(Agent::JsonObject)
#undef AGENT_JSON_ALLOCATOR

#include <nlohmann/json.hpp>

static_assert(std::is_same_v<Agent::JsonArray, nlohmann::json::array_t>);
static_assert(std::is_same_v<Agent::JsonObject, nlohmann::json::object_t>);
