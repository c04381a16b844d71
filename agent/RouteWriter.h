// Writes the announced routes of one VRF into a forwarding table of its own, from which the
// machines announce their groups.
#pragma once

#include "Kesh/Mfib.h"

namespace Agent {

class RouteWriter {
  public:
    /// Adds an empty table of that name to `tables`, the collection of the VRF.
    RouteWriter(Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl> tables, Nex::Name const& name);
    /// Withdraws every route, then the table.
    ~RouteWriter();
    RouteWriter(RouteWriter const&) = delete;
    RouteWriter& operator=(RouteWriter const&) = delete;

    /// Writes or withdraws a route; source 0.0.0.0 for any. Repeating it writes nothing.
    void routeIs(Lox::IpAddr source, Lox::IpAddr group, bool announced);
    /// Has all routes of the group examined again by those who follow the table: for a group that
    /// the configuration or an access list has released.
    void doTouch(Lox::IpAddr group);

    Kesh::Multicast::Fib::Status const& table() const { return *table_; }

  private:
    Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl> tables_;
    Nex::Ptr<Kesh::Multicast::Fib::Status> table_;
};

} // namespace Agent
