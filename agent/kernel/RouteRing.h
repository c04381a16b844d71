// A multicast route of the kernel, and the circular lists in which such routes stand.
#pragma once

#include "Lox/IpAddr.h"
#include "Nex/Hash.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace Agent {

struct RouteName {
    Lox::IpAddr source; ///< 0.0.0.0 for any
    Lox::IpAddr group;

    friend bool operator==(RouteName const&, RouteName const&) = default;

    /// By the process's secret: strangers choose the sources.
    struct Hash {
        std::size_t operator()(RouteName const& name) const noexcept {
            return Nex::HashSecrets::inForce()(std::uint64_t(name.source.host()) << 32 |
                                               name.group.host());
        }
    };
};

/// The interfaces by which a route goes out, in the kernel's order: the first few, and their
/// number.
struct RouteOutputs {
    std::array<int, 3> first{}; ///< by kernel index
    std::uint8_t count = 0;     ///< the kernel has 32 at most
};

struct RouteEntry;
/// As a hash map holds it, which neither moves it nor spends a second copy of the name.
using RouteNode = std::pair<RouteName const, RouteEntry>;

struct RouteEntry {
    // The neighbours in its ring.
    RouteNode* previous = nullptr;
    RouteNode* next = nullptr;
    int incoming = 0;        ///< interface, by kernel index; 0 if it has gone
    std::uint32_t since = 0; ///< when it was first told, in seconds of the loop's clock
    RouteOutputs outputs;
    std::uint16_t toldBy = 0; ///< number of the last dump that did
    bool announced : 1 = false;
    bool withheld : 1 = false; ///< among those that are not announced
};

/// Holds routes by their links and owns none. A route stands in one ring at most.
class RouteRing {
  public:
    RouteRing() { doClear(); }
    RouteRing(RouteRing const&) = delete;
    RouteRing& operator=(RouteRing const&) = delete;

    bool empty() const { return head_.second.next == &head_; }
    /// Not to be called for an empty ring.
    RouteNode& front() { return *head_.second.next; }
    void add(RouteNode& node) { doJoin(node, node); }
    /// Takes over all that `other` holds, however many.
    void takeAll(RouteRing& other) {
        if (other.empty()) return;
        doJoin(*other.head_.second.next, *other.head_.second.previous);
        other.doClear();
    }
    /// Takes the route out of whichever ring it is in.
    static void remove(RouteNode& node) {
        node.second.previous->second.next = node.second.next;
        node.second.next->second.previous = node.second.previous;
    }

  private:
    void doClear() { head_.second.previous = head_.second.next = &head_; }
    /// Appends the chain from `first` to `last`.
    void doJoin(RouteNode& first, RouteNode& last) {
        first.second.previous = head_.second.previous;
        last.second.next = &head_;
        head_.second.previous->second.next = &first;
        head_.second.previous = &last;
    }

    RouteNode head_; ///< before the first and behind the last
};

} // namespace Agent
