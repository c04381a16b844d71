// IP access lists as the operator configured them.
//
// Whoever writes a rule fills `ipRuleById` before `ruleBySequence` and empties them in the reverse
// order: a reader that is told of a sequence number finds its rule.
#pragma once

#include "Lox/IpAddr.h"
#include "Nex/Record.h"

namespace Acl {

/// Names one rule of a list for good: a rule whose content changes gets a new one.
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
/// and the source as the one address that they are wanted from; 0.0.0.0 is any.
struct IpFilter {
    Lox::IpAddrWithFullMask source;
    Lox::IpAddrWithFullMask destination;
    friend constexpr bool operator==(IpFilter const&, IpFilter const&) = default;
};

struct IpRuleConfig {
    Action action = Action::permit;
    IpFilter filter;
    friend constexpr bool operator==(IpRuleConfig const&, IpRuleConfig const&) = default;
};

#define ACL_SUB_CONFIG(ATTR, SET, MAP, RECORDS)                                                    \
    MAP(std::uint32_t, UniqueId, ruleBySequence, RuleBySequence)                                   \
    MAP(UniqueId, IpRuleConfig, ipRuleById, IpRuleById)

/// One version of a list's rules. The proxy looks again at each change of `ruleBySequence`; changes
/// of `ipRuleById` alone it does not notice.
class AclSubConfig : public Nex::RecordBase {
    NEX_RECORD(AclSubConfig, Nex::Name, name, ACL_SUB_CONFIG)
};
#undef ACL_SUB_CONFIG

#define ACL_CONFIG(ATTR, SET, MAP, RECORDS)                                                        \
    ATTR(Nex::Ptr<AclSubConfig>, currCfg, CurrCfg) /* the rules in force, or null */

class AclConfig : public Nex::RecordBase {
    NEX_RECORD(AclConfig, Nex::Name, name, ACL_CONFIG)
};
#undef ACL_CONFIG

#define ACL_TYPE_CONFIG(ATTR, SET, MAP, RECORDS) RECORDS(Nex::Name, AclConfig, acl, Acl)

/// All access lists of one type, here IP.
class AclTypeConfig : public Nex::RecordBase {
    NEX_RECORD(AclTypeConfig, Nex::Name, name, ACL_TYPE_CONFIG)
};
#undef ACL_TYPE_CONFIG

} // namespace Acl

template <>
struct std::hash<Acl::UniqueId> {
    std::size_t operator()(Acl::UniqueId id) const noexcept {
        return std::hash<std::uint64_t>()(id.number());
    }
};
