#include "agent/loop/Printable.h"

namespace Agent {

PrintableByte::PrintableByte(char byte) {
    static constexpr char digits[] = "0123456789abcdef";
    auto const value = static_cast<unsigned char>(byte);
    bool const printable = value >= 0x20 && value < 0x7f;
    octets_[0] = printable ? byte : '\\';
    octets_[1] = 'x';
    octets_[2] = digits[value >> 4];
    octets_[3] = digits[value & 0xF];
    size_ = printable ? 1 : sizeof octets_;
}

std::string printable(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    for (char const byte : text) shown += PrintableByte(byte).text();
    return shown;
}

std::string inQuotes(std::string_view text) {
    static constexpr std::size_t longest = 64;
    std::string shown = "\"";
    shown += printable(text.substr(0, longest));
    shown += text.size() > longest ? "...\"" : "\"";
    return shown;
}

} // namespace Agent
