#include "Lox/EthAddr.h"

#include <ostream>

namespace Lox {

std::string EthAddr::stringValue() const {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::uint8_t octet : octets_) {
        if (!text.empty()) text += ':';
        text += digits[octet >> 4];
        text += digits[octet & 0xF];
    }
    return text;
}

std::ostream& operator<<(std::ostream& out, EthAddr const& a) { return out << a.stringValue(); }

} // namespace Lox
