// One interface with all that can ask it for groups, as plain lists: configuration, access lists,
// routes.
//
// A review has time for one route of the full sync and for one changed route.
#pragma once

#include "MergeModel.h"

#include <array>
#include <map>
#include <optional>
#include <set>

namespace IgmpHostProxy {

class ProducersModel : public MergeModel {
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

    std::map<std::string, Helper> helpers;
    bool deny = false;
    bool fullSync = false;
    std::optional<Changed> bookmark;
    std::vector<Changed> changed;

    // Sources that the configuration takes back
    void listAsDeleted(Lox::IpAddr group, Lox::IpAddr source, Mode mode) {
        if (deleted_[group].of(mode).add(source)) remove(group, source, mode);
    }
    void unlistDeleted(Lox::IpAddr group) { deleted_.erase(group); }

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
        counts_.clear();
        helpers.clear();
        changed.clear();
        wantFullSync();
        for (auto const& [name, list] : lists_) handleList(name);
        for (auto const& [name, list] : lists_) reconcile(name);
        for (auto const& [group, lists] : configured_) {
            insertStatus(group);
            for (auto const source : lists.include.addrs) add(source, group, Mode::include);
            for (auto const source : lists.exclude.addrs) add(source, group, Mode::exclude);
        }
        for (auto const& [group, lists] : deleted_) {
            for (auto const source : lists.include.addrs) remove(group, source, Mode::include);
            for (auto const source : lists.exclude.addrs) remove(group, source, Mode::exclude);
        }
        handleDeny();
        clearLeftovers();
        for (auto const& name : attached_) handleList(name);
        do syncSlice();
        while (bookmark); // the first review has time for all
        fullSync = false;
    }

  private:
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
            remove(group, source, modeOf(rule));
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

    bool wanted(Lox::IpAddr source, Lox::IpAddr group, Mode mode) override {
        if (MergeModel::wanted(source, group, mode)) return true;
        for (auto const& [name, helper] : helpers)
            for (Rule const& rule : helper.cached)
                if (rule.config.filter.source.address() == source && covers(rule.config, group) &&
                    modeOf(rule.config) == mode && valid(rule.config))
                    return true;
        return false;
    }
    bool restorable(Lox::IpAddr source, Lox::IpAddr group, Mode mode) override {
        if (MergeModel::wanted(source, group, mode)) return true;
        return std::any_of(helpers.begin(), helpers.end(), [&](auto& entry) {
            auto& groups = entry.second.groups;
            return groups.count(group) > 0 && groups[group].of(mode).has(source);
        });
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
        if (configured_.count(group) > 0) return true;
        return std::any_of(helpers.begin(), helpers.end(),
                           [&](auto const& entry) { return entry.second.groups.count(group) > 0; });
    }
    void sync(Changed const& named) {
        auto const& [group, source] = named.second;
        auto const& table = tables_[named.first];
        if (deny || group == Lox::IpAddr("224.0.0.0") || owned(group)) return;
        if (table.count(named.second) == 0) return syncAbsent(group, source);
        auto const deleted = deleted_.find(group);
        if (deleted != deleted_.end() &&
            (deleted->second.exclude.has(anySource) || deleted->second.include.has(source) ||
             deleted->second.exclude.has(source)))
            return;
        if (table.count({group, anySource}) == 0) return contribute(group, source, Mode::include);
        if (status_.count(group) > 0) delSources(group, Mode::include);
        contribute(group, anySource, Mode::exclude);
    }
    void syncAbsent(Lox::IpAddr group, Lox::IpAddr source) {
        if (source == anySource) {
            eraseStatus(group);
            return wantFullSync();
        }
        delSource(group, source, Mode::include);
        eraseIfEmpty(group);
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
        for (auto const& entry : std::map(status_)) {
            delUncounted(entry.first);
            eraseIfEmpty(entry.first);
        }
    }
    /// At start-up, what nobody asks for goes, however often it was counted.
    void clearLeftovers() {
        for (auto const& entry : configured_) insertStatus(entry.first);
        for (auto const& [group, entry] : std::map(status_)) {
            if (owned(group)) continue;
            for (auto const& lists : {entry.include, entry.exclude})
                for (auto const source : lists.addrs) forget(source, group);
            eraseStatus(group);
        }
    }

    std::vector<Lox::IpAddr> groups_;
    std::map<Lox::IpAddr, ModelLists> deleted_;
    std::vector<std::string> attached_;
    std::map<std::string, List> lists_;
    std::array<std::set<RouteName>, 2> tables_;
};

} // namespace IgmpHostProxy
