// One interface and those who count their sources, configuration and access lists, as plain sets:
// what is configured and listed, and what is counted and announced. Slow and without sharing
// between the rules, so that each can be read against its wording.
#pragma once

#include "Library.h"

#include <array>
#include <map>
#include <set>

namespace IgmpHostProxy {

class Model {
  public:
    enum Mode { include, exclude };
    using Addr = Lox::IpAddr;
    /// Those of a group, by mode.
    using Sources = std::array<std::set<Addr>, 2>;
    using Groups = std::map<Addr, Sources>;

    struct Rule {
        unsigned id;
        Acl::IpRuleConfig config;
    };
    struct List {
        std::vector<Rule> byId;
        std::map<unsigned, unsigned> idBySequence;
    };
    struct Helper {
        Groups groups;
        std::vector<Rule> cached;

        bool has(unsigned id) const { return std::ranges::count(cached, id, &Rule::id) > 0; }
    };
    Groups status;
    std::map<Addr, std::map<Addr, unsigned>> counts; ///< by group and source
    std::map<std::string, Helper> helpers;
    bool deny = false;

    /// With all groups that the configuration speaks of, in ascending order.
    explicit Model(std::vector<Addr> groups) : groups_(std::move(groups)) {}

    // Configuration
    void configure(Addr group) {
        if (configured_.try_emplace(group).second) status.try_emplace(group);
    }
    void configure(Addr group, Addr source, Mode mode) {
        configure(group);
        if (configured_[group][mode].insert(source).second) count(source, group, mode);
    }
    void unconfigure(Addr group) { configured_.erase(group); }
    /// Takes the source out of the configured list, which tells nobody.
    void unconfigure(Addr group, Addr source, Mode mode) {
        if (configured_.contains(group)) configured_[group][mode].erase(source);
    }
    void listAsDeleted(Addr group, Addr source, Mode mode) {
        if (deleted_[group][mode].insert(source).second) remove(group, source, mode);
    }
    void unlistDeleted(Addr group) { deleted_.erase(group); }

    // Access lists
    void attach(std::string const& name) {
        if (attached_.insert(name).second) handleList(name);
    }
    void detach(std::string const& name) {
        if (attached_.erase(name) > 0) handleList(name);
    }
    void createList(std::string const& name) {
        if (lists_.try_emplace(name).second) handleList(name);
    }
    void deleteList(std::string const& name) {
        if (lists_.erase(name) > 0) handleList(name);
    }
    /// Rules' texts are kept, also of those that have lost their place.
    void writeRule(std::string const& name, unsigned sequence, Rule const& rule) {
        lists_[name].byId.push_back(rule);
        lists_[name].idBySequence[sequence] = rule.id;
        reconcile(name);
    }
    void eraseRule(std::string const& name, unsigned sequence) {
        if (lists_[name].idBySequence.erase(sequence) > 0) reconcile(name);
    }
    /// A list came, went, was attached or detached, or is asked for again.
    void handleList(std::string const& name) {
        bool const attached = attached_.contains(name);
        if (attached && lists_.contains(name)) {
            for (Rule const& rule : lists_[name].byId) apply(helpers[name], rule);
            helpers.try_emplace(name);
            return;
        }
        if (helpers.contains(name)) {
            auto& cached = helpers[name].cached;
            while (!cached.empty()) {
                Rule const rule = cached.front();
                cached.erase(cached.begin());
                takeBack(helpers[name], rule.config);
            }
        }
        if (!attached) helpers.erase(name);
    }

    /// The forwarding table puts a source in, uncounted.
    void contribute(Addr group, Addr source, Mode mode) { status[group][mode].insert(source); }

  private:
    // References
    unsigned countOf(Addr source, Addr group) const {
        auto const known = counts.find(group);
        return known != counts.end() && known->second.contains(source) ? known->second.at(source)
                                                                       : 0;
    }
    void forget(Addr source, Addr group) {
        counts[group].erase(source);
        if (counts[group].empty()) counts.erase(group);
    }

    // The merge
    void count(Addr source, Addr group, Mode mode) {
        Sources& entry = status[group];
        if (!counts.contains(group)) entry = {};
        ++counts[group][source];
        mode == include ? addInclude(source, entry) : addExclude(source, group, entry);
    }
    static void addInclude(Addr source, Sources& entry) {
        if (entry[include].contains(anySource)) return;
        if (source == anySource) {
            entry = {};
        } else {
            entry[exclude].erase(anySource);
            if (entry[exclude].contains(source)) return;
        }
        entry[include].insert(source);
    }
    void addExclude(Addr source, Addr group, Sources& entry) const {
        if (entry[include].contains(anySource) && countOf(anySource, group) > 0) return;
        if (source == anySource) {
            if (entry != Sources()) return;
        } else {
            entry[exclude].erase(anySource);
            entry[include].erase(source);
        }
        entry[exclude].insert(source);
    }
    void remove(Addr group, Addr source, Mode mode) {
        if (countOf(source, group) == 0) {
            if (source == anySource && mode == exclude)
                delUncounted(group);
            else
                delSource(group, source, mode);
            return eraseIfEmpty(group);
        }
        unsigned const left = --counts[group][source];
        if (left > 0 && wanted(source, group, mode)) return;
        if (source == anySource) return removeAny(group, mode, left);
        delSource(group, source, mode);
        if (left > 0) {
            addSource(group, source, mode == include ? exclude : include);
            return;
        }
        forget(source, group);
        if (!counts.contains(group)) eraseIfEmpty(group);
    }
    void removeAny(Addr group, Mode mode, unsigned left) {
        // In exclude mode all references are forgotten at once.
        if (left == 0 || mode == exclude) forget(anySource, group);
        if (!status.contains(group)) return;
        delSource(group, anySource, mode);
        Sources restored;
        if (counts.contains(group))
            for (auto const& [source, references] : counts[group]) {
                if (restorable(source, group, exclude))
                    restored[exclude].insert(source);
                else if (restorable(source, group, include))
                    restored[include].insert(source);
            }
        if (mode == include && (restored[exclude].size() >= 2 || !restored[include].empty()))
            restored[exclude].erase(anySource);
        for (Mode const each : {include, exclude})
            for (Addr const source : restored[each]) addSource(group, source, each);
        eraseIfEmpty(group);
    }
    static bool lists(Groups const& groups, Addr source, Addr group, Mode mode) {
        auto const found = groups.find(group);
        return found != groups.end() && found->second[mode].contains(source);
    }
    /// Whether somebody wants the pair still.
    bool wanted(Addr source, Addr group, Mode mode) const {
        if (lists(configured_, source, group, mode)) return true;
        for (auto const& [name, helper] : helpers)
            for (auto const& [id, rule] : helper.cached)
                if (rule.filter.source.address() == source && covers(rule, group) &&
                    modeOf(rule) == mode && valid(rule))
                    return true;
        return false;
    }
    /// Whether the pair comes back as any source leaves.
    bool restorable(Addr source, Addr group, Mode mode) const {
        return lists(configured_, source, group, mode) ||
               std::ranges::any_of(helpers, [&](auto const& item) {
                   return lists(item.second.groups, source, group, mode);
               });
    }

    // The status
    void eraseIfEmpty(Addr group) {
        if (status.contains(group) && status[group] == Sources()) status.erase(group);
    }
    void addSource(Addr group, Addr source, Mode mode) {
        if (status.contains(group)) status[group][mode].insert(source);
    }
    void delSource(Addr group, Addr source, Mode mode) {
        if (status.contains(group)) status[group][mode].erase(source);
    }
    void delUncounted(Addr group) {
        if (!status.contains(group)) return;
        for (auto& sources : status[group])
            std::erase_if(sources, [&](Addr source) { return countOf(source, group) == 0; });
    }

    // What a rule means
    static bool isDenyAll(Acl::IpRuleConfig const& rule) {
        return rule.action == Acl::Action::deny && rule.filter.destination.address().isZero() &&
               rule.filter.source.address().isZero();
    }
    static bool valid(Acl::IpRuleConfig const& rule) {
        auto const& [source, destination] = rule.filter;
        for (std::uint32_t const end : {destination.address().host() & destination.mask(),
                                        destination.address().host() | ~destination.mask()})
            if (end < 0xE0000000 || end > 0xEFFFFFFF) return false;
        return (source.mask() == 0 || source.mask() == 0xFFFFFFFF) &&
               !source.address().isMulticast();
    }
    static Mode modeOf(Acl::IpRuleConfig const& rule) {
        bool const any = rule.filter.source.address() == anySource;
        return (rule.action == Acl::Action::permit) != any ? include : exclude;
    }
    static bool covers(Acl::IpRuleConfig const& rule, Addr group) {
        std::uint32_t const mask = rule.filter.destination.mask();
        return (group.host() & mask) == (rule.filter.destination.address().host() & mask);
    }

    // Access lists
    void apply(Helper& helper, Rule const& rule) {
        if (isDenyAll(rule.config)) {
            setDeny(true);
        } else if (!valid(rule.config)) {
            return;
        } else {
            Addr const source = rule.config.filter.source.address();
            for (Addr const group : groups_) {
                if (!covers(rule.config, group)) continue;
                helper.groups[group][modeOf(rule.config)].insert(source);
                count(source, group, modeOf(rule.config));
            }
        }
        if (!helper.has(rule.id)) helper.cached.push_back(rule);
    }
    void takeBack(Helper& helper, Acl::IpRuleConfig const& rule) {
        if (isDenyAll(rule)) return setDeny(false);
        Addr const source = rule.filter.source.address();
        for (Addr const group : groups_) {
            if (!covers(rule, group)) continue;
            if (helper.groups.contains(group)) helper.groups[group][modeOf(rule)].erase(source);
            remove(group, source, modeOf(rule));
        }
    }
    void reconcile(std::string const& name) {
        if (!helpers.contains(name)) return;
        Helper& helper = helpers[name];
        std::vector<Rule> stale = helper.cached;
        for (auto const& [sequence, id] : lists_[name].idBySequence) {
            auto const rule = std::ranges::find(lists_[name].byId, id, &Rule::id);
            if (!helper.has(id)) apply(helper, *rule);
            if (!helper.has(id)) helper.cached.push_back(*rule); // be it valid or not
            std::erase_if(stale, [id = id](Rule const& each) { return each.id == id; });
        }
        for (Rule const& rule : stale) {
            std::erase_if(helper.cached, [&](Rule const& each) { return each.id == rule.id; });
            takeBack(helper, rule.config);
        }
    }

    // Keeping the tables out
    void setDeny(bool on) {
        if (std::exchange(deny, on) == on || !on) return;
        for (auto const& [group, sources] : Groups(status)) {
            delUncounted(group);
            eraseIfEmpty(group);
        }
    }
    std::vector<Addr> groups_;
    Groups configured_, deleted_;
    std::set<std::string> attached_;
    std::map<std::string, List> lists_;
};

} // namespace IgmpHostProxy
