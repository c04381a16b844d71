// The far end of a link: everything that its near end says in IGMP, and packets of any kind to it.
#pragma once

#include "agent/igmp/IgmpTestPackets.h"
#include "netns/Netns.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <set>
#include <sys/socket.h>
#include <system_error>
#include <thread>

namespace Testing {

using Lines = std::vector<std::string>;

class Wire {
  public:
    /// Throws std::system_error where the kernel refuses.
    Wire(std::string const& namespaceName, std::string const& interface) {
        Netns::Inside const inside(namespaceName);
        // All protocols, for a socket of one protocol sees nothing on the port of a bridge.
        socket_ = Agent::FileDescriptor(socket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK, 0));
        int const on = 1, room = 16 << 20;
        setsockopt(socket_.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on);
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
        address_.sll_family = AF_PACKET;
        address_.sll_protocol = htons(ETH_P_ALL);
        address_.sll_ifindex = int(if_nametoindex(interface.c_str()));
        if (bind(socket_.get(), reinterpret_cast<sockaddr*>(&address_), sizeof address_) != 0)
            throw std::system_error(errno, std::generic_category(), interface);
    }

    /// All messages and records of reports since the last forget(), sorted: "TO_EX 239.1.1.1", or
    /// "v2 239.1.1.1". Whatever no host may send shows as "malformed". Without the answers to
    /// version 3 queries: the bridge asks when it likes.
    Lines heard() {
        doReceive();
        Lines lines = heard_;
        std::sort(lines.begin(), lines.end());
        return lines;
    }
    /// Those answers since the last forget(), sorted, each once, a moment after they are no fewer
    /// than expected, to a query that is sent over and over: it may get lost where the near end has
    /// no time to listen.
    Lines answersTo(Agent::Bytes const& query, std::size_t count) {
        waitUntil([&] {
            send(query);
            doReceive();
            return answers_.size() >= count;
        });
        doSettle();
        doReceive();
        return {answers_.begin(), answers_.end()};
    }
    /// The source addresses of the packets that heard() has lines of.
    std::vector<Lox::IpAddr> const& sources() const { return sources_; }
    void forget() {
        doReceive();
        heard_.clear();
        answers_.clear();
        sources_.clear();
    }
    /// Whether these are heard, in any order, perhaps among others.
    bool hears(Lines lines) {
        std::sort(lines.begin(), lines.end());
        return waitUntil([&] {
            Lines const all = heard();
            return std::includes(all.begin(), all.end(), lines.begin(), lines.end());
        });
    }
    /// Whether, once these have been and a moment later, they are all that is; forgets it.
    testing::AssertionResult hearsOnly(Lines lines) {
        std::sort(lines.begin(), lines.end());
        hears(lines);
        doSettle();
        Lines const all = heard();
        forget();
        if (all == lines) return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << testing::PrintToString(all) << " is heard, not " << testing::PrintToString(lines);
    }

    /// Any octets, as one IPv4 packet, to all hosts of the link unless to one address.
    void send(Agent::Bytes const& packet,
              std::array<std::uint8_t, 6> const& mac = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}) const {
        sockaddr_ll to = address_;
        to.sll_protocol = htons(ETH_P_IP);
        to.sll_halen = 6;
        std::copy(mac.begin(), mac.end(), to.sll_addr);
        if (sendto(socket_.get(), packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&to),
                   sizeof to) < 0)
            throw std::system_error(errno, std::generic_category(), "sending a packet");
    }

  private:
    static void doSettle() { std::this_thread::sleep_for(std::chrono::milliseconds(300)); }
    void doReceive() {
        Agent::Bytes packet(65536);
        for (;;) {
            ssize_t const length = recv(socket_.get(), packet.data(), packet.size(), 0);
            if (length < 0 && errno != EINTR && errno != ENETDOWN) return;
            if (length >= 20 && packet[0] >> 4 == 4 && packet[9] == IPPROTO_IGMP)
                doAdd({packet.data(), std::size_t(length)});
        }
    }
    void doAdd(std::span<std::uint8_t const> packet) {
        Agent::DropReason reason;
        auto const datagram = Agent::IgmpDatagram::decode(packet, reason);
        bool const sound = datagram && datagram->ttl == 1 && datagram->routerAlert &&
                           packet[0] == 0x46 && packet[1] == 0xC0;
        if (!sound) return heard_.push_back("malformed");
        std::size_t const before = heard_.size();
        std::string const text = Agent::packetText(packet);
        for (std::size_t at = 0; at <= text.size();) {
            std::size_t const end = std::min(text.find(", ", at), text.size());
            std::string const line = text.substr(at, end - at);
            if (line.starts_with("IS_"))
                answers_.insert(line);
            else
                heard_.push_back(line);
            at = end + 2;
        }
        if (heard_.size() > before) sources_.push_back(datagram->source);
    }

    Agent::FileDescriptor socket_;
    sockaddr_ll address_{};
    Lines heard_;
    std::set<std::string> answers_;
    std::vector<Lox::IpAddr> sources_;
};

} // namespace Testing
