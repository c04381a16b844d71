// What the kernel's messages tell of links and IPv4 addresses, as a plain table.
#pragma once

#include "Lox/EthAddr.h"
#include "Lox/IpAddr.h"

#include <cstdint>
#include <libmnl/libmnl.h>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Agent {

struct KernelAddress {
    Lox::IpAddr local;
    /// The other end of a point-to-point link; elsewhere the same as `local`.
    Lox::IpAddr peer;
    std::uint8_t prefixLength = 0;
    /// RT_SCOPE_ number; RT_SCOPE_UNIVERSE is global.
    std::uint8_t scope = 0;
    bool secondary = false;

    friend bool operator==(KernelAddress const&, KernelAddress const&) = default;
};

struct KernelInterface {
    std::string name;
    /// Zero on links without Ethernet addresses.
    Lox::EthAddr mac;
    /// Octets.
    std::uint32_t mtu = 0;
    /// Set up by the administrator, and its operational state lets packets through (RFC 2863).
    bool up = false;
    /// The interface that this one is a port of, by kernel index; 0 for none.
    int master = 0;
    /// For a VRF device, the number of its routing table; 0 for any other interface.
    std::uint32_t vrfTable = 0;
    /// In the kernel's order, as far as the primary address depends on it.
    std::vector<KernelAddress> addresses;

    /// The source address for packets of our own: the first global one that is not secondary,
    /// failing that the first, or 0.0.0.0.
    Lox::IpAddr primaryAddress() const;

    friend bool operator==(KernelInterface const&, KernelInterface const&) = default;
};

class InterfaceTable {
  public:
    /// By kernel index.
    std::map<int, KernelInterface> const& interfaces() const { return interfaces_; }
    /// The interface of that name, or `interfaces().end()`. Where a dump has caught two in the
    /// middle of a change of names, the one with the lower index.
    std::map<int, KernelInterface>::const_iterator find(std::string_view name) const;

    /// Takes in an rtnetlink message. Returns the index of the interface that it changed, if any.
    /// Messages of other kinds change nothing; for a malformed one throws Nex::ParseException and
    /// stays as it was.
    std::optional<int> readMessage(nlmsghdr const& message);

  private:
    std::optional<int> handleLink(nlmsghdr const& message);
    std::optional<int> handleAddress(nlmsghdr const& message);

    std::map<int, KernelInterface> interfaces_;
    std::set<std::pair<std::string, int>> names_; ///< of these, with their indexes
};

} // namespace Agent
