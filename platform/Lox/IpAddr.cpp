#include "Lox/IpAddr.h"

#include "Nex/Error.h"

#include <charconv>
#include <ostream>

namespace Lox {

IpAddr::IpAddr(std::string_view dotted) {
    char const* at = dotted.data();
    char const* const end = at + dotted.size();
    for (int i = 0; i < 4; ++i) {
        std::uint8_t octet = 0;
        auto const [next, error] = std::from_chars(at, end, octet);
        bool const last = i == 3;
        if (error != std::errc() || next - at > 3 || (next == end) != last ||
            (!last && *next != '.'))
            throw Nex::ParseException("not an IPv4 address: " + std::string(dotted));
        hostOrder_ = hostOrder_ << 8 | octet;
        at = last ? next : next + 1;
    }
}

std::string IpAddr::stringValue() const {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        text += std::to_string(hostOrder_ >> shift & 0xFF);
        if (shift != 0) text += '.';
    }
    return text;
}

std::ostream& operator<<(std::ostream& out, IpAddr a) { return out << a.stringValue(); }

std::ostream& operator<<(std::ostream& out, IpAddrWithFullMask a) {
    return out << a.address() << '/' << IpAddr::fromHost(a.mask());
}

std::ostream& operator<<(std::ostream& out, IpPrefix p) {
    return out << p.address() << '/' << unsigned(p.length());
}

} // namespace Lox
