// Ethernet (MAC) addresses, as plain values.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string>

namespace Lox {

class EthAddr {
  public:
    /// 00:00:00:00:00:00: none known.
    constexpr EthAddr() = default;
    explicit constexpr EthAddr(std::array<std::uint8_t, 6> octets) : octets_(octets) {}

    /// As they go over the wire, the first one first.
    constexpr std::array<std::uint8_t, 6> const& octets() const { return octets_; }
    /// Six hexadecimal numbers with colons, in lower case.
    std::string stringValue() const;

    friend constexpr auto operator<=>(EthAddr const&, EthAddr const&) = default;

  private:
    std::array<std::uint8_t, 6> octets_{};
};

std::ostream& operator<<(std::ostream&, EthAddr const&);

} // namespace Lox
