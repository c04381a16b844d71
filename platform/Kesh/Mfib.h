// Multicast forwarding tables: per VRF a collection of tables, in each the routes by source and
// group prefix. Written by whoever routes; the proxy only reads.
//
// What a writer owes the proxy:
//
//   - A table stands in its collection under its own address, for changed routes are looked up by
//     that, and gets its routes only then: the proxy hears of routes that come, and walks those
//     that were there before only when it has a reason to walk them all.
//   - Routes leave a table one by one. A table that is taken out with its routes takes back
//     nothing: their groups stay announced.
//   - A collection that goes takes the interfaces of all VRFs down, and they stay so until one
//     comes or something else happens to them. So collections come first and go last.
//   - Ten thousand routes a second are no trouble: a change notes its key, once for each machine,
//     and the reviews do the rest (IgmpHostProxyIntfSm.h).
#pragma once

#include "Lox/IpAddr.h"
#include "Lox/Names.h"
#include "Nex/Record.h"

#include <optional>
#include <vector>

namespace Routing::Multicast::Fib {

/// Names a route. The all-zero key is no route's. (*,G) is a route from 0.0.0.0/0 to G/32; of
/// others only the addresses count, and each is one group and one source.
struct IpGenRouteKey {
    Lox::IpPrefix source;
    Lox::IpPrefix group;

    using NexSorted = void;     ///< tables are walked in the order of the keys
    using NexNeighbours = void; ///< one source's groups are neighbours

    /// By group, then by source.
    friend constexpr auto operator<=>(IpGenRouteKey const& a, IpGenRouteKey const& b) {
        if (auto const order = a.group <=> b.group; order != 0) return order;
        return a.source <=> b.source;
    }
    friend constexpr bool operator==(IpGenRouteKey const&, IpGenRouteKey const&) = default;

    constexpr std::uint64_t nexHashNumber() const {
        std::uint32_t const from = source.address().host();
        std::uint32_t const lengths = std::uint32_t(source.length() << 8) | group.length();
        // The odd factors set sources and lengths apart, far from each other's groups.
        std::uint32_t const near =
            group.address().host() + from * 0x9E3779B1u + lengths * 0x85EBCA6Bu;
        return std::uint64_t(from) << 32 | near;
    }
};
std::ostream& operator<<(std::ostream&, IpGenRouteKey const&);

/// The key that names no route: group 224.0.0.0, which nobody announces.
IpGenRouteKey invalidRouteKey();

} // namespace Routing::Multicast::Fib

template <>
struct std::hash<Routing::Multicast::Fib::IpGenRouteKey> {
    std::size_t operator()(Routing::Multicast::Fib::IpGenRouteKey const& key) const noexcept {
        return std::hash<std::uint64_t>()(key.nexHashNumber());
    }
};

namespace Kesh::Multicast::Fib {

using Routing::Multicast::Fib::IpGenRouteKey;

/// What a table says of a route. The default value stands for none: a route that is stored with it
/// reads as one that is gone.
struct Route {
    bool present = false;
    std::uint32_t stamp = 0; ///< another one has the route's readers look at it again
    friend constexpr bool operator==(Route const&, Route const&) = default;
};

#define MFIB_STATUS(ATTR, SET, MAP, RECORDS) MAP(IpGenRouteKey, Route, route, Route)

/// One table of routes, in the order of their keys. Its writer may change it at any time; proxies
/// are told of each key and look at the route later, in a review of theirs. What came and went in
/// between they do not see. A route that comes or goes costs a binary search; storing what is
/// there already costs a lookup and tells nobody.
class Status : public Nex::RecordBase {
    NEX_RECORD(Status, Nex::Name, name, MFIB_STATUS)

  public:
    /// Tells this table from every other that ever was, also at the same address. Never 0.
    std::uint64_t serial() const { return serial_; }
    using RoutePosition = Nex::SortedMap<IpGenRouteKey, Route>::Position;
    /// Positions find their way on through every change of the routes, and do not hold the table:
    /// who walks does.
    RoutePosition firstRoute() const { return RoutePosition(route_); }
    /// The route of that key, or the next one in the table's order.
    RoutePosition routeFrom(IpGenRouteKey const& key) const { return RoutePosition(route_, key); }

  private:
    static inline std::uint64_t lastSerial_ = 0;
    std::uint64_t serial_ = ++lastSerial_;
};
#undef MFIB_STATUS

#define MFIB_KESH_COLL(ATTR, SET, MAP, RECORDS)                                                    \
    MAP(Status const*, Nex::Ptr<Status const>, keshPtr, KeshPtr) /* a table, perhaps null yet */

/// The tables of one VRF. A key without a table announces one that is still to come; where it
/// stands first, a walk of all routes ends at it, the tables behind it unseen.
class MfibKeshColl : public Nex::RecordBase {
    NEX_RECORD(MfibKeshColl, L3::VrfName, vrfName, MFIB_KESH_COLL)
};
#undef MFIB_KESH_COLL

#define MFIB_KESH_DIR(ATTR, SET, MAP, RECORDS)                                                     \
    RECORDS(L3::VrfName, MfibKeshColl, keshColl, KeshColl)

/// The tables of all VRFs, held.
class MfibKeshDir : public Nex::RecordBase {
    NEX_RECORD(MfibKeshDir, Nex::Name, name, MFIB_KESH_DIR)
};
#undef MFIB_KESH_DIR

/// Names a route of a table. The pointer is the table's identity in its collection and is never
/// followed; the serial number tells whether the table found under it is still the one meant.
struct MfibKeshDirRouteKey {
    Status const* table = nullptr;
    std::uint64_t serial = 0;
    IpGenRouteKey route;

    MfibKeshDirRouteKey() = default;
    MfibKeshDirRouteKey(Status const& named, IpGenRouteKey const& key)
        : table(&named), serial(named.serial()), route(key) {}
    friend constexpr auto operator<=>(MfibKeshDirRouteKey const&,
                                      MfibKeshDirRouteKey const&) = default;

    std::uint64_t nexHashNumber() const { return route.nexHashNumber() ^ serial << 40; }
};
std::ostream& operator<<(std::ostream&, MfibKeshDirRouteKey const&);

/// Walks the routes of all tables of a collection, table by table in the collection's order. It
/// never stands on "no route" before its end, and finds its way on when routes and tables come and
/// go meanwhile.
class MfibKeshCollRouteIteratorConst {
  public:
    /// Stands on the first route of `table`, or on `from` or what follows it there; where the table
    /// has none left, on the first route of the tables after it. The collection is held, and so is
    /// the table that is being walked, also when it has left the collection. Tables that come
    /// meanwhile are not walked. A `table` that the collection does not have is the end.
    MfibKeshCollRouteIteratorConst(Nex::Ptr<MfibKeshColl const> tables, Status const* table,
                                   std::optional<IpGenRouteKey> const& from);

    bool atEnd() const { return !at_; }
    /// Of the route stood on; not to be called at the end.
    Status const* table() const { return table_.get(); }
    IpGenRouteKey const& routeKey() const { return at_->key(); }
    /// The key of the next route as far as it is at hand, or null; good until routes come or go.
    IpGenRouteKey const* aheadKey() const { return at_->ahead(); }
    /// Moves on to the next route. Not to be called at the end.
    void updateToBestRouteIterators();

  private:
    void doSkipEmptyTables();

    Nex::Ptr<MfibKeshColl const> tables_;
    std::vector<Status const*> rest_; ///< tables still to come, the next one last
    Nex::Ptr<Status const> table_;
    std::optional<Status::RoutePosition> at_;
};

} // namespace Kesh::Multicast::Fib

template <>
struct std::hash<Kesh::Multicast::Fib::MfibKeshDirRouteKey> {
    std::size_t operator()(Kesh::Multicast::Fib::MfibKeshDirRouteKey const& key) const noexcept {
        return std::hash<std::uint64_t>()(key.nexHashNumber());
    }
};
