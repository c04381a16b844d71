#include "agent/igmp/IgmpTestPackets.h"
#include "agent/igmp/ReportBuilder.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <optional>
#include <utility>

namespace Agent {
namespace {

DropReason reason;

std::optional<IgmpDatagram> datagramOf(std::span<std::uint8_t const> packet) {
    return IgmpDatagram::decode(packet, reason = DropReason::count);
}

RecordList recordsOf(RecordType type, Sources const& sources) {
    RecordList records;
    records.addRecord(type, ip("232.1.1.1"));
    for (Lox::IpAddr source : sources) records.addSource(source);
    return records;
}

TEST(IgmpPacketTest, PacketsSentHaveTheseBytes) {
    auto leave = encodeMessage(IgmpType::v2Leave, ip("10.0.0.2"), ip("239.1.2.3"));
    EXPECT_EQ(Bytes(leave.begin(), leave.end()),
              (Bytes{0x46, 0xC0, 0, 32, 0,   0, 0x40, 0, 1,  2, 0xFA, 0x13, 10,  0, 0, 2,
                     224,  0,    0, 2,  148, 4, 0,    0, 23, 0, 0xF7, 0xFA, 239, 1, 2, 3}));
    Bytes sent;
    ReportBuilder report(ip("10.0.0.2"), 1500,
                         [&](auto packet) { sent.assign(packet.begin(), packet.end()); });
    report.addRecords(recordsOf(RecordType::block, range("192.168.2.9", 9)));
    report.finish(); // of whose octets nothing may be left
    report.addRecords(recordsOf(RecordType::allow, range("192.0.2.1", 2)));
    report.addRecords(recordsOf(RecordType::toEx, {}));
    report.finish();
    EXPECT_EQ(sent, (Bytes{0x46, 0xC0, 0,   56, 0, 0,  0x40, 0, 1,   2, 0xF9, 0xE7, 10,   0,
                           0,    2,    224, 0,  0, 22, 148,  4, 0,   0, 0x22, 0,    0x7E, 0xF1,
                           0,    0,    0,   2,  5, 0,  0,    2, 232, 1, 1,    1,    192,  0,
                           2,    1,    192, 0,  2, 2,  4,    0, 0,   0, 232,  1,    1,    1}));
}

TEST(IgmpPacketTest, EveryTruncationIsRejected) {
    Bytes whole = v3Query(100, ip("239.1.2.3"), range("10.0.0.1", 2));
    Bytes packet = packetOf(whole);
    for (std::size_t size = 0; size < packet.size(); ++size) {
        EXPECT_FALSE(datagramOf(std::span(packet).first(size))) << size;
        EXPECT_EQ(reason, DropReason::badLength) << size;
    }
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        packet = packetOf({whole.begin(), whole.begin() + std::ptrdiff_t(size)});
        auto datagram = datagramOf(packet);
        ASSERT_EQ(datagram.has_value(), size >= 8) << size;
        bool fits = size == 8 || size == whole.size();
        EXPECT_EQ(datagram && IgmpQuery::decode(datagram->payload, 3, reason), fits) << size;
        EXPECT_TRUE(fits || reason == DropReason::badLength) << size;
        auto older = datagram ? IgmpQuery::decode(datagram->payload, 2, reason) : std::nullopt;
        EXPECT_EQ(older && older->version == 2, size >= 8) << size << ", of use to an older host";
        std::size_t const read = older ? older->sources.size() : 0;
        EXPECT_LE(read, (std::max<std::size_t>(size, 12) - 12) / 4) << size;
    }
}

TEST(IgmpPacketTest, EachFaultHasItsReason) {
    struct Case {
        std::size_t at;
        std::uint8_t value;
        DropReason reason;
    } const cases[] = {
        {0, 0x66, DropReason::otherProtocol}, {9, 17, DropReason::otherProtocol},
        {6, 0x20, DropReason::fragment},      {7, 1, DropReason::fragment},
        {0, 0x44, DropReason::badLength},     {3, 23, DropReason::badLength},
        {3, 64, DropReason::badLength},       {25, 99, DropReason::badChecksum},
        {38, 2, DropReason::badChecksum},
    };
    Bytes extra = v3Query(100);
    extra.insert(extra.end(), {0, 0, 1}); // which count for the checksum alone
    Bytes good = packetOf(extra);
    good.resize(60, 0xEE); // what Ethernet adds counts for nothing
    EXPECT_EQ(datagramOf(good)->payload.size(), 15u);
    EXPECT_TRUE(IgmpQuery::decode(datagramOf(good)->payload, 3, reason));
    for (Case const& c : cases) {
        Bytes packet = good;
        packet[c.at] = c.value;
        setChecksum(std::span(packet).first(24), 10);
        EXPECT_FALSE(datagramOf(packet)) << &c - cases;
        EXPECT_EQ(reason, c.reason) << &c - cases;
    }
    Bytes packet = good;
    packet[8] = 2; // with the header's old checksum
    EXPECT_FALSE(datagramOf(packet));
    packet[6] = 0x40; // "do not fragment" is no fault
    setChecksum(std::span(packet).first(24), 10);
    EXPECT_TRUE(datagramOf(packet));
}

TEST(IgmpPacketTest, RouterAlertIsFoundAmongOtherOptions) {
    std::pair<Bytes, bool> const cases[] = {{{1, 0x44, 3, 5, 0x94, 4, 0, 0}, true},
                                            {{0, 4, 0, 0, 0x94, 4, 0, 0}, false},
                                            {{0x44, 0, 0x94, 4}, false},
                                            {{0x44, 9, 0, 0}, false}};
    for (auto const& [options, there] : cases) {
        auto packet = packetOf(message(IgmpType::query, {}), {.options = options});
        EXPECT_EQ(datagramOf(packet)->routerAlert, there) << testing::PrintToString(options);
    }
}

} // namespace
} // namespace Agent
