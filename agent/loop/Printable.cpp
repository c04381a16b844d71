#include "agent/loop/Printable.h"

namespace Agent {

std::string printable(std::string_view text) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string shown;
    shown.reserve(text.size());
    for (char const c : text) {
        auto const byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7f) {
            shown += c;
            continue;
        }
        shown += "\\x";
        shown += digits[byte >> 4];
        shown += digits[byte & 0xF];
    }
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
