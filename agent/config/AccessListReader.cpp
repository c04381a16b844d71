#include "agent/config/AccessListReader.h"

#include "agent/config/AddressText.h"
#include "agent/config/TomlSection.h"

#include <fmt/format.h>
#include <optional>
#include <utility>

namespace Agent {

namespace {

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
