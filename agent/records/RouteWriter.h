// Writes the announced routes of one VRF into a forwarding table of its own, from which the
// machines announce their groups.
#pragma once

#include "Kesh/Mfib.h"

namespace Agent {

class RouteWriter {
  public:
    /// Adds an empty table of that name to `tables`, the collection of the VRF, until doRemove().
    RouteWriter(Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl> tables, Nex::Name const& name);
    RouteWriter(RouteWriter const&) = delete;
    RouteWriter& operator=(RouteWriter const&) = delete;

    /// Writes or withdraws a route; source 0.0.0.0 for any. Repeating it writes nothing.
    void write(Lox::IpAddr source, Lox::IpAddr group, bool announced);
    void doWithdrawAll() { table_->routeDelAll(); }
    /// Takes the table out of the collection, for good. Nothing is written afterwards.
    void doRemove() { tables_->keshPtrDel(table_.get()); }

  private:
    Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl> tables_;
    Nex::Ptr<Kesh::Multicast::Fib::Status> table_;
};

} // namespace Agent
