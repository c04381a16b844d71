#include "agent/AccessListWriter.h"

#include <set>
#include <tuple>

namespace Agent {

namespace {

/// A rule's content, in an order of its own.
using Content = std::tuple<Acl::Action, Lox::IpAddrWithFullMask, Lox::IpAddrWithFullMask>;

Content contentOf(Acl::IpRuleConfig const& rule) {
    return {rule.action, rule.filter.source, rule.filter.destination};
}

} // namespace

void AccessListWriter::listsIs(Lists const& lists) {
    std::map<std::string, Rules> const before = written_;
    for (auto const& [name, rules] : before) {
        if (lists.contains(name)) continue;
        written_.erase(name);
        config_.aclDel(name);
    }
    for (auto const& [name, list] : lists) {
        auto const known = before.find(name);
        doWrite(name, numbered(list, known == before.end() ? Rules() : known->second));
    }
}

AccessListWriter::Rules AccessListWriter::numbered(AccessListConfiguration const& list,
                                                   Rules const& before) {
    Rules rules;
    std::multimap<Content, Rule> free; // of those before, the ones that do not stand where they did
    for (auto const& [sequence, old] : before) {
        auto const now = list.find(sequence);
        if (now != list.end() && now->second == old.rule) {
            rules[sequence] = old;
        } else {
            free.emplace(contentOf(old.rule), old);
        }
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

void AccessListWriter::doWrite(std::string const& name, Rules rules) {
    Rules& written = written_[name];
    auto const acl = config_.aclIs(name);
    std::set<Acl::UniqueId> staying;
    for (auto const& [sequence, rule] : rules) staying.insert(rule.id);
    Rules kept = written;
    std::erase_if(kept, [&](auto const& item) { return !staying.contains(item.second.id); });
    // First without what goes, then with what comes: a source that gives way to "any" must be gone
    // before, for any source is refused while specific ones are listed.
    if (kept.size() != written.size()) doPutInForce(*acl, kept);
    if (kept.size() != rules.size() || !acl->currCfg()) doPutInForce(*acl, rules);
    written = std::move(rules);
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
