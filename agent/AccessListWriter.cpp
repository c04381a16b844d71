#include "agent/AccessListWriter.h"

#include <algorithm>
#include <set>
#include <vector>

namespace Agent {

namespace {

/// Whether both select a group.
bool overlap(Acl::IpRuleConfig const& a, Acl::IpRuleConfig const& b) {
    if (groupCount(a) == 0 || groupCount(b) == 0) return false;
    auto const &one = a.filter.destination, &other = b.filter.destination;
    return ((one.address().host() ^ other.address().host()) & one.mask() & other.mask()) == 0;
}

} // namespace

bool AccessListWriter::listsIs(Lists const& lists) {
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
        lost |= doWrite(name, numbered(list, known == before.end() ? Rules() : known->second));
    }
    return lost;
}

AccessListWriter::Rules AccessListWriter::numbered(AccessListConfiguration const& list,
                                                   Rules const& before) {
    Rules rules;
    std::vector<Rule> free; // of the rules before, those that do not stand where they stood
    for (auto const& [sequence, old] : before) {
        auto const now = list.find(sequence);
        if (now != list.end() && now->second == old.rule) {
            rules[sequence] = old;
        } else {
            free.push_back(old);
        }
    }
    for (auto const& [sequence, rule] : list) {
        if (rules.contains(sequence)) continue;
        auto const moved = std::find_if(free.begin(), free.end(), [&asked = rule](Rule const& old) {
            return old.rule == asked;
        });
        if (moved == free.end()) {
            rules[sequence] = {Acl::UniqueId(++lastId_), rule};
        } else {
            rules[sequence] = *moved;
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
    auto const overlapsKept = [&](auto const& lost) {
        return std::any_of(kept.begin(), kept.end(), [&](auto const& item) {
            return overlap(item.second.rule, lost.second.rule);
        });
    };
    if (std::any_of(gone.begin(), gone.end(), overlapsKept)) onOverlap_(name);
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
