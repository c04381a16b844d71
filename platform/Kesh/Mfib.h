// Multicast forwarding tables: per VRF a collection of tables, in each the routes by source and
// group prefix.
#pragma once

#include "Lox/IpAddr.h"
#include "Lox/Names.h"
#include "Nex/Record.h"

namespace Routing::Multicast::Fib {

/// Names a route. The all-zero key is no route's.
struct IpGenRouteKey {
    Lox::IpPrefix source;
    Lox::IpPrefix group;

    /// By group, then by source.
    friend constexpr auto operator<=>(IpGenRouteKey const& a, IpGenRouteKey const& b) {
        if (auto const order = a.group <=> b.group; order != 0) return order;
        return a.source <=> b.source;
    }
    friend constexpr bool operator==(IpGenRouteKey const&, IpGenRouteKey const&) = default;
};
std::ostream& operator<<(std::ostream&, IpGenRouteKey const&);

/// The key that names no route: group 224.0.0.0, which nobody announces.
IpGenRouteKey invalidRouteKey();

} // namespace Routing::Multicast::Fib

template <>
struct std::hash<Routing::Multicast::Fib::IpGenRouteKey> {
    std::size_t operator()(Routing::Multicast::Fib::IpGenRouteKey const& key) const noexcept {
        return (std::size_t(key.source.address().host()) << 32 | key.group.address().host()) ^
               (std::size_t(key.source.length()) << 16 | key.group.length());
    }
};

namespace Kesh::Multicast::Fib {

using Routing::Multicast::Fib::IpGenRouteKey;

/// What a table says of a route. The default value stands for none.
struct Route {
    bool present = false;
    friend constexpr bool operator==(Route const&, Route const&) = default;
};

#define MFIB_STATUS(ATTR, SET, MAP, RECORDS) MAP(IpGenRouteKey, Route, route, Route)

/// One table of routes.
class Status : public Nex::RecordBase {
    NEX_RECORD(Status, Nex::Name, name, MFIB_STATUS)
};

#define MFIB_KESH_COLL(ATTR, SET, MAP, RECORDS)                                                    \
    MAP(Status const*, Nex::Ptr<Status const>, keshPtr, KeshPtr) /* a table, perhaps null yet */

/// The tables of one VRF.
class MfibKeshColl : public Nex::RecordBase {
    NEX_RECORD(MfibKeshColl, L3::VrfName, vrfName, MFIB_KESH_COLL)
};

#define MFIB_KESH_DIR(ATTR, SET, MAP, RECORDS)                                                     \
    RECORDS(L3::VrfName, MfibKeshColl, keshColl, KeshColl)

class MfibKeshDir : public Nex::RecordBase {
    NEX_RECORD(MfibKeshDir, Nex::Name, name, MFIB_KESH_DIR)
};

} // namespace Kesh::Multicast::Fib
