#include "agent/config/AccessList.h"

#include <algorithm>
#include <bit>

namespace Agent {

bool isDenyAll(Acl::IpRuleConfig const& rule) {
    static constexpr Lox::IpAddrWithFullMask any;
    return rule.action == Acl::Action::deny && rule.filter.source == any &&
           rule.filter.destination == any;
}

std::uint64_t groupCount(Lox::IpAddrWithFullMask range) {
    return std::uint64_t(1) << std::popcount(~range.mask());
}

std::uint64_t groupCount(Acl::IpRuleConfig const& rule) {
    return isDenyAll(rule) ? 0 : groupCount(rule.filter.destination);
}

AccessListConfiguration::AccessListConfiguration(Rules rules) : rules_(std::move(rules)) {
    ranges_.reserve(rules_.size());
    for (auto const& [sequence, rule] : rules_) {
        Lox::IpAddrWithFullMask const groups = rule.filter.destination;
        ranges_.push_back({groups.mask(), groups.address().host() & groups.mask(), sequence});
    }
    std::ranges::sort(ranges_);
    forRanges([this](Lox::IpAddrWithFullMask range) { groups_ += groupCount(range); });
}

AccessListConfiguration::Rules::value_type const*
AccessListConfiguration::ruleAbout(Lox::IpAddr group, std::optional<std::uint32_t> after) const {
    std::optional<std::uint32_t> first;
    for (auto at = ranges_.begin(); at != ranges_.end();) {
        Range const sought{at->mask, group.host() & at->mask, after.value_or(0)};
        at = after ? std::upper_bound(at, ranges_.end(), sought)
                   : std::lower_bound(at, ranges_.end(), sought);
        if (at != ranges_.end() && at->mask == sought.mask && at->fixed == sought.fixed)
            first = std::min(first.value_or(at->sequence), at->sequence);
        at = std::partition_point(at, ranges_.end(),
                                  [&](Range const& range) { return range.mask <= sought.mask; });
    }
    return first ? &*rules_.find(*first) : nullptr;
}

bool AccessListConfiguration::selects(Lox::IpAddrWithFullMask groups) const {
    Range const sought{groups.mask(), groups.address().host() & groups.mask(), 0};
    auto const at = std::ranges::lower_bound(ranges_, sought);
    return at != ranges_.end() && at->mask == sought.mask && at->fixed == sought.fixed;
}

} // namespace Agent
