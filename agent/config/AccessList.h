// An access list as a plain value: its rules as they stand in the configuration file
// (AccessListReader.h), and what they come to together.
#pragma once

#include "Acl/IpRule.h"
#include "agent/config/Diagnostic.h"

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

namespace Agent {

/// Whether it is the rule "deny any any", which asks for no group and instead shuts out those of
/// the forwarding table.
bool isDenyAll(Acl::IpRuleConfig const& rule);

/// How many groups a valid rule asks for; 0 for "deny any any".
std::uint64_t groupCount(Acl::IpRuleConfig const& rule);
/// How many addresses the range holds.
std::uint64_t groupCount(Lox::IpAddrWithFullMask range);

/// A rule, and where it stands.
struct AccessListRule : Acl::IpRuleConfig {
    Line line = {};
    friend bool operator==(AccessListRule const&, AccessListRule const&) = default;
};

/// The rules of one list. They never change, so that the rules about a group are found in a sorted
/// array, 12 octets for each, by one search for each mask that the rules have. Those are few.
class AccessListConfiguration {
  public:
    /// By sequence number.
    using Rules = std::map<std::uint32_t, AccessListRule>;

    AccessListConfiguration() = default;
    explicit AccessListConfiguration(Rules rules);

    Rules const& rules() const { return rules_; }
    /// The first rule about the group, or the first one behind that sequence number: the rule "deny
    /// any any" is about every group. Null for none.
    Rules::value_type const* ruleAbout(Lox::IpAddr group,
                                       std::optional<std::uint32_t> after = {}) const;
    /// Calls `visit` once for each range of groups that rules ask for, however many do.
    template <class Visit>
    void forRanges(Visit visit) const {
        Range const* before = nullptr;
        for (Range const& range : ranges_) {
            bool const same = before && before->mask == range.mask && before->fixed == range.fixed;
            if (range.mask != 0 && !same)
                visit(Lox::IpAddrWithFullMask(Lox::IpAddr::fromHost(range.fixed), range.mask));
            before = &range;
        }
    }
    /// How many groups those are.
    std::uint64_t groups() const { return groups_; }
    /// Whether a rule asks for exactly these groups.
    bool selects(Lox::IpAddrWithFullMask groups) const;
    /// Whether it holds the rule "deny any any".
    bool deniesAll() const { return !ranges_.empty() && ranges_.front().mask == 0; }

    friend bool operator==(AccessListConfiguration const& a, AccessListConfiguration const& b) {
        return a.rules_ == b.rules_;
    }

  private:
    struct Range {
        std::uint32_t mask;  ///< in host order
        std::uint32_t fixed; ///< the bits of its groups under the mask
        std::uint32_t sequence;
        friend auto operator<=>(Range const&, Range const&) = default;
    };

    Rules rules_;
    std::vector<Range> ranges_; ///< of all rules, in their order; mask 0 for "deny any any"
    std::uint64_t groups_ = 0;
};

} // namespace Agent
