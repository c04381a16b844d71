#include "agent/config/AddressText.h"

#include "Nex/Error.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstdint>
#include <netinet/in.h>
#include <string>

namespace Agent {

namespace {

/// The mask of a prefix length 0 to 32.
std::optional<std::uint32_t> parseLength(std::string_view text) {
    unsigned length = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
    if (error != std::errc() || end != text.data() + text.size() || length > 32)
        return std::nullopt;
    return length == 0 ? 0 : ~std::uint32_t(0) << (32 - length);
}

} // namespace

std::optional<Lox::IpAddr> parseAddress(std::string_view text) {
    try {
        Lox::IpAddr const address(text);
        if (address.stringValue() == text) return address;
    } catch (Nex::ParseException const&) {
    }
    return std::nullopt;
}

std::optional<Lox::IpAddrWithFullMask> parseRange(std::string_view text) {
    if (text == "any") return Lox::IpAddrWithFullMask();
    auto const slash = text.find('/');
    auto const address = parseAddress(text.substr(0, slash));
    if (!address) return std::nullopt;
    if (slash == std::string_view::npos) return Lox::IpAddrWithFullMask(*address, ~0u);
    auto const behind = text.substr(slash + 1);
    if (auto const mask = parseAddress(behind))
        return Lox::IpAddrWithFullMask(*address, mask->host());
    if (auto const mask = parseLength(behind)) return Lox::IpAddrWithFullMask(*address, *mask);
    return std::nullopt;
}

std::optional<SocketAddress> parseSocketAddress(std::string_view text) {
    auto const colon = text.rfind(':');
    if (colon == std::string_view::npos) return std::nullopt;
    std::string_view const digits = text.substr(colon + 1);
    std::uint16_t port = 0;
    auto const [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    if (error != std::errc() || end != digits.data() + digits.size() || port == 0)
        return std::nullopt;
    std::string host(text.substr(0, colon));
    SocketAddress found{};
    if (host.starts_with('[') && host.ends_with(']')) {
        auto& to = reinterpret_cast<sockaddr_in6&>(found.address);
        to.sin6_family = AF_INET6;
        to.sin6_port = htons(port);
        found.size = sizeof to;
        host = host.substr(1, host.size() - 2);
        if (inet_pton(AF_INET6, host.c_str(), &to.sin6_addr) != 1) return std::nullopt;
    } else {
        auto& to = reinterpret_cast<sockaddr_in&>(found.address);
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        found.size = sizeof to;
        if (inet_pton(AF_INET, host.c_str(), &to.sin_addr) != 1) return std::nullopt;
    }
    return found;
}

bool isWhollyMulticast(Lox::IpAddrWithFullMask range) {
    std::uint32_t const address = range.address().host();
    return Lox::IpAddr::fromHost(address & range.mask()).isMulticast() &&
           Lox::IpAddr::fromHost(address | ~range.mask()).isMulticast();
}

bool isUnicastHost(Lox::IpAddr address) {
    std::uint32_t const network = address.host() >> 24;
    return network >= 1 && network < 224 && network != 127;
}

} // namespace Agent
