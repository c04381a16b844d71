#include "Kesh/Mfib.h"

#include <algorithm>
#include <ostream>

namespace Routing::Multicast::Fib {

std::ostream& operator<<(std::ostream& out, IpGenRouteKey const& key) {
    return out << "( " << key.source << ", " << key.group << " )";
}

IpGenRouteKey invalidRouteKey() {
    return {Lox::IpPrefix(), Lox::IpPrefix(Lox::IpAddr::fromHost(0xE0000000), 32)};
}

} // namespace Routing::Multicast::Fib

namespace Kesh::Multicast::Fib {

std::ostream& operator<<(std::ostream& out, MfibKeshDirRouteKey const& key) {
    return out << "( " << static_cast<void const*>(key.table) << ", " << key.route << " )";
}

MfibKeshCollRouteIteratorConst::MfibKeshCollRouteIteratorConst(
    Nex::Ptr<MfibKeshColl const> tables, Status const* table,
    std::optional<IpGenRouteKey> const& from)
    : tables_(std::move(tables)) {
    bool reached = false;
    for (auto const& item : tables_->keshPtr()) {
        if (reached) rest_.push_back(item.key);
        reached = reached || item.key == table;
    }
    std::reverse(rest_.begin(), rest_.end());
    table_ = tables_->keshPtr(table);
    if (table_) at_ = from ? table_->routeFrom(*from) : table_->firstRoute();
    doSkipEmptyTables();
}

void MfibKeshCollRouteIteratorConst::updateToBestRouteIterators() {
    at_->advance();
    doSkipEmptyTables();
}

void MfibKeshCollRouteIteratorConst::doSkipEmptyTables() {
    while (!at_ || at_->atEnd()) {
        at_.reset();
        if (rest_.empty()) return;
        table_ = tables_->keshPtr(rest_.back());
        rest_.pop_back();
        if (table_) at_ = table_->firstRoute();
    }
}

} // namespace Kesh::Multicast::Fib
