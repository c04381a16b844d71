// Kernel messages for tests of what reads them.
#pragma once

#include "Lox/IpAddr.h"

#include <cstdint>
#include <cstring>
#include <libmnl/libmnl.h>
#include <string_view>

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

} // namespace Agent
