#include "agent/kernel/RouteTable.h"

#include "agent/kernel/Netlink.h"
#include "agent/loop/EventLoop.h"

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

static_assert(RouteTable::defaultNumber == RT_TABLE_DEFAULT);

/// One that an octet has no room for is told as an attribute.
std::uint32_t tableOf(rtmsg const& header, NetlinkAttributes const& attributes) {
    return attributes.u32(RTA_TABLE).value_or(header.rtm_table);
}

} // namespace

RouteTable::RouteTable(Observer onRoute, std::uint32_t number)
    : onRoute_(std::move(onRoute)), number_(number) {
    Nex::HashSecrets::need();
}

void RouteTable::setFilter(RouteFilter filter) {
    RouteFilter const before = std::exchange(filter_, std::move(filter));
    bool const all =
        before.requireOutput != filter_.requireOutput || before.anyIncoming != filter_.anyIncoming;
    for (auto& [ifindex, ring] : byIncoming_)
        if (all || before.proxyInterfaces.count(ifindex) != filter_.proxyInterfaces.count(ifindex))
            toJudge_.takeAll(ring);
}

void RouteTable::setProxyInterface(int ifindex, bool proxy) {
    auto& interfaces = filter_.proxyInterfaces;
    bool const changed = proxy ? interfaces.insert(ifindex).second : interfaces.erase(ifindex) != 0;
    auto const routes = byIncoming_.find(ifindex);
    if (changed && routes != byIncoming_.end()) toJudge_.takeAll(routes->second);
}

void RouteTable::readMessage(nlmsghdr const& message, bool ofDump) {
    bool const gone = message.nlmsg_type == RTM_DELROUTE;
    if (!gone && message.nlmsg_type != RTM_NEWROUTE) return;
    NetlinkAttributes const attributes(message, sizeof(rtmsg));
    auto const& header = *static_cast<rtmsg const*>(mnl_nlmsg_get_payload(&message));
    if (header.rtm_family != RTNL_FAMILY_IPMR || tableOf(header, attributes) != number_) return;

    RouteName const name{routeAddress(attributes.octets(RTA_SRC)),
                         routeAddress(attributes.octets(RTA_DST))};
    auto const incoming = int(attributes.u32(RTA_IIF).value_or(0));
    RouteOutputs const outputs = handleOutputs(attributes.octets(RTA_MULTIPATH));
    if (!name.group.isMulticast()) return;
    bool const unresolved = (header.rtm_flags & RTNH_F_UNRESOLVED) != 0;
    if (ofDump && notified_.count(name) != 0) return handleOvertaken(name, unresolved);
    if (reading_ && !ofDump) {
        bool& goneUntold = notified_[name];
        // Unresolved routes stand at the end of the kernel's list: one that goes moves no other.
        if (gone && !unresolved && dumping_) {
            RouteNode const* const known = find(name);
            bool const told = known && known->second.toldBy == dumpNumber_;
            skipped_ += told;
            goneUntold |= !told;
        }
    }
    if (gone || unresolved)
        handleGone(name);
    else
        handleRoute(name, incoming, outputs, ofDump);
}

/// The dump tells what a notification has told already.
void RouteTable::handleOvertaken(RouteName const& name, bool unresolved) {
    if (!dumping_) return;
    RouteNode* const known = find(name);
    if (known) known->second.toldBy = dumpNumber_;
    bool const goneUntold = std::exchange(notified_[name], false);
    if (goneUntold || (!known && !unresolved)) ++skipped_;
}

RouteOutputs RouteTable::handleOutputs(std::span<std::uint8_t const> nextHops) {
    RouteOutputs outputs;
    while (!nextHops.empty()) {
        rtnexthop hop{};
        if (nextHops.size() >= sizeof hop) std::memcpy(&hop, nextHops.data(), sizeof hop);
        std::size_t const step = RTNH_ALIGN(std::size_t(hop.rtnh_len));
        if (hop.rtnh_len < sizeof hop || step > nextHops.size())
            throw Nex::ParseException("route output of the wrong length");
        interfaces_.insert(hop.rtnh_ifindex);
        if (outputs.count < outputs.first.size()) outputs.first[outputs.count] = hop.rtnh_ifindex;
        if (outputs.count < UINT8_MAX) ++outputs.count;
        nextHops = nextHops.subspan(step);
    }
    return outputs;
}

std::size_t RouteTable::mapOf(RouteName const& name) {
    // By bits that the maps' own order does not depend on alone.
    return (RouteName::Hash()(name) * 0x9E3779B97F4A7C15) >> 58;
}

RouteNode* RouteTable::find(RouteName const& name) {
    Routes& routes = routes_[mapOf(name)];
    auto const found = routes.find(name);
    return found == routes.end() ? nullptr : &*found;
}

RouteEntry const* RouteTable::route(RouteName const& name) const {
    Routes const& routes = routes_[mapOf(name)];
    auto const found = routes.find(name);
    return found == routes.end() ? nullptr : &found->second;
}

void RouteTable::handleRoute(RouteName const& name, int incoming, RouteOutputs const& outputs,
                             bool ofDump) {
    RouteRing& ring = ringOf(incoming);
    auto const [at, fresh] = routes_[mapOf(name)].try_emplace(name);
    RouteEntry& route = at->second;
    if (fresh) {
        ++routeCount_;
        route.since = std::uint32_t(EventLoop::now());
    } else {
        RouteRing::remove(*at);
    }
    route.incoming = incoming;
    route.outputs = outputs;
    if (ofDump && dumping_)
        route.toldBy = dumpNumber_;
    else if (ofDump && skipped_ > 0)
        --skipped_;
    doJudge(*at, ring);
}

void RouteTable::handleGone(RouteName const& name) {
    if (RouteNode* const known = find(name)) doDrop(*known);
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
    if (route.announced != announced) {
        route.announced = announced;
        onRoute_(name.source, name.group, announced);
    }
    if (route.withheld == announced) {
        // Last, for want of memory.
        if (announced)
            withheld_.erase({name.group, name.source});
        else
            withheld_.emplace(name.group, name.source);
        route.withheld = !announced;
    }
}

void RouteTable::doDrop(RouteNode& node) {
    auto const [name, route] = node;
    RouteRing::remove(node);
    Routes& routes = routes_[mapOf(name)];
    routes.erase(name);
    --routeCount_;
    if (route.withheld) withheld_.erase({name.group, name.source});
    if (route.announced) onRoute_(name.source, name.group, false);
    // A table that has shrunk far gives its room back.
    if (routes.bucket_count() > 256 && routes.size() < routes.bucket_count() / 16) routes.rehash(0);
}

bool RouteTable::passes(RouteEntry const& route) const {
    if (route.incoming == 0 || (filter_.requireOutput && route.outputs.count == 0)) return false;
    return filter_.anyIncoming || filter_.proxyInterfaces.count(route.incoming) != 0;
}

RouteTable::Withheld RouteTable::whyWithheld(RouteEntry const& route) const {
    if (route.incoming == 0) return Withheld::incomingGone;
    return filter_.requireOutput && route.outputs.count == 0 ? Withheld::noOutput
                                                             : Withheld::foreignIncoming;
}

std::optional<RouteTable::WithheldRoute>
RouteTable::nextWithheld(Lox::IpAddr group, std::optional<Lox::IpAddr> after) const {
    auto at = after ? withheld_.upper_bound({group, *after})
                    : withheld_.lower_bound({group, Lox::IpAddr()});
    if (at == withheld_.end() || at->first != group) return std::nullopt;
    RouteEntry const& entry = *route({at->second, group});
    return WithheldRoute{at->second, whyWithheld(entry), entry.incoming};
}

void RouteTable::beginReading() {
    reading_ = true;
    dumps_ = 0;
    for (auto& [ifindex, ring] : byIncoming_) untold_.takeAll(ring);
    untold_.takeAll(toJudge_);
    byIncoming_.clear();
}

RouteTable::Question RouteTable::questionTake(std::size_t mostNames) {
    Question question;
    dumping_ = false;
    if (dumps_ > 0)
        for (question.names.reserve(mostNames);
             question.names.size() < mostNames && !untold_.empty();) {
            RouteNode& node = untold_.front();
            question.names.push_back(node.first);
            RouteRing::remove(node);
            asked_.add(node);
        }
    question.all = dumps_ == 0 || (dumps_ == 1 && question.names.empty() && skipped_ > 0);
    if (question.all) {
        ++dumps_;
        ++dumpNumber_;
        skipped_ = 0;
        dumping_ = true;
    }
    return question;
}

void RouteTable::endReading(bool whole) {
    untold_.takeAll(asked_);
    (whole ? toDrop_ : toJudge_).takeAll(untold_);
    reading_ = dumping_ = false;
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
    for (Routes const& routes : routes_)
        for (auto const& [name, route] : routes)
            if (route.announced) onRoute_(name.source, name.group, true);
}

bool RouteTable::uses(int ifindex) const { return interfaces_.count(ifindex) != 0; }

} // namespace Agent
