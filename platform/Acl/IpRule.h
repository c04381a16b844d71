// A rule of an IP access list as a plain value, for whoever reads or shows rules and needs no
// records. What the rules of a list come to together stands in AclConfig.h.
#pragma once

#include "Lox/IpAddr.h"

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>

namespace Acl {

/// Names one rule of a list for good, in all versions of its configuration: a rule whose content
/// changes gets a new one. What changes under an old one is not noticed, and taken back as it was
/// applied.
class UniqueId {
  public:
    constexpr UniqueId() = default;
    explicit constexpr UniqueId(std::uint64_t number) : number_(number) {}

    constexpr std::uint64_t number() const { return number_; }
    friend constexpr auto operator<=>(UniqueId, UniqueId) = default;

  private:
    std::uint64_t number_ = 0;
};
std::ostream& operator<<(std::ostream&, UniqueId);

enum class Action : std::uint32_t { permit = 0, deny = 1 };
/// "permit", "deny", or the number of an action unknown here.
std::ostream& operator<<(std::ostream&, Action);

/// Which packets a rule is about. The proxy reads the destination as the groups that it selects,
/// and the source as the one address that they are wanted from; 0.0.0.0 is any. A set bit of a mask
/// must match, so a single address has a mask of ones.
///
/// Applied is a rule whose destinations are all multicast addresses and whose source is a single
/// unicast address or any; others are traced and left. Each group of the range costs an entry: a
/// range of 65,536 groups is 65,536 announcements.
struct IpFilter {
    Lox::IpAddrWithFullMask source;
    Lox::IpAddrWithFullMask destination;
    friend constexpr bool operator==(IpFilter const&, IpFilter const&) = default;
};

/// The default value, to permit anything from anywhere, stands for a rule that is not there.
struct IpRuleConfig {
    Action action = Action::permit;
    IpFilter filter;
    friend constexpr bool operator==(IpRuleConfig const&, IpRuleConfig const&) = default;
};

} // namespace Acl

template <>
struct std::hash<Acl::UniqueId> {
    std::size_t operator()(Acl::UniqueId id) const noexcept {
        return std::hash<std::uint64_t>()(id.number());
    }
};
