#include "agent/kernel/RouteQuery.h"

#include <cerrno>
#include <cstring>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace Agent {

namespace {

/// Of the kernel's answers, whatever room it is offered.
constexpr std::size_t largestPiece = 32768;
/// For the answers to one question.
constexpr int answerBufferBytes = 1 << 20;

void addressPut(nlmsghdr& message, std::uint16_t type, Lox::IpAddr address) {
    std::uint8_t octets[4];
    address.toOctets(octets);
    mnl_attr_put(&message, type, sizeof octets, octets);
}

} // namespace

RouteQuery::RouteQuery(int namespaceFd, std::uint32_t tableNumber)
    : tableNumber_(tableNumber),
      socket_(netlinkOpen(NETLINK_ROUTE, namespaceFd, answerBufferBytes)) {}

void RouteQuery::requestAll() {
    dump_ = true;
    missing_ = 1;
    doAsk(NLM_F_DUMP, nullptr);
}

void RouteQuery::requestNames(std::span<RouteName const> names) {
    dump_ = false;
    missing_ = names.size();
    for (RouteName const& name : names) doAsk(0, &name);
}

void RouteQuery::doAsk(std::uint16_t flags, RouteName const* name) {
    alignas(nlmsghdr) std::array<std::uint8_t, 64> octets{};
    nlmsghdr* const message = mnl_nlmsg_put_header(octets.data());
    message->nlmsg_type = RTM_GETROUTE;
    message->nlmsg_flags = std::uint16_t(NLM_F_REQUEST | flags);
    auto* const header = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(rtmsg)));
    header->rtm_family = RTNL_FAMILY_IPMR;
    if (name) {
        header->rtm_src_len = header->rtm_dst_len = 32;
        addressPut(*message, RTA_SRC, name->source);
        addressPut(*message, RTA_DST, name->group);
        mnl_attr_put_u32(message, RTA_TABLE, tableNumber_);
    }
    request_.insert(request_.end(), octets.begin(), octets.begin() + message->nlmsg_len);
}

void RouteQuery::doExchange() noexcept {
    taken_ = 0;
    error_ = 0;
    if (!request_.empty() &&
        mnl_socket_sendto(socket_.get(), request_.data(), request_.size()) < 0) {
        error_ = errno;
        return;
    }
    request_.clear();
    while (error_ == 0 && taken_ + largestPiece <= answers_.size()) {
        ssize_t const length = netlinkReceive(*socket_, std::span(answers_).subspan(taken_));
        if (length < 0)
            error_ = int(-length);
        else
            taken_ += NLMSG_ALIGN(std::size_t(length));
    }
}

RouteQuery::Outcome
RouteQuery::doRead(std::function<void(nlmsghdr const& message)> const& onRoute) {
    // What is missing will come unless the socket is empty: the kernel puts the next piece of a
    // dump there as one is taken, and all answers to questions at once.
    auto const* message = reinterpret_cast<nlmsghdr const*>(answers_.data());
    int left = int(taken_);
    for (; netlinkMessageOk(message, left); message = mnl_nlmsg_next(message, &left))
        handleMessage(*message, onRoute);
    if (missing_ == 0) return Outcome::ended;
    return error_ == 0 ? Outcome::more : Outcome::failed;
}

void RouteQuery::handleMessage(nlmsghdr const& message,
                               std::function<void(nlmsghdr const& message)> const& onRoute) {
    std::int32_t status = 0; // 0, or a negative error number
    bool const route = message.nlmsg_type >= NLMSG_MIN_TYPE;
    if (route)
        onRoute(message);
    else if (mnl_nlmsg_get_payload_len(&message) >= sizeof status)
        std::memcpy(&status, mnl_nlmsg_get_payload(&message), sizeof status);
    if (message.nlmsg_flags & NLM_F_DUMP_INTR) status = -EINTR;
    if (status < 0 && (dump_ || status != -ENOENT))
        error_ = -status;
    else if (missing_ > 0 && (!route || !dump_))
        --missing_;
}

} // namespace Agent
