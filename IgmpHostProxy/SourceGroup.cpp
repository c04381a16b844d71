#include "IgmpHostProxy/SourceGroup.h"

#include "Nex/Error.h"

#include <ostream>

namespace IgmpHostProxy {

namespace {

constexpr std::string_view opening = "Value('IgmpHostProxy::SourceGroup', ** {";
constexpr std::string_view beforeSource = "'sourceAddr': ";
constexpr std::string_view beforeGroup = ", 'groupAddr': ";
constexpr std::string_view closing = "})";

void expect(std::string_view& rest, std::string_view literal) {
    if (!rest.starts_with(literal))
        throw Nex::ParseException("SourceGroup: expected \"" + std::string(literal) + "\" at \"" +
                                  std::string(rest) + "\"");
    rest.remove_prefix(literal.size());
}

Lox::IpAddr parseAddr(std::string_view& rest, char const* attribute) {
    std::string_view const text = rest.substr(0, rest.find_first_not_of("0123456789."));
    try {
        Lox::IpAddr const address(text);
        rest.remove_prefix(text.size());
        return address;
    } catch (Nex::ParseException const& error) {
        throw Nex::ParseException(std::string(attribute) + ": " + error.what());
    }
}

} // namespace

SourceGroup::SourceGroup(std::string_view strep) {
    expect(strep, opening);
    expect(strep, beforeSource);
    sourceAddr = parseAddr(strep, "sourceAddr");
    expect(strep, beforeGroup);
    groupAddr = parseAddr(strep, "groupAddr");
    expect(strep, closing);
    if (!strep.empty())
        throw Nex::ParseException("SourceGroup: unexpected \"" + std::string(strep) + "\"");
}

std::uint32_t SourceGroup::hash() const {
    std::uint8_t octets[8];
    groupAddr.toOctets(octets);
    sourceAddr.toOctets(octets + 4);
    std::uint32_t h = 0;
    for (std::uint8_t octet : octets) {
        h += octet;
        h += h << 10;
        h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}

std::string valueToStrep(SourceGroup const& value) {
    std::string text(opening);
    text.append(beforeSource).append(value.sourceAddr.stringValue());
    text.append(beforeGroup).append(value.groupAddr.stringValue());
    return text.append(closing);
}

SourceGroup strepToValue(std::string_view strep) { return SourceGroup(strep); }

std::ostream& operator<<(std::ostream& out, SourceGroup const& value) {
    return out << valueToStrep(value);
}

} // namespace IgmpHostProxy
