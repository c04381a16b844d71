// IPv4 addresses, masks and prefixes as plain values. Order and hash are those of the number in
// host order, so addresses that follow each other stay neighbours in maps.
//
// Numbers in host order everywhere; network order only in octets that come from a packet or go into
// one. Nothing here normalises: what is equal is equal bit by bit, as it was written.
#pragma once

#include <bit>
#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Lox {

class IpAddr {
  public:
    /// 0.0.0.0: any source, or no address.
    constexpr IpAddr() = default;
    /// From dotted form. Throws Nex::ParseException for anything but four numbers 0 to 255, without
    /// blanks around them, of three digits at most. They are decimal, leading zeros or not.
    explicit IpAddr(std::string_view dotted);

    static constexpr IpAddr fromHost(std::uint32_t hostOrder) { return IpAddr(hostOrder); }
    /// From four octets as they stand in a packet: network order, anywhere in memory.
    static constexpr IpAddr fromOctets(std::uint8_t const* octets) {
        return IpAddr(std::uint32_t(octets[0]) << 24 | std::uint32_t(octets[1]) << 16 |
                      std::uint32_t(octets[2]) << 8 | octets[3]);
    }
    constexpr std::uint32_t host() const { return hostOrder_; }
    /// Writes four octets, in network order.
    constexpr void toOctets(std::uint8_t* octets) const {
        for (int i = 0; i < 4; ++i) octets[i] = std::uint8_t(hostOrder_ >> (24 - 8 * i));
    }

    constexpr bool isZero() const { return hostOrder_ == 0; }
    /// 224.0.0.0/4 (RFC 1112, 4), those of the link's own, 224.0.0.0/24, included.
    constexpr bool isMulticast() const { return hostOrder_ >> 28 == 0xE; }
    /// 232.0.0.0/8, for source-specific multicast (RFC 4607).
    constexpr bool isSourceSpecific() const { return hostOrder_ >> 24 == 232; }
    /// Dotted, without leading zeros; the constructor reads it back.
    std::string stringValue() const;

    friend constexpr auto operator<=>(IpAddr, IpAddr) = default;

  private:
    explicit constexpr IpAddr(std::uint32_t hostOrder) : hostOrder_(hostOrder) {}

    std::uint32_t hostOrder_ = 0;
};

std::ostream& operator<<(std::ostream&, IpAddr);

/// An address with a mask whose bits may stand anywhere, as access lists use it. The address keeps
/// the bits outside the mask: two ranges of the same addresses may differ, and a default value is
/// the range of all addresses.
class IpAddrWithFullMask {
  public:
    constexpr IpAddrWithFullMask() = default;
    /// `mask` in host order: a set bit must match.
    constexpr IpAddrWithFullMask(IpAddr address, std::uint32_t mask)
        : address_(address), mask_(mask) {}

    constexpr IpAddr address() const { return address_; }
    constexpr std::uint32_t mask() const { return mask_; }

    // The addresses that match: 2^(bits not set) of them, at least one and at most 2^32. Between
    // the lowest and the highest others may lie, where the mask has holes.
    constexpr bool has(IpAddr address) const {
        return ((address.host() ^ address_.host()) & mask_) == 0;
    }
    constexpr IpAddr lowest() const { return IpAddr::fromHost(address_.host() & mask_); }
    constexpr IpAddr highest() const { return IpAddr::fromHost(address_.host() | ~mask_); }
    constexpr std::uint64_t size() const { return std::uint64_t(1) << std::popcount(~mask_); }

    friend constexpr auto operator<=>(IpAddrWithFullMask, IpAddrWithFullMask) = default;

  private:
    IpAddr address_;
    std::uint32_t mask_ = 0;
};

/// Address and mask in dotted form: 239.1.1.0/255.255.255.0.
std::ostream& operator<<(std::ostream&, IpAddrWithFullMask);

/// An address prefix of a route key; `length` is 0 to 32 bits, which nobody checks, and the address
/// may have bits behind them.
class IpPrefix {
  public:
    constexpr IpPrefix() = default;
    constexpr IpPrefix(IpAddr address, std::uint8_t length) : address_(address), length_(length) {}

    constexpr IpAddr address() const { return address_; }
    constexpr std::uint8_t length() const { return length_; }

    friend constexpr auto operator<=>(IpPrefix, IpPrefix) = default;

  private:
    IpAddr address_;
    std::uint8_t length_ = 0;
};

std::ostream& operator<<(std::ostream&, IpPrefix);

} // namespace Lox

template <>
struct std::hash<Lox::IpAddr> {
    std::size_t operator()(Lox::IpAddr a) const noexcept { return a.host(); }
};
