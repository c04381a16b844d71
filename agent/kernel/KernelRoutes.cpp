#include "agent/kernel/KernelRoutes.h"

#include "agent/loop/Log.h"

#include <cstring>
#include <linux/netconf.h>
#include <linux/rtnetlink.h>
#include <new>
#include <sys/epoll.h>
#include <utility>

namespace Agent {

namespace {

/// A million notifications, as far as the agent takes them up meanwhile; the memory is used only
/// while they wait.
constexpr int notificationBufferBytes = 64 << 20;
/// Of routes in one turn of the loop: well below a millisecond.
constexpr std::size_t mostReviewsInTurn = 512;
/// Between two readings.
constexpr double pauseSeconds = 1;

RouteTable::Observer guarded(EventLoop& loop, RouteTable::Observer onRoute) {
    return [&loop, onRoute = std::move(onRoute)](Lox::IpAddr source, Lox::IpAddr group,
                                                 bool announced) {
        // Let out, it would cost the messages behind this one.
        try {
            onRoute(source, group, announced);
        } catch (std::bad_alloc const&) {
            loop.doReportExhaustion();
        } catch (std::exception const& exception) {
            log(LogLevel::error, "route ({}, {}): {}", source.stringValue(), group.stringValue(),
                exception.what());
        }
    };
}

} // namespace

KernelRoutes::KernelRoutes(EventLoop& loop, RouteTable::Observer onRoute, int namespaceFd,
                           std::uint32_t tableNumber)
    : loop_(loop),
      namespaceFd_(namespaceFd),
      tableNumber_(tableNumber),
      table_(guarded(loop, std::move(onRoute)), tableNumber),
      review_(loop, [this] { doReview(); }),
      pause_(loop, [this] { doAdvance(); }),
      notifications_(NETLINK_ROUTE, *this, namespaceFd) {
    notifications_.setReceiveBuffer(notificationBufferBytes);
    // Subscribed first, so that no change falls between the dump and the notifications.
    notifications_.subscribe(RTNLGRP_IPV4_MROUTE);
    notifications_.subscribe(RTNLGRP_IPV4_NETCONF);
    loop_.watch(notifications_.fd(), EPOLLIN, [this](std::uint32_t) { handleNotifications(); });
    doRead();
}

KernelRoutes::~KernelRoutes() { loop_.unwatch(notifications_.fd()); }

void KernelRoutes::setFilter(RouteFilter filter) {
    table_.setFilter(std::move(filter));
    review_.arm(0);
}

void KernelRoutes::setProxyInterface(int ifindex, bool proxy) {
    table_.setProxyInterface(ifindex, proxy);
    review_.arm(0);
}

void KernelRoutes::doRenew() {
    table_.doTellAll();
    readAgain_ = damaged_ = true;
    doAdvance();
}

void KernelRoutes::handleNotifications() {
    drained_ = notifications_.receive();
    doAdvance();
}

void KernelRoutes::onMessage(nlmsghdr const& message, bool ofDump) {
    try {
        if (message.nlmsg_type == RTM_NEWNETCONF)
            handleInterface(message);
        else if (message.nlmsg_type == RTM_DELNETCONF)
            handleInterfaceGone(message);
        else
            table_.readMessage(message, ofDump);
    } catch (Nex::ParseException const& exception) {
        if (auto const heldBack = malformedLimit_.admitted(EventLoop::now()))
            log(LogLevel::warning, "kernel route message dropped: {} ({} more not shown)",
                exception.what(), *heldBack);
    } catch (std::bad_alloc const&) {
        readAgain_ = damaged_ = true;
        loop_.doReportExhaustion();
    }
}

/// The kernel's routes name their interfaces by numbers of its own. An interface that leaves
/// multicast routing is gone from them; one that joins is in those that hold its number already.
void KernelRoutes::handleInterface(nlmsghdr const& message) {
    NetlinkAttributes const attributes(message, sizeof(netconfmsg));
    bool const all = int(attributes.u32(NETCONFA_IFINDEX).value_or(0)) <= 0;
    // Told on its own where it changes; among all settings where an interface is new.
    bool const changed =
        attributes.u32(NETCONFA_MC_FORWARDING) && !attributes.u32(NETCONFA_FORWARDING);
    if (!all && changed && (table_.reading() || table_.routeCount() != 0)) readAgain_ = true;
}

/// An interface that is deleted leaves multicast routing without another word.
void KernelRoutes::handleInterfaceGone(nlmsghdr const& message) {
    NetlinkAttributes const attributes(message, sizeof(netconfmsg));
    auto const ifindex = int(attributes.u32(NETCONFA_IFINDEX).value_or(0));
    if (table_.reading() || table_.uses(ifindex)) readAgain_ = true;
}

void KernelRoutes::onReadAgain() { readAgain_ = damaged_ = true; }

void KernelRoutes::doAdvance() {
    // While notifications wait, the kernel may drop further ones without a word, and nobody knows
    // what a dump has skipped.
    if (!drained_) return;
    if (std::exchange(answered_, false)) damaged_ ? doEndReading() : doAsk();
    if (!readAgain_ || table_.reading()) return;
    double const pause = pauseUntil_ - EventLoop::now();
    if (pause > 0)
        pause_.arm(pause);
    else
        doRead();
}

void KernelRoutes::doRead() {
    readAgain_ = damaged_ = false;
    table_.beginReading();
    doAsk();
}

void KernelRoutes::doAsk() {
    try {
        if (!query_) query_ = std::make_shared<RouteQuery>(namespaceFd_, tableNumber_);
        auto const question = table_.questionTake(RouteQuery::mostNames);
        if (question.all)
            query_->requestAll();
        else if (question.names.empty())
            return doEndReading();
        else
            query_->requestNames(question.names);
        doExchange();
    } catch (std::exception const& error) {
        handleFailure(error.what());
    }
}

void KernelRoutes::doExchange() {
    try {
        loop_.offload([query = query_] { query->doExchange(); }, handleAnswers_);
    } catch (std::bad_alloc const& error) {
        handleFailure(error.what());
    }
}

void KernelRoutes::handleAnswers() {
    drained_ = notifications_.receive();
    switch (query_->doRead([this](nlmsghdr const& message) { onMessage(message, true); })) {
    case RouteQuery::Outcome::more:
        return doExchange();
    case RouteQuery::Outcome::failed:
        return handleFailure(std::strerror(query_->error()));
    case RouteQuery::Outcome::ended:
        answered_ = true;
        doAdvance();
    }
}

void KernelRoutes::handleFailure(char const* why) {
    query_ = nullptr;
    readAgain_ = damaged_ = true;
    doEndReading();
    doAdvance();
    if (auto const heldBack = failureLimit_.admitted(EventLoop::now()))
        log(LogLevel::error, "the kernel's multicast routes are read again: {} ({} more not shown)",
            why, *heldBack);
}

void KernelRoutes::doEndReading() {
    table_.endReading(!damaged_);
    synchronized_ |= !damaged_;
    pauseUntil_ = EventLoop::now() + pauseSeconds;
    review_.arm(0);
}

void KernelRoutes::doReview() {
    if (!table_.doReview(mostReviewsInTurn)) review_.arm(0);
}

} // namespace Agent
