// The pair (source, group), key of the reference counter. As arguments the source comes first; in
// the order and in the hash the group does.
#pragma once

#include "Lox/IpAddr.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace IgmpHostProxy {

struct SourceGroup {
    Lox::IpAddr sourceAddr; ///< 0.0.0.0 for any source
    Lox::IpAddr groupAddr;

    SourceGroup() = default;
    SourceGroup(Lox::IpAddr source, Lox::IpAddr group) : sourceAddr(source), groupAddr(group) {}
    /// From the text form, to the letter, with nothing before or behind it. Throws
    /// Nex::ParseException, naming the attribute that did not parse.
    explicit SourceGroup(std::string_view strep);

    /// One-at-a-time over the octets of the group, then of the source, in network order. The same
    /// on all machines, and without a secret.
    std::uint32_t hash() const;

    friend bool operator==(SourceGroup const&, SourceGroup const&) = default;
    /// By group, then by source: the sources of one group stand together.
    friend std::strong_ordering operator<=>(SourceGroup const& a, SourceGroup const& b) {
        if (auto const order = a.groupAddr <=> b.groupAddr; order != 0) return order;
        return a.sourceAddr <=> b.sourceAddr;
    }
};

/// Value('IgmpHostProxy::SourceGroup', ** {'sourceAddr': 10.0.0.1, 'groupAddr': 239.1.1.1})
/// Also what `operator<<` writes, and traces show.
std::string valueToStrep(SourceGroup const& value);
/// As the constructor.
SourceGroup strepToValue(std::string_view strep);
std::ostream& operator<<(std::ostream&, SourceGroup const&);

} // namespace IgmpHostProxy

template <>
struct std::hash<IgmpHostProxy::SourceGroup> {
    std::size_t operator()(IgmpHostProxy::SourceGroup const& value) const noexcept {
        return value.hash();
    }
};
