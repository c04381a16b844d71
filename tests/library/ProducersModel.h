// One interface with all that can ask it for groups, as plain lists: configuration, access lists,
// routes. Slow and without sharing between the rules, so that each can be read against its wording.
//
// A review has time for one route of the full sync and for one changed route.
#pragma once

#include "MergeModel.h"

#include <array>
#include <map>
#include <optional>
#include <set>

namespace IgmpHostProxy {

class ProducersModel {
  public:
    /// All groups that routes and configuration speak of, in ascending order.
    explicit ProducersModel(std::vector<Lox::IpAddr> groups) : groups_(std::move(groups)) {}

    struct Rule {
        unsigned id;
        Acl::IpRuleConfig config;
    };
    struct List {
        std::vector<Rule> byId;
        std::map<unsigned, unsigned> idBySequence;
    };
    struct Helper {
        std::map<Lox::IpAddr, ModelLists> groups;
        std::vector<Rule> cached;
    };
    /// In the order in which a table is walked.
    struct RouteName {
        Lox::IpAddr group, source;
        friend auto operator<=>(RouteName const&, RouteName const&) = default;
    };
    using Changed = std::pair<std::size_t, RouteName>; ///< with the table's number

    std::map<Lox::IpAddr, ModelLists> status;
    std::map<RouteName, unsigned> counts;
    std::map<std::string, Helper> helpers;
    bool deny = false;
    bool fullSync = false;
    std::optional<Changed> bookmark;
    std::vector<Changed> changed;

    // The configuration
    void configure(Lox::IpAddr group, Lox::IpAddr source, Mode mode) {
        if (!find(configured_, group)) status[group];
        if (of(configured_, group).of(mode).add(source)) add(source, group, mode);
    }
    void unconfigure(Lox::IpAddr group) {
        std::erase_if(configured_, [&](auto const& entry) { return entry.first == group; });
    }
    /// Takes the source back, and keeps the table from announcing it until `unblock`.
    void block(Lox::IpAddr group, Lox::IpAddr source, Mode mode) {
        if (ModelLists* const lists = find(configured_, group)) lists->of(mode).del(source);
        if (of(deleted_, group).of(mode).add(source)) remove(source, group, mode);
    }
    void unblock(Lox::IpAddr group) {
        std::erase_if(deleted_, [&](auto const& entry) { return entry.first == group; });
    }

    // Access lists
    void attach(std::string const& name) {
        if (attached(name)) return;
        attached_.push_back(name);
        handleList(name);
    }
    void detach(std::string const& name) {
        if (std::erase(attached_, name) > 0) handleList(name);
    }
    void createList(std::string const& name) {
        if (lists_.try_emplace(name).second) handleList(name);
    }
    void deleteList(std::string const& name) {
        if (lists_.erase(name) > 0) handleList(name);
    }
    bool hasList(std::string const& name) const { return lists_.count(name) > 0; }
    void writeRule(std::string const& name, unsigned sequence, Rule const& rule) {
        List& list = lists_[name];
        unsigned const before = idAt(name, sequence);
        list.byId.push_back(rule);
        list.idBySequence[sequence] = rule.id;
        reconcile(name);
        forgetRule(list.byId, before);
    }
    void eraseRule(std::string const& name, unsigned sequence) {
        List& list = lists_[name];
        unsigned const before = idAt(name, sequence);
        list.idBySequence.erase(sequence);
        reconcile(name);
        forgetRule(list.byId, before);
    }
    /// 0 for none.
    unsigned idAt(std::string const& name, unsigned sequence) const {
        auto const& ids = lists_.at(name).idBySequence;
        return ids.count(sequence) > 0 ? ids.at(sequence) : 0;
    }
    /// A list came, went, was attached or detached, or is asked for again.
    void handleList(std::string const& name) {
        if (attached(name) && hasList(name)) {
            helpers[name];
            for (Rule const& rule : std::vector(lists_[name].byId)) apply(helpers[name], rule);
            return;
        }
        if (helpers.count(name) > 0) {
            Helper& helper = helpers[name];
            while (!helper.cached.empty()) {
                Rule const rule = helper.cached.front();
                helper.cached.erase(helper.cached.begin());
                takeBack(helper, rule.config);
            }
        }
        if (!attached(name)) helpers.erase(name);
    }

    // Routes
    void writeRoute(std::size_t table, RouteName const& route) {
        tables_[table].insert(route);
        recordChange(table, route);
    }
    void eraseRoute(std::size_t table, RouteName const& route) {
        if (tables_[table].erase(route) > 0) recordChange(table, route);
    }
    void review() {
        if (fullSync) {
            syncSlice();
            if (bookmark) return;
            fullSync = false;
        }
        if (changed.empty()) return;
        sync(changed.front());
        changed.erase(changed.begin());
    }

    /// The machine goes, and another one starts up on what is there.
    void restart() {
        counts.clear();
        helpers.clear();
        changed.clear();
        wantFullSync();
        for (auto const& [name, list] : lists_) handleList(name);
        for (auto const& [name, list] : lists_) reconcile(name);
        for (auto const& [group, lists] : configured_) {
            status[group];
            for (auto const source : lists.include.addrs) add(source, group, Mode::include);
            for (auto const source : lists.exclude.addrs) add(source, group, Mode::exclude);
        }
        for (auto const& [group, lists] : deleted_) {
            for (auto const source : lists.include.addrs) remove(source, group, Mode::include);
            for (auto const source : lists.exclude.addrs) remove(source, group, Mode::exclude);
        }
        handleDeny();
        clearLeftovers();
        for (auto const& name : attached_) handleList(name);
        do syncSlice();
        while (bookmark); // the first review has time for all
        fullSync = false;
    }

  private:
    using Configured = std::vector<std::pair<Lox::IpAddr, ModelLists>>; ///< as it was written

    static ModelLists* find(Configured& entries, Lox::IpAddr group) {
        for (auto& entry : entries)
            if (entry.first == group) return &entry.second;
        return nullptr;
    }
    static ModelLists& of(Configured& entries, Lox::IpAddr group) {
        if (!find(entries, group)) entries.push_back({group, {}});
        return *find(entries, group);
    }
    bool attached(std::string const& name) const {
        return std::count(attached_.begin(), attached_.end(), name) > 0;
    }
    static void forgetRule(std::vector<Rule>& rules, unsigned id) {
        std::erase_if(rules, [&](Rule const& rule) { return rule.id == id; });
    }
    static bool knows(std::vector<Rule> const& rules, unsigned id) {
        return std::any_of(rules.begin(), rules.end(),
                           [&](Rule const& rule) { return rule.id == id; });
    }

    // What a rule means
    static bool isDenyAll(Acl::IpRuleConfig const& rule) {
        return rule.action == Acl::Action::deny && rule.filter.destination.address().isZero() &&
               rule.filter.source.address().isZero();
    }
    static bool valid(Acl::IpRuleConfig const& rule) {
        auto const destination = rule.filter.destination;
        auto const source = rule.filter.source;
        for (std::uint32_t const end : {destination.address().host() & destination.mask(),
                                        destination.address().host() | ~destination.mask()})
            if (end < 0xE0000000 || end > 0xEFFFFFFF) return false;
        return (source.mask() == 0 || source.mask() == 0xFFFFFFFF) &&
               !source.address().isMulticast();
    }
    static Mode modeOf(Acl::IpRuleConfig const& rule) {
        bool const any = rule.filter.source.address() == anySource;
        bool const permits = rule.action == Acl::Action::permit;
        return permits != any ? Mode::include : Mode::exclude;
    }
    static bool covers(Acl::IpRuleConfig const& rule, Lox::IpAddr group) {
        std::uint32_t const mask = rule.filter.destination.mask();
        return (group.host() & mask) == (rule.filter.destination.address().host() & mask);
    }

    void apply(Helper& helper, Rule const& rule) {
        if (isDenyAll(rule.config)) {
            setDeny(true);
        } else if (!valid(rule.config)) {
            return;
        } else {
            Lox::IpAddr const source = rule.config.filter.source.address();
            for (auto const group : groups_) {
                if (!covers(rule.config, group)) continue;
                helper.groups[group].of(modeOf(rule.config)).add(source);
                status[group];
                add(source, group, modeOf(rule.config));
            }
        }
        cache(helper, rule);
    }
    static void cache(Helper& helper, Rule const& rule) {
        if (!knows(helper.cached, rule.id)) helper.cached.push_back(rule);
    }
    void takeBack(Helper& helper, Acl::IpRuleConfig const& rule) {
        if (isDenyAll(rule)) return setDeny(false);
        Lox::IpAddr const source = rule.filter.source.address();
        for (auto const group : groups_) {
            if (!covers(rule, group)) continue;
            if (helper.groups.count(group) > 0) helper.groups[group].of(modeOf(rule)).del(source);
            remove(source, group, modeOf(rule));
        }
    }
    void reconcile(std::string const& name) {
        if (helpers.count(name) == 0) return;
        Helper& helper = helpers[name];
        List const& list = lists_[name];
        std::vector<Rule> stale = helper.cached;
        for (auto const& [sequence, id] : list.idBySequence) {
            for (Rule const& rule : list.byId) {
                if (rule.id != id) continue;
                if (!knows(helper.cached, id)) apply(helper, rule);
                cache(helper, rule); // be it valid or not
            }
            forgetRule(stale, id);
        }
        for (Rule const& rule : stale) {
            forgetRule(helper.cached, rule.id);
            takeBack(helper, rule.config);
        }
    }

    // The merge
    bool counted(Lox::IpAddr source, Lox::IpAddr group) const {
        return counts.count({group, source}) > 0;
    }
    bool groupCounted(Lox::IpAddr group) const {
        return std::any_of(counts.begin(), counts.end(),
                           [&](auto const& entry) { return entry.first.group == group; });
    }
    bool wanted(Lox::IpAddr source, Lox::IpAddr group, Mode mode) {
        ModelLists* const lists = find(configured_, group);
        if (lists && lists->of(mode).has(source)) return true;
        for (auto const& [name, helper] : helpers)
            for (Rule const& rule : helper.cached)
                if (rule.config.filter.source.address() == source && covers(rule.config, group) &&
                    modeOf(rule.config) == mode && valid(rule.config))
                    return true;
        return false;
    }
    void add(Lox::IpAddr source, Lox::IpAddr group, Mode mode) {
        ModelLists& entry = status[group];
        if (!groupCounted(group)) entry = {};
        ++counts[{group, source}];
        mode == Mode::include ? addInclude(source, entry)
                              : addExclude(source, entry, counted(anySource, group));
    }
    static void addInclude(Lox::IpAddr source, ModelLists& entry) {
        if (entry.include.has(anySource)) return;
        if (source == anySource) {
            entry = {};
        } else {
            entry.exclude.del(anySource);
            if (entry.exclude.has(source)) return;
        }
        entry.include.add(source);
    }
    static void addExclude(Lox::IpAddr source, ModelLists& entry, bool anyCounted) {
        if (entry.include.has(anySource) && anyCounted) return;
        if (source == anySource && !entry.empty()) return;
        if (source != anySource) {
            entry.exclude.del(anySource);
            entry.include.del(source);
        }
        entry.exclude.add(source);
    }
    void remove(Lox::IpAddr source, Lox::IpAddr group, Mode mode) {
        if (!counted(source, group)) return removeUncounted(source, group, mode);
        unsigned const left = --counts[{group, source}];
        if (left > 0 && wanted(source, group, mode)) return;
        if (left == 0 || (source == anySource && mode == Mode::exclude))
            counts.erase({group, source});
        if (status.count(group) == 0) return;
        ModelLists& entry = status[group];
        entry.of(mode).del(source);
        if (source == anySource) return restore(group, mode);
        if (left > 0) {
            entry.of(mode == Mode::include ? Mode::exclude : Mode::include).add(source);
        } else if (entry.empty() && !groupCounted(group)) {
            status.erase(group);
        }
    }
    void removeUncounted(Lox::IpAddr source, Lox::IpAddr group, Mode mode) {
        if (status.count(group) == 0) return;
        ModelLists& entry = status[group];
        if (source == anySource && mode == Mode::exclude) {
            for (Mode const each : {Mode::include, Mode::exclude})
                std::erase_if(entry.of(each).addrs,
                              [&](auto const listed) { return !counted(listed, group); });
        } else {
            entry.of(mode).del(source);
        }
        if (entry.empty()) status.erase(group);
    }
    /// Any source has left the group in that mode: what it had displaced comes back.
    void restore(Lox::IpAddr group, Mode mode) {
        ModelLists local;
        for (auto const& [pair, count] : counts)
            if (pair.group == group) restoreSource(pair.source, group, local);
        ModelLists& entry = status[group];
        if (mode == Mode::include) {
            if (local.exclude.addrs.size() >= 2 || !local.include.addrs.empty())
                local.exclude.del(anySource);
        } else if (local.include.addrs.size() > 1 && local.include.has(anySource)) {
            entry = {};
            entry.include.add(anySource);
            return;
        }
        for (auto const source : local.include.addrs) entry.include.add(source);
        for (auto const source : local.exclude.addrs) entry.exclude.add(source);
        if (entry.empty()) status.erase(group);
    }
    void restoreSource(Lox::IpAddr source, Lox::IpAddr group, ModelLists& local) {
        bool included = false;
        bool excluded = false;
        auto const look = [&](ModelLists const* lists) {
            included = included || (lists && lists->include.has(source));
            excluded = excluded || (lists && lists->exclude.has(source));
        };
        look(find(configured_, group));
        for (auto const& [name, helper] : helpers)
            look(helper.groups.count(group) > 0 ? &helper.groups.at(group) : nullptr);
        if (excluded) {
            local.exclude.add(source);
        } else if (included) {
            local.include.add(source);
        }
    }

    // Routes
    void recordChange(std::size_t table, RouteName const& route) {
        if (route.group == Lox::IpAddr("224.0.0.0")) return;
        Changed const entry{table, route};
        if (std::count(changed.begin(), changed.end(), entry) == 0) changed.push_back(entry);
    }
    void wantFullSync() {
        fullSync = true;
        bookmark.reset();
    }
    /// The first route, from the given one on; with `after`, from what follows it.
    std::optional<Changed> routeFrom(std::optional<Changed> const& from, bool after) const {
        for (std::size_t table = from ? from->first : 0; table < tables_.size(); ++table)
            for (RouteName const& route : tables_[table]) {
                bool const here = from && from->first == table;
                if (!here || from->second < route || (!after && from->second == route))
                    return Changed{table, route};
            }
        return std::nullopt;
    }
    void syncSlice() {
        auto const at = routeFrom(bookmark, false);
        bookmark = at ? routeFrom(at, true) : std::nullopt;
        if (at) sync(*at);
    }
    bool owned(Lox::IpAddr group) {
        if (find(configured_, group)) return true;
        return std::any_of(helpers.begin(), helpers.end(),
                           [&](auto const& entry) { return entry.second.groups.count(group) > 0; });
    }
    void sync(Changed const& named) {
        auto const& [group, source] = named.second;
        auto const& table = tables_[named.first];
        if (deny || group == Lox::IpAddr("224.0.0.0") || owned(group)) return;
        if (table.count(named.second) == 0) return syncAbsent(group, source);
        ModelLists* const deleted = find(deleted_, group);
        if (deleted && (deleted->exclude.has(anySource) || deleted->include.has(source) ||
                        deleted->exclude.has(source)))
            return;
        if (table.count({group, anySource}) == 0) {
            status[group].include.add(source);
        } else {
            status[group].include = {};
            status[group].exclude.add(anySource);
        }
    }
    void syncAbsent(Lox::IpAddr group, Lox::IpAddr source) {
        if (source == anySource) {
            status.erase(group);
            return wantFullSync();
        }
        if (status.count(group) == 0) return;
        status[group].include.del(source);
        if (status[group].empty()) status.erase(group);
    }

    // Keeping the tables out
    void setDeny(bool on) {
        if (deny != on) {
            deny = on;
            handleDeny();
        }
    }
    void handleDeny() {
        if (!deny) return wantFullSync();
        for (auto entry = status.begin(); entry != status.end();) {
            for (Mode const mode : {Mode::include, Mode::exclude})
                std::erase_if(entry->second.of(mode).addrs,
                              [&](auto const source) { return !counted(source, entry->first); });
            entry = entry->second.empty() ? status.erase(entry) : std::next(entry);
        }
    }
    /// At start-up, what nobody asks for goes, however often it was counted.
    void clearLeftovers() {
        for (auto const& entry : configured_) status[entry.first];
        std::erase_if(status, [&](auto const& entry) {
            if (owned(entry.first)) return false;
            for (auto const& lists : {entry.second.include, entry.second.exclude})
                for (auto const source : lists.addrs) counts.erase({entry.first, source});
            return true;
        });
    }

    std::vector<Lox::IpAddr> groups_;
    Configured configured_, deleted_;
    std::vector<std::string> attached_;
    std::map<std::string, List> lists_;
    std::array<std::set<RouteName>, 2> tables_;
};

} // namespace IgmpHostProxy
