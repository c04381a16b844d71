#include "agent/records/RouteWriter.h"

#include <utility>

namespace Agent {

using Kesh::Multicast::Fib::IpGenRouteKey;
using Kesh::Multicast::Fib::Route;

namespace {

/// Also the first of its group in the table's order if `source` is 0.0.0.0.
IpGenRouteKey toKey(Lox::IpAddr source, Lox::IpAddr group) {
    return {Lox::IpPrefix(source, source.isZero() ? 0 : 32), Lox::IpPrefix(group, 32)};
}

} // namespace

RouteWriter::RouteWriter(Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl> tables, Nex::Name const& name)
    : tables_(std::move(tables)), table_(Kesh::Multicast::Fib::Status::StatusIs(name)) {
    tables_->keshPtrIs(table_.get(), table_);
}

void RouteWriter::routeIs(Lox::IpAddr source, Lox::IpAddr group, bool announced) {
    IpGenRouteKey const key = toKey(source, group);
    if (!announced)
        table_->routeDel(key);
    else if (!table_->routeHas(key))
        table_->routeIs(key, Route{true, 0});
}

void RouteWriter::doTouch(Lox::IpAddr group) {
    IpGenRouteKey const first = toKey(Lox::IpAddr(), group);
    for (auto at = table_->routeFrom(first); !at.atEnd() && at.key().group == first.group;
         at.advance())
        table_->routeIs(at.key(), Route{true, table_->route(at.key()).stamp + 1});
}

} // namespace Agent
