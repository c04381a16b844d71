#include "agent/records/AccessListWriter.h"

#include <set>
#include <tuple>
#include <unordered_set>
#include <vector>

namespace Agent {

namespace {

/// A rule's content, in an order of its own.
using Content = std::tuple<Acl::Action, Lox::IpAddrWithFullMask, Lox::IpAddrWithFullMask>;

Content contentOf(Acl::IpRuleConfig const& rule) {
    return {rule.action, rule.filter.source, rule.filter.destination};
}

/// The addresses of the destinations that select groups, by their masks.
template <class Rules>
std::map<std::uint32_t, std::vector<std::uint32_t>> selections(Rules const& rules) {
    std::map<std::uint32_t, std::vector<std::uint32_t>> byMask;
    for (auto const& [sequence, rule] : rules)
        if (Lox::IpAddrWithFullMask const range = rule.rule.filter.destination;
            groupCount(rule.rule) > 0)
            byMask[range.mask()].push_back(range.address().host());
    return byMask;
}

/// Whether a rule of each selects the same group. Lists are long, their masks are few.
template <class Rules>
bool overlap(Rules const& one, Rules const& other) {
    auto const selectedByOther = selections(other);
    for (auto const& [mask, addresses] : selections(one)) {
        for (auto const& [otherMask, otherAddresses] : selectedByOther) {
            std::uint32_t const common = mask & otherMask;
            std::unordered_set<std::uint32_t> prefixes;
            for (std::uint32_t const address : addresses) prefixes.insert(address & common);
            for (std::uint32_t const address : otherAddresses)
                if (prefixes.contains(address & common)) return true;
        }
    }
    return false;
}

} // namespace

bool AccessListWriter::applyLists(Lists const& lists) {
    bool lost = false;
    std::map<std::string, Rules> const before = written_;
    for (auto const& [name, rules] : before) {
        if (lists.contains(name)) continue;
        written_.erase(name);
        config_.aclDel(name);
        lost = true;
    }
    for (auto const& [name, list] : lists) {
        auto const known = before.find(name);
        lost |=
            doWrite(name, numbered(list.rules(), known == before.end() ? Rules() : known->second));
    }
    return lost;
}

AccessListWriter::Rules AccessListWriter::numbered(AccessListConfiguration::Rules const& list,
                                                   Rules const& before) {
    Rules rules;
    std::multimap<Content, Rule> free; // of those before, the ones that do not stand where they did
    for (auto const& [sequence, old] : before) {
        auto const now = list.find(sequence);
        if (now != list.end() && now->second == old.rule)
            rules[sequence] = old;
        else
            free.emplace(contentOf(old.rule), old);
    }
    for (auto const& [sequence, rule] : list) {
        if (rules.contains(sequence)) continue;
        auto const moved = free.lower_bound(contentOf(rule)); // the one of the lowest number
        if (moved == free.end() || moved->first != contentOf(rule)) {
            rules[sequence] = {Acl::UniqueId(++lastId_), rule};
        } else {
            rules[sequence] = moved->second;
            free.erase(moved);
        }
    }
    return rules;
}

bool AccessListWriter::doWrite(std::string const& name, Rules rules) {
    Rules& written = written_[name];
    auto const acl = config_.aclIs(name);
    std::set<Acl::UniqueId> staying;
    for (auto const& [sequence, rule] : rules) staying.insert(rule.id);
    Rules kept = written, gone;
    for (auto const& [sequence, rule] : written)
        if (!staying.contains(rule.id)) gone.insert(kept.extract(sequence));
    if (overlap(gone, kept)) onOverlap_(name);
    // First without what goes, then with what comes: a source that gives way to "any" must be gone
    // before, for any source is refused while specific ones are listed.
    if (!gone.empty()) doPutInForce(*acl, kept);
    if (kept.size() != rules.size() || !acl->currCfg()) doPutInForce(*acl, rules);
    written = std::move(rules);
    return !gone.empty();
}

void AccessListWriter::doPutInForce(Acl::AclConfig& acl, Rules const& rules) {
    auto const fresh = Acl::AclSubConfig::AclSubConfigIs(acl.name());
    for (auto const& [sequence, rule] : rules) {
        fresh->ipRuleByIdIs(rule.id, rule.rule);
        fresh->ruleBySequenceIs(sequence, rule.id);
    }
    acl.currCfgIs(fresh);
}

} // namespace Agent
