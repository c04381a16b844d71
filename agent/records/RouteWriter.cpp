#include "agent/records/RouteWriter.h"

#include <utility>

namespace Agent {

using Kesh::Multicast::Fib::IpGenRouteKey;
using Kesh::Multicast::Fib::Route;

namespace {

IpGenRouteKey toKey(Lox::IpAddr source, Lox::IpAddr group) {
    return {Lox::IpPrefix(source, source.isZero() ? 0 : 32), Lox::IpPrefix(group, 32)};
}

} // namespace

RouteWriter::RouteWriter(Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl> tables, Nex::Name const& name)
    : tables_(std::move(tables)), table_(Kesh::Multicast::Fib::Status::StatusIs(name)) {
    tables_->keshPtrIs(table_.get(), table_);
}

void RouteWriter::write(Lox::IpAddr source, Lox::IpAddr group, bool announced) {
    IpGenRouteKey const key = toKey(source, group);
    if (!announced)
        table_->routeDel(key);
    else if (!table_->routeHas(key))
        table_->routeIs(key, Route{true, 0});
}

} // namespace Agent
