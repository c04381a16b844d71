#include "agent/kernel/PacketSocket.h"

#include "agent/Wire.h"

namespace Agent {
namespace {

using Packets = std::vector<Bytes>;

/// An IPv4 packet of `size` octets, with the number `mark` at its end. Its checksum need not be
/// right: packet sockets pay no heed to it.
Bytes packet(std::size_t size, std::uint8_t mark = 0, char const* group = "224.0.0.22",
             std::uint8_t protocol = IPPROTO_IGMP) {
    Bytes octets = packetOf(Bytes(size - 20), {.destination = ip(group), .options = {}});
    octets[9] = protocol;
    octets.back() = mark;
    return octets;
}

/// The two ends of a veth pair in one namespace, without addresses: the kernel keeps silent there.
class PacketSocketTest : public testing::Test {
  protected:
    void SetUp() override {
        IHP_SKIP_WITHOUT_NETNS();
        net = std::make_unique<Testing::Netns>();
        Testing::Netns::addPair(net->nearName(), "tx0", "rx0");
        net->nearAwaitUp("tx0"); // until then, it drops all packets
        net->nearAwaitUp("rx0");
        FileDescriptor const space = namespaceOpen(net->nearName());
        tx = std::make_unique<PacketSocket>(net->nearIndex("tx0"), space.get());
        rx = std::make_unique<PacketSocket>(net->nearIndex("rx0"), space.get());
    }

    /// What arrives until there are `count` packets.
    static Packets arrivals(PacketSocket& socket, std::size_t count) {
        Packets packets;
        Testing::waitUntil([&] {
            socket.receive(
                [&](auto octets) { packets.emplace_back(octets.begin(), octets.end()); });
            return packets.size() >= count;
        });
        return packets;
    }
    void doSend(Bytes const& packet) {
        tx->enqueue(packet);
        ASSERT_EQ(tx->flush(now), 0);
    }
    std::unique_ptr<Testing::Netns> net;
    double now = 1000;
    std::unique_ptr<PacketSocket> tx;
    std::unique_ptr<PacketSocket> rx;
};

TEST_F(PacketSocketTest, PacketsArriveWholeUnderTheirGroupsLinkAddress) {
    Testing::Netns::Inside const inside(net->nearName());
    FileDescriptor const wire(socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, htons(ETH_P_IP)));
    Bytes const report = packet(1500, 0, "239.138.1.2");
    doSend(report);
    EXPECT_EQ(arrivals(*rx, 1), Packets{report});
    Bytes frame(2000);
    ASSERT_GT(recv(wire.get(), frame.data(), frame.size(), 0), 14);
    frame.resize(6);
    EXPECT_EQ(frame, (Bytes{0x01, 0x00, 0x5e, 0x0a, 0x01, 0x02}));
    EXPECT_EQ(arrivals(*tx, 0).size(), 0u) << "own packets do not come back";
    EXPECT_NE(net->nearIp("-d link show rx0").find("allmulti 1"), std::string::npos);
}

TEST_F(PacketSocketTest, OnlyIgmpForThisHostOrGroupsPasses) {
    doSend(packet(40, 1, "224.0.0.22", IPPROTO_UDP));
    Testing::Wire const raw(net->nearName(), "tx0"); // for what a PacketSocket would not send
    raw.send(packet(40, 2), {2, 2, 2, 2, 2, 2});
    raw.send(packet(40, 3, "255.255.255.255"));
    raw.send(Bytes(9, 2), {0x01, 0x00, 0x5e, 0, 0, 1});
    for (char const* const end : {"tx0", "rx0"})
        net->nearIp("link set " + std::string(end) + " mtu 12000");
    doSend(packet(11900, 5)); // not cut short, but lost
    doSend(packet(40, 4));
    EXPECT_EQ(arrivals(*rx, 2), (Packets{packet(40, 3, "255.255.255.255"), packet(40, 4)}));
}

TEST_F(PacketSocketTest, OnePacketBeyondTheMtuDoesNotHoldUpTheOthers) {
    tx->enqueue(packet(40, 1));
    tx->enqueue(packet(1501, 2));
    tx->enqueue(packet(40, 3));
    EXPECT_EQ(tx->flush(now), 0);
    EXPECT_EQ(arrivals(*rx, 2), (Packets{packet(40, 1), packet(40, 3)}));
    EXPECT_EQ(tx->dropped(), 1u);
    EXPECT_EQ(tx->dropError(), EMSGSIZE);
}

TEST_F(PacketSocketTest, FullQueuesKeepThePacketsForLater) {
    if (!net->nearQdisc("add dev tx0 root tbf rate 8kbit burst 2000 limit 5000"))
        GTEST_SKIP() << "no traffic shaper (tbf) in this kernel";
    for (int i = 0; i < 40; ++i) tx->enqueue(packet(1500));
    EXPECT_EQ(tx->flush(now), ENOBUFS) << "the interface's queue is full";
    EXPECT_GT(tx->queued(), 30u);

    int const least = 1;
    ASSERT_EQ(setsockopt(tx->fd(), SOL_SOCKET, SO_SNDBUF, &least, sizeof least), 0);
    ASSERT_TRUE(net->nearQdisc("replace dev tx0 root tbf rate 8kbit burst 2000 limit 500000"));
    EXPECT_EQ(tx->flush(now), EAGAIN) << "the socket's buffer is full";

    EXPECT_TRUE(net->nearQdisc("del dev tx0 root"));
    EXPECT_TRUE(Testing::waitUntil([&] { return tx->flush(now) == 0; }));
    EXPECT_EQ(tx->sent(), 40u);
    EXPECT_EQ(tx->dropped(), 0u);
}

TEST_F(PacketSocketTest, PacketsThatTheInterfaceKeepsRefusingAreGivenUp) {
    if (!net->nearQdisc("add dev tx0 root bfifo limit 200"))
        GTEST_SKIP() << "no bfifo in this kernel";
    for (std::size_t second : {301u, 40u}) {
        tx->enqueue(packet(300));
        tx->enqueue(packet(second));
        EXPECT_EQ(tx->flush(now), ENOBUFS);
        EXPECT_EQ(tx->flush(now + 0.9), ENOBUFS) << "it may be a burst";
        EXPECT_EQ(tx->queued(), 2u);
        EXPECT_EQ(tx->flush(now + 1), 0) << "all that it refuses, at once";
        now += 1000;
    }
    EXPECT_EQ(arrivals(*rx, 1).size(), 1u);
    EXPECT_EQ(tx->dropped(), 3u);
    EXPECT_EQ(tx->dropError(), ENOBUFS);
}

} // namespace
} // namespace Agent
