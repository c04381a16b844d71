// How addresses and ranges of addresses are written in the configuration file.
#pragma once

#include "Lox/IpAddr.h"

#include <optional>
#include <string_view>
#include <sys/socket.h>

namespace Agent {

/// Four numbers in their shortest spelling: whoever writes 010.0.0.1 may mean octal. Nothing for
/// other texts.
std::optional<Lox::IpAddr> parseAddress(std::string_view text);

/// An address, a prefix such as 239.1.1.0/30, an address with a mask such as 239.0.0.1/255.0.0.255
/// (its bits may stand anywhere), or "any", with mask 0. Nothing for other texts.
std::optional<Lox::IpAddrWithFullMask> parseRange(std::string_view text);

/// ADDRESS:PORT with a port from 1 to 65535, an IPv6 address in brackets. Nothing for other texts.
struct SocketAddress {
    sockaddr_storage address;
    socklen_t size;
};
std::optional<SocketAddress> parseSocketAddress(std::string_view text);

/// Whether it holds multicast addresses only.
bool isWhollyMulticast(Lox::IpAddrWithFullMask range);

/// Whether a packet can have the address as its source.
bool isUnicastHost(Lox::IpAddr address);

} // namespace Agent
