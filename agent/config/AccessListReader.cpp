#include "agent/config/AccessListReader.h"

#include "agent/config/AddressText.h"
#include "agent/config/TomlSection.h"

#include <algorithm>
#include <bit>
#include <fmt/format.h>
#include <utility>

namespace Agent {

namespace {

bool isAny(Lox::IpAddrWithFullMask range) { return range == Lox::IpAddrWithFullMask(); }

bool isDenyAll(Acl::IpRuleConfig const& rule) {
    return rule.action == Acl::Action::deny && isAny(rule.filter.source) &&
           isAny(rule.filter.destination);
}

/// Reads one rule.
class RuleReader {
  public:
    RuleReader(TomlSection const& section, Diagnostics& diagnostics)
        : section_(section), diagnostics_(diagnostics) {}

    std::optional<Acl::IpRuleConfig> read() const {
        auto const action = readAction();
        auto const source = readSource();
        auto const destination = section_.text("destination");
        if (!destination) return std::nullopt;
        auto const range = parseRange(destination->value);
        if (!range)
            reportFound(*destination, "a group, a prefix, an address with a mask, or \"any\"",
                        diagnostics_);
        if (!action || !source || !range) return std::nullopt;
        Acl::IpRuleConfig const rule{*action, {*source, *range}};
        if (isDenyAll(rule) || isWhollyMulticast(*range)) return rule;
        reportFound(*destination,
                    "multicast addresses only (and \"any\" only to deny it to source \"any\")",
                    diagnostics_);
        return std::nullopt;
    }

  private:
    std::optional<Acl::Action> readAction() const {
        auto const text = section_.text("action");
        if (!text) return std::nullopt;
        if (text->value == "permit") return Acl::Action::permit;
        if (text->value == "deny") return Acl::Action::deny;
        reportFound(*text, "\"permit\" or \"deny\"", diagnostics_);
        return std::nullopt;
    }

    std::optional<Lox::IpAddrWithFullMask> readSource() const {
        auto const text = section_.text("source");
        if (!text) return std::nullopt;
        auto const range = parseRange(text->value);
        bool const one = range && range->mask() == ~0u && isUnicastHost(range->address());
        if (one || text->value == "any") return range;
        reportFound(*text, "one unicast address, or \"any\"", diagnostics_);
        return std::nullopt;
    }

    TomlSection const& section_;
    Diagnostics& diagnostics_;
};

} // namespace

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

AccessListConfiguration readAccessList(std::vector<TomlSection> const& rules, bool attached,
                                       Diagnostics& diagnostics) {
    AccessListConfiguration::Rules list;
    for (TomlSection const& section : rules) {
        section.checkKeys();
        auto const sequence = section.givenInteger("sequence");
        auto const rule = RuleReader(section, diagnostics).read();
        if (!sequence || !rule) continue;
        AccessListRule const placed{*rule, Line(section.position())};
        if (!list.emplace(std::uint32_t(*sequence), placed).second) {
            diagnostics.addError(
                section.positionOf("sequence"),
                fmt::format("{} is the sequence number of two rules, expected each "
                            "once",
                            *sequence));
            continue;
        }
        if (!attached) continue;
        diagnostics.addInfo(section.positionOf("destination"),
                            isDenyAll(*rule)
                                ? "shuts out the groups of the forwarding table"
                                : fmt::format("selects {}", countText(groupCount(*rule), "group")));
    }
    return AccessListConfiguration(std::move(list));
}

} // namespace Agent
