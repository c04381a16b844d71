#include "agent/kernel/InterfaceTable.h"

#include "agent/kernel/Netlink.h"

#include <algorithm>
#include <array>
#include <climits>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace Agent {

namespace {

/// Some drivers leave the operational state unknown; there the carrier decides.
bool usable(unsigned flags, std::uint8_t operationalState) {
    if (!(flags & IFF_UP)) return false;
    return operationalState == IF_OPER_UP ||
           (operationalState == IF_OPER_UNKNOWN && (flags & IFF_LOWER_UP));
}

Lox::EthAddr macAddress(std::span<std::uint8_t const> octets) {
    std::array<std::uint8_t, 6> mac{};
    if (octets.size() == mac.size()) std::copy(octets.begin(), octets.end(), mac.begin());
    return Lox::EthAddr(mac);
}

/// 0 for a link that is no VRF device.
std::uint32_t vrfTable(NetlinkAttributes const& link) {
    NetlinkAttributes const info = link.nested(IFLA_LINKINFO);
    if (info.text(IFLA_INFO_KIND).value_or("") != "vrf") return 0;
    return info.nested(IFLA_INFO_DATA).u32(IFLA_VRF_TABLE).value_or(0);
}

std::optional<Lox::IpAddr> ipAddress(std::span<std::uint8_t const> octets) {
    if (octets.empty()) return std::nullopt;
    if (octets.size() != 4) throw Nex::ParseException("IPv4 address of the wrong length");
    return Lox::IpAddr::fromOctets(octets.data());
}

KernelAddress toAddress(ifaddrmsg const& header, NetlinkAttributes const& attributes) {
    auto const peer = ipAddress(attributes.octets(IFA_ADDRESS));
    auto const local = ipAddress(attributes.octets(IFA_LOCAL));
    if (!peer && !local) throw Nex::ParseException("address message without an address");
    unsigned const flags = attributes.u32(IFA_FLAGS).value_or(header.ifa_flags);
    return {local ? *local : *peer, peer ? *peer : *local, header.ifa_prefixlen, header.ifa_scope,
            (flags & IFA_F_SECONDARY) != 0};
}

/// What tells one address of an interface from another.
bool sameAddress(KernelAddress const& a, KernelAddress const& b) {
    return a.local == b.local && a.peer == b.peer && a.prefixLength == b.prefixLength;
}

} // namespace

Lox::IpAddr KernelInterface::primaryAddress() const {
    if (addresses.empty()) return {};
    auto const primary = std::find_if(addresses.begin(), addresses.end(), [](auto const& a) {
        return !a.secondary && a.scope == RT_SCOPE_UNIVERSE;
    });
    return (primary == addresses.end() ? addresses.front() : *primary).local;
}

std::string obstacleOf(KernelInterface const* kernel) {
    if (!kernel) return "does not exist";
    if (!kernel->up) return "is down";
    return kernel->primaryAddress().isZero() ? "has no IPv4 address" : "";
}

KernelInterface const* InterfaceTable::interface(int ifindex) const {
    auto const found = interfaces_.find(ifindex);
    return found == interfaces_.end() ? nullptr : &found->second;
}

Device InterfaceTable::device(std::string_view name) const {
    auto const at = names_.lower_bound({std::string(name), INT_MIN});
    if (at == names_.end() || at->first != name) return {};
    return {at->second, interface(at->second)};
}

std::optional<int> InterfaceTable::readMessage(nlmsghdr const& message) {
    switch (message.nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
        return handleLink(message);
    case RTM_NEWADDR:
    case RTM_DELADDR:
        return handleAddress(message);
    default:
        return std::nullopt;
    }
}

std::optional<int> InterfaceTable::handleLink(nlmsghdr const& message) {
    NetlinkAttributes const attributes(message, sizeof(ifinfomsg));
    auto const& header = *static_cast<ifinfomsg const*>(mnl_nlmsg_get_payload(&message));
    // A bridge tells of its ports in messages of the same type, and "deletes" one that leaves.
    if (header.ifi_family != AF_UNSPEC) return std::nullopt;
    auto at = interfaces_.find(header.ifi_index);
    if (message.nlmsg_type == RTM_DELLINK) {
        if (at == interfaces_.end()) return std::nullopt;
        names_.erase({at->second.name, header.ifi_index});
        interfaces_.erase(at);
        return header.ifi_index;
    }

    // Without a name it is an event of a driver (wireless scans), which tells no state.
    auto const name = attributes.text(IFLA_IFNAME);
    if (!name || name->empty()) return std::nullopt;
    auto const operationalState = attributes.u8(IFLA_OPERSTATE).value_or(IF_OPER_UNKNOWN);
    KernelInterface link{std::string(*name),
                         macAddress(attributes.octets(IFLA_ADDRESS)),
                         attributes.u32(IFLA_MTU).value_or(0),
                         usable(header.ifi_flags, operationalState),
                         int(attributes.u32(IFLA_MASTER).value_or(0)),
                         vrfTable(attributes),
                         {}};
    if (at != interfaces_.end()) link.addresses = at->second.addresses;
    if (at != interfaces_.end() && link == at->second) return std::nullopt;
    // What needs memory comes first: an interface never stands without its name.
    names_.emplace(link.name, header.ifi_index);
    if (at == interfaces_.end()) at = interfaces_.try_emplace(header.ifi_index).first;
    if (!at->second.name.empty() && at->second.name != link.name)
        names_.erase({at->second.name, header.ifi_index});
    at->second = std::move(link);
    return header.ifi_index;
}

std::optional<int> InterfaceTable::handleAddress(nlmsghdr const& message) {
    NetlinkAttributes const attributes(message, sizeof(ifaddrmsg));
    auto const& header = *static_cast<ifaddrmsg const*>(mnl_nlmsg_get_payload(&message));
    auto const link = interfaces_.find(int(header.ifa_index));
    if (header.ifa_family != AF_INET || link == interfaces_.end()) return std::nullopt;
    KernelAddress const address = toAddress(header, attributes);
    auto& addresses = link->second.addresses;
    auto const known = std::find_if(addresses.begin(), addresses.end(),
                                    [&](auto const& a) { return sameAddress(a, address); });
    if (message.nlmsg_type == RTM_DELADDR) {
        if (known == addresses.end()) return std::nullopt;
        addresses.erase(known);
        return link->first;
    }
    if (known != addresses.end() && *known == address) return std::nullopt;
    // A secondary address that is promoted goes behind the primary ones.
    if (known != addresses.end()) addresses.erase(known);
    addresses.push_back(address);
    return link->first;
}

} // namespace Agent
