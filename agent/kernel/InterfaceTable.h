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

/// A kernel interface found by its name.
struct Device {
    int ifindex = 0; ///< 0 for none
    KernelInterface const* kernel = nullptr;
};

/// What keeps an interface from being used, in words: null does not exist. Empty for nothing.
std::string obstacleOf(KernelInterface const* kernel);
/// The same of one that is there, but not in the VRF of that VRF device.
inline std::string noPortOf(std::string const& vrfDevice) { return "is no port of " + vrfDevice; }

/// Where an interface is now, and the namespace to open sockets in.
struct Whereabouts {
    bool followed = false; ///< whether anybody knows
    Device device;
    int namespaceFd = -1;
};

class InterfaceTable {
  public:
    /// By kernel index.
    std::map<int, KernelInterface> const& interfaces() const { return interfaces_; }
    /// Null if there is none. Valid until the table changes.
    KernelInterface const* interface(int ifindex) const;
    /// The interface of that name, valid as long. Where a dump has caught two in the middle of a
    /// change of names, the one with the lower index.
    Device device(std::string_view name) const;

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
