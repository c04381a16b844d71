// Messages of the kernel, cut and damaged in any way, by the socket that tells dumps from
// notifications to the tables of interfaces and routes, and to questions about routes. Each begins
// with an octet for what it is and one for its length, and has its header and attributes, of which
// each begins with an octet for its type and one for its length; or whatever stands there.
#include "Nex/Error.h"
#include "agent/kernel/InterfaceTable.h"
#include "agent/kernel/RouteQuery.h"
#include "agent/kernel/RouteTable.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace {

using namespace Agent;

struct Tables : Netlink::Observer {
    Tables() { routes.setFilter({true, false, {1, 2}}); }
    void onMessage(nlmsghdr const& message, bool ofDump) override {
        // In a block of just that size, so that whatever is read beyond it shows.
        auto const block = std::make_unique<std::uint8_t[]>(message.nlmsg_len);
        std::copy_n(reinterpret_cast<std::uint8_t const*>(&message), message.nlmsg_len, &block[0]);
        auto const& copy = *reinterpret_cast<nlmsghdr const*>(block.get());
        try {
            interfaces.readMessage(copy);
            routes.readMessage(copy, ofDump);
        } catch (Nex::ParseException const&) {
        }
        routes.doReview(2);
    }
    void onDumpsDone() override {
        if (routes.reading()) routes.endReading(true);
        routes.beginReading();
        routes.questionTake(RouteTable::defaultNumber);
    }
    void onReadAgain() override { netlink.requestDump(RTM_GETLINK, ifinfomsg{}); }
    InterfaceTable interfaces;
    RouteTable routes{[](Lox::IpAddr, Lox::IpAddr, bool) {}};
    Netlink netlink{NETLINK_ROUTE, *this};
};

using Octets = std::span<std::uint8_t const>;

Octets rest;
std::uint32_t sequence = 0; ///< of the last question

/// In the form of the kernel.
std::vector<std::uint8_t> withAttributes(std::size_t header, Octets content) {
    header = std::min(header, content.size());
    std::vector<std::uint8_t> all(content.begin(), content.begin() + std::ptrdiff_t(header));
    for (content = content.subspan(header); content.size() >= 2;) {
        std::uint8_t const type = content[0], length = content[1];
        Octets const value = content.subspan(2, std::min<std::size_t>(length, content.size() - 2));
        all.resize(RTA_ALIGN(all.size()));
        all.insert(all.end(), {std::uint8_t(RTA_LENGTH(length)), 0, type, 0});
        all.insert(all.end(), value.begin(), value.end());
        content = content.subspan(2 + value.size());
    }
    return all;
}

} // namespace

// In place of the kernel's:

extern "C" ssize_t sendto(int, void const* question, std::size_t size, int, sockaddr const*,
                          socklen_t) {
    sequence = static_cast<nlmsghdr const*>(question)->nlmsg_seq;
    return ssize_t(size);
}

extern "C" ssize_t recvmsg(int fd, msghdr* header, int) {
    if (rest.size() < 2) return errno = EAGAIN, -1;
    constexpr std::array types{RTM_NEWLINK, RTM_DELLINK,  RTM_NEWADDR,
                               RTM_DELADDR, RTM_NEWROUTE, RTM_DELROUTE};
    constexpr std::array headers{sizeof(ifinfomsg), sizeof(ifaddrmsg), sizeof(rtmsg)};
    std::uint8_t const choice = rest[0], length = rest[1];
    Octets const content = rest.subspan(2, std::min<std::size_t>(length, rest.size() - 2));
    rest = rest.subspan(2 + content.size());
    std::size_t const plain = choice & 8 ? content.size() : headers[choice % types.size() / 2];
    auto const octets = withAttributes(plain, content);
    auto* const message = static_cast<nlmsghdr*>(header->msg_iov->iov_base);
    sockaddr_nl own{};
    socklen_t ownLength = sizeof own;
    getsockname(fd, reinterpret_cast<sockaddr*>(&own), &ownLength);
    *message = {std::uint32_t(NLMSG_HDRLEN + octets.size()),
                std::uint16_t(types[choice % types.size()]),
                std::uint16_t(choice & 0x20 ? NLM_F_DUMP_INTR : 0), sequence,
                choice & 0x80 ? own.nl_pid : 0};
    if (choice & 0x40) message->nlmsg_type = choice & 1 ? NLMSG_DONE : NLMSG_ERROR;
    if (choice & 0x10) message->nlmsg_len ^= length;
    header->msg_flags = choice % 16 == 15 ? MSG_TRUNC : 0;
    std::copy(octets.begin(), octets.end(), reinterpret_cast<std::uint8_t*>(message + 1));
    return ssize_t(NLMSG_HDRLEN + octets.size());
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Tables tables;
    tables.onReadAgain();
    rest = {data, size};
    while (!tables.netlink.receive()) {
    }
    rest = {data, size};
    RouteQuery query(-1, RT_TABLE_DEFAULT);
    std::array const names{RouteName{}, RouteName{}};
    size % 2 ? query.requestAll() : query.requestNames(names);
    auto outcome = RouteQuery::Outcome::more;
    while (outcome == RouteQuery::Outcome::more) {
        query.doExchange();
        outcome = query.doRead([&](nlmsghdr const& message) { tables.onMessage(message, true); });
    }
    return 0;
}
