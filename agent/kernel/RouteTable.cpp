#include "agent/kernel/RouteTable.h"

#include "agent/kernel/Netlink.h"

#include <cstring>
#include <iterator>
#include <linux/rtnetlink.h>
#include <utility>

namespace Agent {

namespace {

Lox::IpAddr routeAddress(std::span<std::uint8_t const> octets) {
    if (octets.size() != 4) throw Nex::ParseException("route address of the wrong length");
    return Lox::IpAddr::fromOctets(octets.data());
}

/// One of the kernel's that has several is told by its number as an attribute.
bool ofDefaultTable(rtmsg const& header, NetlinkAttributes const& attributes) {
    return attributes.u32(RTA_TABLE).value_or(header.rtm_table) == RT_TABLE_DEFAULT;
}

} // namespace

RouteTable::RouteTable(Observer onRoute) : onRoute_(std::move(onRoute)) {}

void RouteTable::filterIs(RouteFilter filter) {
    RouteFilter const before = std::exchange(filter_, std::move(filter));
    bool const all =
        before.requireOutput != filter_.requireOutput || before.anyIncoming != filter_.anyIncoming;
    for (auto& [ifindex, ring] : byIncoming_)
        if (all || before.proxyInterfaces.count(ifindex) != filter_.proxyInterfaces.count(ifindex))
            toJudge_.takeAll(ring);
}

void RouteTable::messageIs(nlmsghdr const& message, bool ofDump) {
    bool const gone = message.nlmsg_type == RTM_DELROUTE;
    if (!gone && message.nlmsg_type != RTM_NEWROUTE) return;
    NetlinkAttributes const attributes(message, sizeof(rtmsg));
    auto const& header = *static_cast<rtmsg const*>(mnl_nlmsg_get_payload(&message));
    if (header.rtm_family != RTNL_FAMILY_IPMR || !ofDefaultTable(header, attributes)) return;

    RouteName const name{routeAddress(attributes.octets(RTA_SRC)),
                         routeAddress(attributes.octets(RTA_DST))};
    auto const incoming = int(attributes.u32(RTA_IIF).value_or(0));
    bool const output = handleOutputs(attributes.octets(RTA_MULTIPATH));
    if (!name.group.isMulticast() || (ofDump && notified_.count(name) != 0)) return;
    if (reading_ && !ofDump) notified_.insert(name);
    bool const unresolved = (header.rtm_flags & RTNH_F_UNRESOLVED) != 0;
    // Unresolved routes stand at the end of the kernel's list: one that goes moves no other.
    if (gone && !unresolved) deleted_ = true;
    if (gone || unresolved)
        handleGone(name);
    else
        handleRoute(name, incoming, output);
}

bool RouteTable::handleOutputs(std::span<std::uint8_t const> nextHops) {
    bool any = false;
    while (!nextHops.empty()) {
        rtnexthop hop{};
        if (nextHops.size() >= sizeof hop) std::memcpy(&hop, nextHops.data(), sizeof hop);
        std::size_t const step = RTNH_ALIGN(std::size_t(hop.rtnh_len));
        if (hop.rtnh_len < sizeof hop || step > nextHops.size())
            throw Nex::ParseException("route output of the wrong length");
        interfaces_.insert(hop.rtnh_ifindex);
        any = true;
        nextHops = nextHops.subspan(step);
    }
    return any;
}

void RouteTable::handleRoute(RouteName const& name, int incoming, bool output) {
    RouteRing& ring = ringOf(incoming);
    auto const [at, fresh] = routes_.try_emplace(name);
    if (!fresh) RouteRing::remove(*at);
    at->second.incoming = incoming;
    at->second.output = output;
    doJudge(*at, ring);
}

void RouteTable::handleGone(RouteName const& name) {
    auto const found = routes_.find(name);
    if (found != routes_.end()) doDrop(*found);
}

RouteRing& RouteTable::ringOf(int incoming) {
    auto const known = byIncoming_.find(incoming);
    if (known != byIncoming_.end()) return known->second;
    interfaces_.insert(incoming);
    return byIncoming_[incoming];
}

void RouteTable::doJudge(RouteNode& node, RouteRing& ring) {
    auto& [name, route] = node;
    ring.add(node);
    bool const announced = passes(route);
    if (std::exchange(route.announced, announced) != announced)
        onRoute_(name.source, name.group, announced);
}

void RouteTable::doDrop(RouteNode& node) {
    auto const [name, route] = node;
    RouteRing::remove(node);
    routes_.erase(name);
    if (route.announced) onRoute_(name.source, name.group, false);
    // A table that has shrunk far gives its room back.
    if (routes_.bucket_count() > 4096 && routes_.size() < routes_.bucket_count() / 16)
        routes_.rehash(0);
}

bool RouteTable::passes(RouteEntry const& route) const {
    if (route.incoming == 0 || (filter_.requireOutput && !route.output)) return false;
    return filter_.anyIncoming || filter_.proxyInterfaces.count(route.incoming) != 0;
}

void RouteTable::readingIs() {
    reading_ = true;
    deleted_ = secondDump_ = false;
    for (auto& [ifindex, ring] : byIncoming_) untold_.takeAll(ring);
    untold_.takeAll(toJudge_);
    byIncoming_.clear();
}

bool RouteTable::dumpDel() {
    secondDump_ = deleted_ && !secondDump_;
    return secondDump_;
}

void RouteTable::readingDel(bool whole) {
    (whole ? toDrop_ : toJudge_).takeAll(untold_);
    reading_ = false;
    notified_.clear();
}

bool RouteTable::doReview(std::size_t most) {
    for (; most > 0 && !toDrop_.empty(); --most) doDrop(toDrop_.front());
    for (; most > 0 && !toJudge_.empty(); --most) {
        RouteNode& node = toJudge_.front();
        RouteRing& ring = ringOf(node.second.incoming);
        RouteRing::remove(node);
        doJudge(node, ring);
    }
    return reviewed();
}

void RouteTable::doTellAll() const {
    for (auto const& [name, route] : routes_)
        if (route.announced) onRoute_(name.source, name.group, true);
}

bool RouteTable::uses(int ifindex) const { return interfaces_.count(ifindex) != 0; }

} // namespace Agent
