#include "agent/igmp/IgmpPacket.h"

#include <algorithm>

namespace Agent {

namespace {

namespace IpHeader { // offsets in the IPv4 header
constexpr std::size_t versionAndLength = 0;
constexpr std::size_t typeOfService = 1;
constexpr std::size_t totalLength = 2;
constexpr std::size_t flagsAndOffset = 6;
constexpr std::size_t ttl = 8;
constexpr std::size_t protocol = 9;
constexpr std::size_t headerChecksum = 10;
constexpr std::size_t source = 12;
constexpr std::size_t destination = 16;
constexpr std::size_t options = 20;
} // namespace IpHeader

namespace Message { // offsets in the IGMP payload
constexpr std::size_t type = 0;
constexpr std::size_t maxRespCode = 1;
constexpr std::size_t checksum = 2;
constexpr std::size_t group = 4;
constexpr std::size_t recordCount = 6;
constexpr std::size_t robustness = 8;
constexpr std::size_t querySourceCount = 10;
constexpr std::size_t querySources = 12;
} // namespace Message

namespace Record { // offsets in a group record
constexpr std::size_t type = 0;
constexpr std::size_t auxiliaryLength = 1;
constexpr std::size_t sourceCount = 2;
constexpr std::size_t group = 4;
} // namespace Record

constexpr std::uint8_t igmpProtocol = 2;
constexpr std::uint8_t internetControl = 0xC0;
constexpr std::uint16_t dontFragment = 0x4000;
constexpr std::uint16_t moreFragmentsAndOffset = 0x3FFF;
constexpr std::array<std::uint8_t, 4> routerAlertOption{0x94, 4, 0, 0};

unsigned get16(std::span<std::uint8_t const> bytes, std::size_t at) {
    return unsigned(bytes[at]) << 8 | bytes[at + 1];
}

void put16(std::span<std::uint8_t> bytes, std::size_t at, std::size_t value) {
    bytes[at] = std::uint8_t(value >> 8);
    bytes[at + 1] = std::uint8_t(value);
}

/// Walks the options; what follows a broken one is not looked at.
bool hasRouterAlert(std::span<std::uint8_t const> options) {
    constexpr std::uint8_t endOfOptions = 0, noOperation = 1;
    while (options.size() >= 2 && options[0] != endOfOptions) {
        std::size_t length = options[0] == noOperation ? 1 : options[1];
        if (length == 0 || length > options.size()) return false;
        if (options[0] == routerAlertOption[0]) return length == routerAlertOption.size();
        options = options.subspan(length);
    }
    return false;
}

void encodeIpHeader(std::span<std::uint8_t> packet, Lox::IpAddr source, Lox::IpAddr destination) {
    std::fill_n(packet.begin(), ipHeaderOctets, std::uint8_t(0));
    packet[IpHeader::versionAndLength] = 0x40 | ipHeaderOctets / 4;
    packet[IpHeader::typeOfService] = internetControl;
    put16(packet, IpHeader::totalLength, packet.size());
    put16(packet, IpHeader::flagsAndOffset, dontFragment);
    packet[IpHeader::ttl] = 1;
    packet[IpHeader::protocol] = igmpProtocol;
    source.toOctets(&packet[IpHeader::source]);
    destination.toOctets(&packet[IpHeader::destination]);
    std::copy(routerAlertOption.begin(), routerAlertOption.end(), &packet[IpHeader::options]);
    put16(packet, IpHeader::headerChecksum, checksum(packet.first(ipHeaderOctets)));
}

/// Writes type and checksum into a payload that is complete but for them.
void encodeTypeAndChecksum(std::span<std::uint8_t> payload, IgmpType type) {
    payload[Message::type] = std::uint8_t(type);
    put16(payload, Message::checksum, 0);
    put16(payload, Message::checksum, checksum(payload));
}

Lox::IpAddr destinationOf(IgmpType type, Lox::IpAddr group) {
    return type == IgmpType::v2Leave ? allRouters : group;
}

} // namespace

void setSource(std::span<std::uint8_t> packet, Lox::IpAddr source) {
    source.toOctets(&packet[IpHeader::source]);
    put16(packet, IpHeader::headerChecksum, 0);
    put16(packet, IpHeader::headerChecksum, checksum(packet.first(ipHeaderOctets)));
}

std::uint16_t checksum(std::span<std::uint8_t const> bytes) {
    std::uint32_t sum = 0;
    std::size_t at = 0;
    for (; at + 1 < bytes.size(); at += 2) sum += get16(bytes, at);
    if (at < bytes.size()) sum += unsigned(bytes[at]) << 8;
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return std::uint16_t(~sum);
}

std::optional<IgmpDatagram> IgmpDatagram::decode(std::span<std::uint8_t const> packet,
                                                 DropReason& reason) {
    auto dropped = [&](DropReason why) {
        reason = why;
        return std::nullopt;
    };
    if (packet.size() < IpHeader::options) return dropped(DropReason::badLength);
    if (packet[IpHeader::versionAndLength] >> 4 != 4 || packet[IpHeader::protocol] != igmpProtocol)
        return dropped(DropReason::otherProtocol);
    std::size_t headerLength = 4 * (packet[IpHeader::versionAndLength] & 0x0Fu);
    std::size_t totalLength = get16(packet, IpHeader::totalLength);
    if (headerLength < IpHeader::options || totalLength < headerLength ||
        totalLength > packet.size())
        return dropped(DropReason::badLength);
    if (checksum(packet.first(headerLength)) != 0) return dropped(DropReason::badChecksum);
    if (get16(packet, IpHeader::flagsAndOffset) & moreFragmentsAndOffset)
        return dropped(DropReason::fragment);
    auto payload = packet.subspan(headerLength, totalLength - headerLength);
    if (payload.size() < messageOctets) return dropped(DropReason::badLength);
    if (checksum(payload) != 0) return dropped(DropReason::badChecksum);
    return IgmpDatagram{
        Lox::IpAddr::fromOctets(&packet[IpHeader::source]),
        Lox::IpAddr::fromOctets(&packet[IpHeader::destination]),
        packet[IpHeader::ttl],
        hasRouterAlert(packet.subspan(IpHeader::options, headerLength - IpHeader::options)),
        IgmpType(payload[Message::type]),
        payload,
    };
}

Lox::IpAddr IgmpDatagram::group() const {
    return Lox::IpAddr::fromOctets(&payload[Message::group]);
}

std::optional<IgmpQuery> IgmpQuery::decode(std::span<std::uint8_t const> payload,
                                           unsigned hostVersion, DropReason& reason) {
    IgmpQuery query;
    query.maxRespCode = payload[Message::maxRespCode];
    query.group = Lox::IpAddr::fromOctets(&payload[Message::group]);
    bool olderHost = hostVersion < 3;
    bool longer = payload.size() >= Message::querySources;
    query.wireVersion = longer ? 3 : query.maxRespCode == 0 ? 1 : 2;
    query.version = !olderHost ? query.wireVersion : query.maxRespCode == 0 ? 1 : 2;
    reason = DropReason::badLength;
    if (!longer && !olderHost && payload.size() != messageOctets) return std::nullopt;
    if (longer) {
        std::size_t room = (payload.size() - Message::querySources) / GroupRecord::sourceOctets;
        std::size_t count = get16(payload, Message::querySourceCount);
        if (count > room && !olderHost) return std::nullopt;
        count = std::min(count, room);
        query.robustness = payload[Message::robustness] & 0x07;
        query.sources.reserve(count);
        for (std::size_t i = 0; i < count; ++i)
            query.sources.push_back(Lox::IpAddr::fromOctets(
                &payload[Message::querySources + GroupRecord::sourceOctets * i]));
    }
    reason = DropReason::badGroup;
    bool wrong = query.isGeneral() ? query.version == 3 && !query.sources.empty()
                                   : !query.group.isMulticast();
    if (wrong) return std::nullopt;
    return query;
}

std::array<std::uint8_t, ipHeaderOctets + messageOctets>
encodeMessage(IgmpType type, Lox::IpAddr source, Lox::IpAddr group) {
    std::array<std::uint8_t, ipHeaderOctets + messageOctets> packet{};
    encodeIpHeader(packet, source, destinationOf(type, group));
    auto payload = std::span(packet).subspan(ipHeaderOctets);
    group.toOctets(&payload[Message::group]);
    encodeTypeAndChecksum(payload, type);
    return packet;
}

void encodeRecord(GroupRecord const& record, std::span<std::uint8_t> bytes) {
    bytes[Record::type] = std::uint8_t(record.type);
    bytes[Record::auxiliaryLength] = 0;
    put16(bytes, Record::sourceCount, record.sources.size());
    record.group.toOctets(&bytes[Record::group]);
    std::uint8_t* at = bytes.data() + GroupRecord::headerOctets;
    for (Lox::IpAddr source : record.sources) {
        source.toOctets(at);
        at += GroupRecord::sourceOctets;
    }
}

void encodeReport(std::span<std::uint8_t> packet, Lox::IpAddr source, unsigned records) {
    encodeIpHeader(packet, source, allV3Routers);
    auto payload = packet.subspan(ipHeaderOctets);
    std::fill_n(payload.begin(), messageOctets, std::uint8_t(0));
    put16(payload, Message::recordCount, records);
    encodeTypeAndChecksum(payload, IgmpType::v3Report);
}

} // namespace Agent
