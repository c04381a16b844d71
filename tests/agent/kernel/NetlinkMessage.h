// Kernel messages for tests of what reads them.
#pragma once

#include "Lox/IpAddr.h"

#include <cstdint>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <string_view>
#include <sys/socket.h>

namespace Agent {

/// An rtnetlink message under construction.
class NetlinkMessage {
  public:
    template <typename Header>
    NetlinkMessage(std::uint16_t type, Header const& header) {
        mnl_nlmsg_put_header(bytes_);
        message()->nlmsg_type = type;
        std::memcpy(mnl_nlmsg_put_extra_header(message(), sizeof header), &header, sizeof header);
    }
    NetlinkMessage& with(std::uint16_t type, std::size_t size, void const* data) {
        mnl_attr_put(message(), type, size, data);
        return *this;
    }
    NetlinkMessage& with(std::uint16_t type, Lox::IpAddr address) {
        std::uint8_t octets[4];
        address.toOctets(octets);
        return with(type, sizeof octets, octets);
    }
    NetlinkMessage& with(std::uint16_t type, std::string_view text) {
        return with(type, text.size() + 1, text.data());
    }
    NetlinkMessage& with(std::uint16_t type, std::uint32_t number) {
        return with(type, sizeof number, &number);
    }

    nlmsghdr const& get() const { return *reinterpret_cast<nlmsghdr const*>(bytes_); }

  private:
    nlmsghdr* message() { return reinterpret_cast<nlmsghdr*>(bytes_); }

    alignas(nlmsghdr) char bytes_[512] = {};
};

inline NetlinkMessage linkMessage(std::uint16_t type, int ifindex, char const* name,
                                  unsigned flags = IFF_UP | IFF_LOWER_UP, unsigned master = 0) {
    ifinfomsg header{};
    header.ifi_index = ifindex;
    header.ifi_flags = flags;
    return NetlinkMessage(type, header).with(IFLA_IFNAME, name).with(IFLA_MASTER, master);
}

/// Of the interface with the index 7.
inline NetlinkMessage addressMessage(std::uint16_t type, char const* address,
                                     std::uint32_t flags = 0,
                                     std::uint8_t scope = RT_SCOPE_UNIVERSE) {
    ifaddrmsg header{};
    header.ifa_family = AF_INET;
    header.ifa_scope = scope;
    header.ifa_index = 7;
    NetlinkMessage message(type, header);
    return message.with(IFA_ADDRESS, Lox::IpAddr(address)).with(IFA_FLAGS, flags);
}

} // namespace Agent
