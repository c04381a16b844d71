#include "agent/kernel/PacketSocket.h"

#include "Lox/IpAddr.h"
#include "agent/kernel/NetworkNamespace.h"
#include "agent/loop/SystemError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <new>
#include <sys/eventfd.h>
#include <sys/socket.h>

namespace Agent {

namespace {

constexpr std::size_t batch = 32;
constexpr std::size_t largestPacket = 9216;
constexpr unsigned mostBatchesInTurn = 8;
constexpr double refusalSeconds = 1; // with an interface that takes no packet
constexpr int sendBufferBytes = 4 << 20;

bool muted = false;
std::uint64_t packetsMuted = 0;

// RFC 791, 3.1
constexpr unsigned protocolOffset = 9;
constexpr std::size_t destinationOffset = 16;
constexpr std::size_t headerSize = 20;

/// Lets through IGMP to this host or to groups. A packet of a VLAN on top of the interface is shown
/// to the interface's sockets too, under the VLAN's index or as another host's.
void doAttachFilter(int socket, int ifindex) {
    unsigned const packetType = unsigned(SKF_AD_OFF + SKF_AD_PKTTYPE);
    unsigned const interface = unsigned(SKF_AD_OFF + SKF_AD_IFINDEX);
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, protocolOffset),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_IGMP, 0, 5),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, packetType),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OTHERHOST, 3, 0),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, interface),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, unsigned(ifindex), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0xFFFFFFFF),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    sock_fprog const filter{std::size(program), program};
    checked(setsockopt(socket, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter),
            "attaching the packet filter");
}

FileDescriptor openPacketSocket(int ifindex, int namespaceFd) {
    if (muted) return FileDescriptor(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd"));
    NamespaceScope const scope(namespaceFd);
    // Without a protocol, so that nothing arrives before filter and interface are set.
    FileDescriptor socket(::socket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    checked(socket.get(), "opening a packet socket");
    doAttachFilter(socket.get(), ifindex);
    int const on = 1;
    checked(setsockopt(socket.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on),
            "ignoring outgoing packets");
    packet_mreq membership{};
    membership.mr_ifindex = ifindex;
    membership.mr_type = PACKET_MR_ALLMULTI;
    checked(
        setsockopt(socket.get(), SOL_PACKET, PACKET_ADD_MEMBERSHIP, &membership, sizeof membership),
        "joining all multicast groups");
    // Room for one burst of reports; without the capability, as much as the system allows.
    if (setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUFFORCE, &sendBufferBytes, sizeof(int)) < 0)
        setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUF, &sendBufferBytes, sizeof(int));
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_IP);
    address.sll_ifindex = ifindex;
    checked(bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address),
            "binding a packet socket");
    return socket;
}

/// 0.0.0.0 if `packet` is shorter than an IPv4 header.
Lox::IpAddr destination(PacketSocket::Bytes packet) {
    if (packet.size() < headerSize) return {};
    return Lox::IpAddr::fromOctets(packet.data() + destinationOffset);
}

/// The link address of a group: 01:00:5e and its low 23 bits (RFC 1112, 6.4).
sockaddr_ll linkAddress(int ifindex, Lox::IpAddr group) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_IP);
    address.sll_ifindex = ifindex;
    address.sll_halen = ETH_ALEN;
    std::uint8_t octets[4];
    group.toOctets(octets);
    std::uint8_t const mac[] = {0x01,      0x00,     0x5e, std::uint8_t(octets[1] & 0x7f),
                                octets[2], octets[3]};
    std::copy(std::begin(mac), std::end(mac), address.sll_addr);
    return address;
}

} // namespace

/// Shared by all sockets of the thread: nothing stays in them between calls.
struct PacketSocket::ReceiveBuffers {
    ReceiveBuffers() {
        for (std::size_t i = 0; i < batch; ++i) {
            parts[i] = {octets[i].data(), octets[i].size()};
            messages[i].msg_hdr.msg_iov = &parts[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
    }

    std::array<std::array<std::uint8_t, largestPacket>, batch> octets;
    std::array<iovec, batch> parts;
    std::array<mmsghdr, batch> messages{};
};

PacketSocket::PacketSocket(int ifindex, int namespaceFd)
    : ifindex_(ifindex), socket_(openPacketSocket(ifindex, namespaceFd)) {}

void PacketSocket::doMute() { muted = true; }

std::uint64_t PacketSocket::mutedCount() { return packetsMuted; }

void PacketSocket::receive(std::function<void(Bytes)> const& handler) {
    thread_local auto const buffers = std::make_unique<ReceiveBuffers>();
    for (unsigned turn = 0; turn < mostBatchesInTurn; ++turn) {
        // An error here says that the interface went down, which others watch for.
        int const count = recvmmsg(fd(), buffers->messages.data(), batch, 0, nullptr);
        for (std::size_t i = 0; int(i) < count; ++i) {
            mmsghdr const& message = buffers->messages[i];
            if (message.msg_hdr.msg_flags & MSG_TRUNC)
                ++truncated_;
            else
                handler({buffers->octets[i].data(), message.msg_len});
        }
        if (count < int(batch)) return;
    }
}

std::uint64_t PacketSocket::missed() {
    tpacket_stats fresh{};
    socklen_t size = sizeof fresh;
    if (getsockopt(fd(), SOL_PACKET, PACKET_STATISTICS, &fresh, &size) == 0)
        missed_ += fresh.tp_drops;
    return missed_;
}

void PacketSocket::enqueue(Bytes packet) {
    if (!destination(packet).isMulticast()) return doDrop(EDESTADDRREQ);
    if (queue_.size() == longestQueue) return doDrop(ENOBUFS);
    try {
        queue_.emplace_back(packet.begin(), packet.end());
    } catch (std::bad_alloc const&) {
        doDrop(ENOMEM);
    }
}

int PacketSocket::flush(double now) {
    while (!queue_.empty()) {
        int const result = doSend();
        if (result == -EINTR) continue;
        if (result != -ENOBUFS) refusingSince_ = Nex::never;
        if (result == -EAGAIN) return EAGAIN;
        if (result == -ENOBUFS) {
            refusingSince_ = std::min(refusingSince_, now);
            if (now < refusingSince_ + refusalSeconds) return ENOBUFS;
        }
        if (result < 0)
            doDrop(-result);
        else
            sent_ += unsigned(result);
        queue_.erase(queue_.begin(), queue_.begin() + std::max(result, 1));
    }
    refusingSince_ = Nex::never;
    return 0;
}

void PacketSocket::doDrop(int error) {
    ++dropped_;
    dropError_ = error;
}

int PacketSocket::doSend() {
    if (muted) {
        packetsMuted += queue_.size();
        return int(queue_.size());
    }
    std::array<mmsghdr, batch> messages{};
    std::array<iovec, batch> parts;
    std::array<sockaddr_ll, batch> addresses;
    std::size_t const count = std::min(queue_.size(), batch);
    for (std::size_t i = 0; i < count; ++i) {
        auto& packet = queue_[i];
        addresses[i] = linkAddress(ifindex_, destination(packet));
        parts[i] = {packet.data(), packet.size()};
        messages[i].msg_hdr.msg_name = &addresses[i];
        messages[i].msg_hdr.msg_namelen = sizeof addresses[i];
        messages[i].msg_hdr.msg_iov = &parts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    int const sent = sendmmsg(fd(), messages.data(), unsigned(count), 0);
    return sent < 0 ? -errno : sent;
}

} // namespace Agent
