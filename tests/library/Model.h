// One interface and those who count their sources, configuration and access lists, as plain lists:
// what is configured and listed, and what is counted and announced. Slow and without sharing
// between the rules, so that each can be read against its wording.
#pragma once

#include "Library.h"

#include <array>
#include <map>

namespace IgmpHostProxy {

// Lists are in the order in which their members came, and have each once.
template <class T>
bool has(std::vector<T> const& all, T const& one) {
    return std::count(all.begin(), all.end(), one) > 0;
}
template <class T>
bool add(std::vector<T>& all, T const& one) {
    if (has(all, one)) return false;
    all.push_back(one);
    return true;
}
template <class T>
bool del(std::vector<T>& all, T const& one) {
    return std::erase(all, one) > 0;
}

class Model {
  public:
    enum Mode { include, exclude };
    using Addr = Lox::IpAddr;
    /// Those of a group, by mode.
    using Sources = std::array<std::vector<Addr>, 2>;
    using Groups = std::map<Addr, Sources>;

    struct Rule {
        unsigned id;
        Acl::IpRuleConfig config;
        bool operator==(Rule const& other) const { return id == other.id; }
    };
    struct List {
        std::vector<Rule> byId;
        std::map<unsigned, unsigned> idBySequence;
    };
    struct Helper {
        Groups groups;
        std::vector<Rule> cached;
    };
    struct Counted {
        Addr source, group;
        std::uint32_t count;
    };
    Groups status;
    std::vector<Counted> counts;
    std::map<std::string, Helper> helpers;
    bool deny = false;

    /// With all groups that the configuration speaks of, in ascending order.
    explicit Model(std::vector<Addr> groups) : groups_(std::move(groups)) {}

    // Configuration
    void configure(Addr group) {
        if (configured_.try_emplace(group).second) insertStatus(group);
    }
    void configure(Addr group, Addr source, Mode mode) {
        configure(group);
        if (add(configured_[group][mode], source)) count(source, group, mode);
    }
    void unconfigure(Addr group) { configured_.erase(group); }
    /// Takes the source out of the configured list, which tells nobody.
    void unconfigure(Addr group, Addr source, Mode mode) {
        if (configured_.contains(group)) del(configured_[group][mode], source);
    }
    void listAsDeleted(Addr group, Addr source, Mode mode) {
        if (add(deleted_[group][mode], source)) remove(group, source, mode);
    }
    void unlistDeleted(Addr group) { deleted_.erase(group); }

    // Access lists
    void attach(std::string const& name) {
        if (add(attached_, name)) handleList(name);
    }
    void detach(std::string const& name) {
        if (del(attached_, name)) handleList(name);
    }
    void createList(std::string const& name) {
        if (lists_.try_emplace(name).second) handleList(name);
    }
    void deleteList(std::string const& name) {
        if (lists_.erase(name) > 0) handleList(name);
    }
    /// Rules' texts are kept, also of those that have lost their place.
    void writeRule(std::string const& name, unsigned sequence, Rule const& rule) {
        add(lists_[name].byId, rule);
        lists_[name].idBySequence[sequence] = rule.id;
        reconcile(name);
    }
    void eraseRule(std::string const& name, unsigned sequence) {
        if (lists_[name].idBySequence.erase(sequence) > 0) reconcile(name);
    }
    /// A list came, went, was attached or detached, or is asked for again.
    void handleList(std::string const& name) {
        if (has(attached_, name) && lists_.contains(name)) {
            helpers[name];
            for (Rule const& rule : lists_[name].byId) apply(helpers[name], rule);
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
        if (!has(attached_, name)) helpers.erase(name);
    }

    /// The forwarding table puts a source in, uncounted.
    void contribute(Addr group, Addr source, Mode mode) {
        insertStatus(group);
        addSource(group, source, mode);
    }

  private:
    // References
    Counted* counted(Addr source, Addr group) {
        for (Counted& each : counts)
            if (each.source == source && each.group == group) return &each;
        return nullptr;
    }
    std::uint32_t countOf(Addr source, Addr group) {
        Counted const* const found = counted(source, group);
        return found ? found->count : 0;
    }
    bool groupCounted(Addr group) const {
        return std::any_of(counts.begin(), counts.end(),
                           [&](Counted const& each) { return each.group == group; });
    }
    void countUp(Addr source, Addr group) {
        if (Counted* const known = counted(source, group))
            ++known->count;
        else
            counts.push_back({source, group, 1});
    }
    void forget(Addr source, Addr group) {
        std::erase_if(counts, [&](Counted const& each) {
            return each.source == source && each.group == group;
        });
    }

    // The merge
    void count(Addr source, Addr group, Mode mode) {
        insertStatus(group);
        if (!groupCounted(group)) delAllSources(group);
        countUp(source, group);
        mode == include ? addInclude(source, group) : addExclude(source, group);
    }
    void addInclude(Addr source, Addr group) {
        Sources const& entry = status[group];
        if (has(entry[include], anySource)) return;
        if (source == anySource) {
            delAllSources(group);
        } else {
            delSource(group, anySource, exclude);
            if (has(entry[exclude], source)) return;
        }
        addSource(group, source, include);
    }
    void addExclude(Addr source, Addr group) {
        if (has(status[group][include], anySource) && countOf(anySource, group) > 0) return;
        if (source == anySource) {
            if (status[group] != Sources()) return;
        } else {
            delSource(group, anySource, exclude);
            delSource(group, source, include);
        }
        addSource(group, source, exclude);
    }
    void remove(Addr group, Addr source, Mode mode) {
        if (countOf(source, group) == 0) {
            if (source == anySource && mode == exclude)
                delUncounted(group);
            else
                delSource(group, source, mode);
            return eraseIfEmpty(group);
        }
        std::uint32_t const left = --counted(source, group)->count;
        if (left > 0 && wanted(source, group, mode)) return;
        if (source == anySource) return removeAny(group, mode, left);
        if (left == 0) forget(source, group);
        delSource(group, source, mode);
        if (left > 0) {
            addSource(group, source, mode == include ? exclude : include);
        } else if (!groupCounted(group)) {
            eraseIfEmpty(group);
        }
    }
    void removeAny(Addr group, Mode mode, std::uint32_t left) {
        // In exclude mode all references are forgotten at once.
        if (left == 0 || mode == exclude) forget(anySource, group);
        if (!status.contains(group)) return;
        delSource(group, anySource, mode);
        Sources restored;
        for (Counted const& each : counts) {
            if (each.group != group) continue;
            if (restorable(each.source, group, exclude))
                add(restored[exclude], each.source);
            else if (restorable(each.source, group, include))
                add(restored[include], each.source);
        }
        if (mode == include && (restored[exclude].size() >= 2 || !restored[include].empty()))
            del(restored[exclude], anySource);
        for (Mode const each : {include, exclude})
            for (Addr const source : restored[each]) addSource(group, source, each);
        eraseIfEmpty(group);
    }
    bool isConfigured(Addr source, Addr group, Mode mode) {
        return configured_.contains(group) && has(configured_[group][mode], source);
    }
    /// Whether somebody wants the pair still.
    bool wanted(Addr source, Addr group, Mode mode) {
        if (isConfigured(source, group, mode)) return true;
        for (auto const& [name, helper] : helpers)
            for (auto const& [id, rule] : helper.cached)
                if (rule.filter.source.address() == source && covers(rule, group) &&
                    modeOf(rule) == mode && valid(rule))
                    return true;
        return false;
    }
    /// Whether the pair comes back as any source leaves.
    bool restorable(Addr source, Addr group, Mode mode) {
        if (isConfigured(source, group, mode)) return true;
        for (auto& [name, helper] : helpers)
            if (helper.groups.contains(group) && has(helper.groups[group][mode], source))
                return true;
        return false;
    }

    // The status
    void insertStatus(Addr group) { status.try_emplace(group); }
    void eraseIfEmpty(Addr group) {
        if (status.contains(group) && status[group] == Sources()) status.erase(group);
    }
    void addSource(Addr group, Addr source, Mode mode) {
        if (status.contains(group)) add(status[group][mode], source);
    }
    void delSource(Addr group, Addr source, Mode mode) {
        if (status.contains(group)) del(status[group][mode], source);
    }
    void delSources(Addr group, auto const& goes) {
        if (!status.contains(group)) return;
        for (auto& sources : status[group]) std::erase_if(sources, goes);
    }
    void delAllSources(Addr group) {
        delSources(group, [](Addr) { return true; });
    }
    void delUncounted(Addr group) {
        delSources(group, [&](Addr source) { return countOf(source, group) == 0; });
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
                add(helper.groups[group][modeOf(rule.config)], source);
                count(source, group, modeOf(rule.config));
            }
        }
        add(helper.cached, rule);
    }
    void takeBack(Helper& helper, Acl::IpRuleConfig const& rule) {
        if (isDenyAll(rule)) return setDeny(false);
        Addr const source = rule.filter.source.address();
        for (Addr const group : groups_) {
            if (!covers(rule, group)) continue;
            if (helper.groups.contains(group)) del(helper.groups[group][modeOf(rule)], source);
            remove(group, source, modeOf(rule));
        }
    }
    void reconcile(std::string const& name) {
        if (!helpers.contains(name)) return;
        Helper& helper = helpers[name];
        std::vector<Rule> stale = helper.cached;
        for (auto const& [sequence, id] : lists_[name].idBySequence) {
            for (Rule const& rule : lists_[name].byId) {
                if (rule.id != id) continue;
                if (!has(helper.cached, rule)) apply(helper, rule);
                add(helper.cached, rule); // be it valid or not
            }
            del(stale, {id, {}});
        }
        for (Rule const& rule : stale) {
            del(helper.cached, rule);
            takeBack(helper, rule.config);
        }
    }

    // Keeping the tables out
    void setDeny(bool on) {
        if (std::exchange(deny, on) != on) handleDeny();
    }
    void handleDeny() {
        if (!deny) return;
        for (auto const& [group, sources] : Groups(status)) {
            delUncounted(group);
            eraseIfEmpty(group);
        }
    }
    std::vector<Addr> groups_;
    Groups configured_, deleted_;
    std::vector<std::string> attached_;
    std::map<std::string, List> lists_;
};

} // namespace IgmpHostProxy
