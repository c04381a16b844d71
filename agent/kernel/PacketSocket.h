// IGMP on the wire of one interface, as whole IPv4 packets. A raw IGMP socket would miss queries
// for groups that the kernel itself has not joined, and cannot send from 0.0.0.0; a packet socket
// sees and sends everything.
//
// Of type SOCK_DGRAM: the kernel takes off and writes the link header, so that links other than
// Ethernet work too.
#pragma once

#include "Nex/System.h"
#include "agent/loop/FileDescriptor.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <utility>
#include <vector>

namespace Agent {

class PacketSocket {
  public:
    using Bytes = std::span<std::uint8_t const>;
    /// Packets: more than ten times the reports that 65,536 groups need at an MTU of 1500.
    static constexpr std::size_t longestQueue = 4096;

    /// Binds to an interface, in a namespace if `namespaceFd` is not negative, and has it let all
    /// multicast through. Throws std::system_error, without CAP_NET_RAW for example.
    explicit PacketSocket(int ifindex, int namespaceFd = -1);

    /// In a copy of the process that nobody is to hear: what is opened from now on is nothing that
    /// the kernel knows of, and what is sent only counts.
    static void doMute();
    /// How many packets nobody has heard.
    static std::uint64_t mutedCount();

    /// To wait for: readable when receive() has something to do, writable when the socket's buffer
    /// has room again for flush().
    int fd() const { return socket_.get(); }
    /// Leaves it to the caller, to be closed; nothing else is called afterwards.
    FileDescriptor descriptorTake() { return std::move(socket_); }

    /// Calls `handler` with each IGMP packet that has arrived and that other hosts sent, up to a
    /// limit that keeps a flood from starving others. The octets are the handler's until it
    /// returns; a link's padding may follow the packet.
    void receive(std::function<void(Bytes)> const& handler);

    /// Queues a copy of a packet to a multicast group, until flush(). One that no group can be read
    /// from, or that finds the queue full, is dropped.
    void enqueue(Bytes packet);
    /// Sends what is queued, in order. Returns 0 when the queue is empty, otherwise why it is not:
    /// EAGAIN (wait until the socket is writable) or ENOBUFS (the interface's queue is full: try
    /// again some milliseconds later). With other errors, such as ENETDOWN, trying again is no use:
    /// they drop the packet. So does ENOBUFS once it is all that the interface has said for a
    /// second: its queue may be too small for the packet, or a rule refuse it. `now` is in absolute
    /// seconds.
    int flush(double now);
    std::size_t queued() const { return queue_.size(); }

    /// Packets since the start.
    std::uint64_t sent() const { return sent_; }
    std::uint64_t dropped() const { return dropped_; }
    /// Why the last of these was dropped, as an error number.
    int dropError() const { return dropError_; }
    /// Received packets longer than 9216 octets, which were not handed on.
    std::uint64_t truncated() const { return truncated_; }
    /// Received packets for which the socket had no room. Asks the kernel.
    std::uint64_t missed();

  private:
    struct ReceiveBuffers;

    /// The number of packets that the kernel took, or a negative error number.
    int doSend();
    void doDrop(int error);

    int ifindex_;
    FileDescriptor socket_;
    std::deque<std::vector<std::uint8_t>> queue_;
    std::uint64_t sent_ = 0;
    std::uint64_t dropped_ = 0;
    int dropError_ = 0;
    /// Since when the interface has taken nothing though packets wait.
    double refusingSince_ = Nex::never;
    std::uint64_t truncated_ = 0;
    std::uint64_t missed_ = 0; ///< until the kernel was last asked, which begins its count anew
};

} // namespace Agent
