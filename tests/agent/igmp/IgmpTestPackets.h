// Packets for tests of the IGMP host: those of queriers and other hosts as bytes, and our own as a
// line of text, read without the code under test.
#pragma once

#include "agent/igmp/IgmpPacket.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace Agent {

using Bytes = std::vector<std::uint8_t>;
using Sources = std::vector<Lox::IpAddr>;

inline Lox::IpAddr ip(char const* dotted) { return Lox::IpAddr(dotted); }

/// Addresses that follow each other.
inline Sources range(char const* first, unsigned count) {
    Sources addresses;
    for (unsigned i = 0; i < count; ++i)
        addresses.push_back(Lox::IpAddr::fromHost(ip(first).host() + i));
    return addresses;
}

inline void append(Bytes& bytes, Lox::IpAddr address) {
    bytes.resize(bytes.size() + 4);
    address.toOctets(&bytes[bytes.size() - 4]);
}

/// Puts the right checksum at `at`.
inline void setChecksum(std::span<std::uint8_t> bytes, std::size_t at) {
    bytes[at] = bytes[at + 1] = 0;
    unsigned sum = checksum(bytes);
    bytes[at] = std::uint8_t(sum >> 8);
    bytes[at + 1] = std::uint8_t(sum);
}

struct Envelope {
    Lox::IpAddr source = ip("10.0.0.1");
    Lox::IpAddr destination = allSystems;
    Bytes options{0x94, 4, 0, 0};
    std::uint8_t ttl = 1;
};

/// An IPv4 packet around `payload`, whose checksum is made right.
inline Bytes packetOf(Bytes payload, Envelope const& envelope = {}) {
    if (payload.size() >= 4) setChecksum(payload, 2);
    std::size_t header = 20 + envelope.options.size(), total = header + payload.size();
    Bytes packet(12);
    packet[0] = std::uint8_t(0x40 | header / 4);
    packet[2] = std::uint8_t(total >> 8);
    packet[3] = std::uint8_t(total);
    packet[8] = envelope.ttl;
    packet[9] = 2;
    append(packet, envelope.source);
    append(packet, envelope.destination);
    packet.insert(packet.end(), envelope.options.begin(), envelope.options.end());
    setChecksum(packet, 10);
    packet.insert(packet.end(), payload.begin(), payload.end());
    return packet;
}

/// The payload of a message of 8 octets.
inline Bytes message(IgmpType type, Lox::IpAddr group, std::uint8_t code = 0) {
    Bytes payload{std::uint8_t(type), code, 0, 0};
    append(payload, group);
    return payload;
}

inline Bytes v3Query(std::uint8_t code, Lox::IpAddr group = {}, Sources const& sources = {},
                     std::uint8_t robustness = 2, std::uint8_t interval = 125) {
    Bytes payload = message(IgmpType::query, group, code);
    payload.insert(payload.end(), {robustness, interval, 0, std::uint8_t(sources.size())});
    for (Lox::IpAddr source : sources) append(payload, source);
    return payload;
}

/// "ALLOW 239.1.1.1 10.0.0.9, BLOCK ..." for a version 3 report, "v2 239.1.1.1" for an older one.
inline std::string packetText(std::span<std::uint8_t const> packet) {
    constexpr char const* names[] = {"?",      "IS_IN ", "IS_EX ", "TO_IN ",
                                     "TO_EX ", "ALLOW ", "BLOCK "};
    auto address = [&](std::size_t at) {
        return Lox::IpAddr::fromOctets(&packet[at]).stringValue();
    };
    if (packet[24] == 0x12) return "v1 " + address(28);
    if (packet[24] == 0x16) return "v2 " + address(28);
    if (packet[24] == 0x17) return "leave " + address(28);
    std::string text;
    std::size_t at = 32;
    for (unsigned left = packet[30] * 256u + packet[31]; left > 0; --left) {
        unsigned sources = packet[at + 2] * 256u + packet[at + 3];
        if (!text.empty()) text += ", ";
        text.append(names[packet[at]]).append(address(at + 4));
        for (at += 8; sources > 0; --sources, at += 4) text.append(" ").append(address(at));
    }
    return at == packet.size() ? text : "octets behind the last record";
}

} // namespace Agent
