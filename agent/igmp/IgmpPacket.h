// IGMP messages and the IPv4 packets around them, bytes to plain values and back. Knows no socket
// and no state. Formats: RFC 9776, 4 (version 3), RFC 2236, 2 (version 2), RFC 1112, appendix I.
#pragma once

#include "Lox/IpAddr.h"
#include "agent/igmp/GroupRecord.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace Agent {

enum class IgmpType : std::uint8_t {
    query = 0x11,
    v1Report = 0x12,
    v2Report = 0x16,
    v2Leave = 0x17,
    v3Report = 0x22,
};

/// Why a received packet was not used. Types that nobody knows are no fault (RFC 9776, 4).
#define AGENT_DROP_REASONS(REASON)                                                                 \
    REASON(otherProtocol)    /* not IPv4, or not IGMP inside */                                    \
    REASON(fragment)         /* a part of a packet */                                              \
    REASON(badLength)        /* a length that the packet does not bear out */                      \
    REASON(badChecksum)      /* of the IPv4 header or of the message */                            \
    REASON(badGroup)         /* sources without a group, or a group that is not multicast */       \
    REASON(ownPacket)        /* sent from our own address */                                       \
    REASON(strayDestination) /* a query not sent to us, a report not sent to its group */          \
    REASON(noRouterAlert)    /* and the settings insist on it */

#define AGENT_ENUMERATOR(name) name,
enum class DropReason : std::uint8_t { AGENT_DROP_REASONS(AGENT_ENUMERATOR) count };
#undef AGENT_ENUMERATOR

inline constexpr Lox::IpAddr allSystems = Lox::IpAddr::fromHost(0xE0000001);   // 224.0.0.1
inline constexpr Lox::IpAddr allRouters = Lox::IpAddr::fromHost(0xE0000002);   // 224.0.0.2
inline constexpr Lox::IpAddr allV3Routers = Lox::IpAddr::fromHost(0xE0000016); // 224.0.0.22

/// An IGMP message as it arrived, with what the IPv4 header says about it.
struct IgmpDatagram {
    Lox::IpAddr source;
    Lox::IpAddr destination;
    std::uint8_t ttl;
    bool routerAlert;                      ///< the option of RFC 2113 is there
    IgmpType type;                         ///< any octet: types that are not named above occur
    std::span<std::uint8_t const> payload; ///< at least 8 octets of the bytes given to decode()

    /// From a whole IPv4 packet, which may have octets behind its end (Ethernet padding). Lengths
    /// and both checksums hold. Nothing, with the reason, for what cannot be used.
    static std::optional<IgmpDatagram> decode(std::span<std::uint8_t const> packet,
                                              DropReason& reason);
    /// The group field of a version 1 or 2 message.
    Lox::IpAddr group() const;
};

/// A membership query of any version. The S flag and the querier's interval are for routers alone
/// and are not read.
struct IgmpQuery {
    unsigned wireVersion = 3;         ///< 1 to 3, told by length and code (RFC 9776, 7.1)
    unsigned version = 3;             ///< as the host reads it
    std::uint8_t maxRespCode = 0;     ///< octet 1 as it stands; see codedValue()
    std::uint8_t robustness = 0;      ///< QRV; 0: none told, or over 7
    Lox::IpAddr group;                ///< zero: general
    std::vector<Lox::IpAddr> sources; ///< in the order of the packet; not for older hosts

    /// Version 1 asks about all groups, whatever its group field says (RFC 1112, appendix I).
    bool isGeneral() const { return version == 1 || group.isZero(); }
    /// From the payload of a datagram of type query. A host of version 1 or 2 reads the first 8
    /// octets alone, and sees version 1 or 2 in them (RFC 2236, 2.5 and 4).
    static std::optional<IgmpQuery> decode(std::span<std::uint8_t const> payload,
                                           unsigned hostVersion, DropReason& reason);
};

/// The number of tenths of seconds behind a version 3 Max Resp Code: itself below 128, else a
/// four-bit mantissa and a three-bit exponent, up to 31744 (RFC 9776, 4.1.1).
constexpr unsigned codedValue(std::uint8_t code) {
    return code < 128 ? code : ((code & 0x0Fu) | 0x10u) << ((code >> 4 & 0x07u) + 3);
}

/// The IPv4 header of every packet sent: 20 octets and Router Alert (RFC 9776, 4).
inline constexpr std::size_t ipHeaderOctets = 24;
/// A version 1 or 2 message, and what precedes the records of a version 3 report.
inline constexpr std::size_t messageOctets = 8;

/// Gives a packet of ours another source.
void setSource(std::span<std::uint8_t> packet, Lox::IpAddr source);
/// The Internet checksum (RFC 1071) of any number of octets: zero over bytes that hold a right one.
std::uint16_t checksum(std::span<std::uint8_t const> bytes);

/// A whole packet with a version 1 or 2 report or a leave; its destination follows from the type.
std::array<std::uint8_t, ipHeaderOctets + messageOctets>
encodeMessage(IgmpType type, Lox::IpAddr source, Lox::IpAddr group);

/// Writes `record` into its octets() bytes.
void encodeRecord(GroupRecord const& record, std::span<std::uint8_t> bytes);

/// Completes a version 3 report: `packet` has `records` encoded records behind the room for the
/// headers, which this writes, with both checksums.
void encodeReport(std::span<std::uint8_t> packet, Lox::IpAddr source, unsigned records);

} // namespace Agent
