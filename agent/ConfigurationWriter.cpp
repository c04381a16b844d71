#include "agent/ConfigurationWriter.h"

#include <algorithm>

namespace Agent {

namespace {

using IgmpHostProxy::GroupSource;
using IgmpHostProxy::IntfConfig;
using Sources = std::set<Lox::IpAddr>;

/// Calls `visit` for the members of `a` that `b` lacks.
template <class Visit>
void forDifference(Sources const& a, Sources const& b, Visit visit) {
    for (Lox::IpAddr const source : a)
        if (!b.contains(source)) visit(source);
}

/// Takes the sources of one group that `now` lacks out of the configured list, then has the
/// machine take their effect back by listing them as deleted, and leaves no trace there: a source
/// that stays listed as deleted would be kept out of the forwarding table's groups, too.
void doRemove(IntfConfig& record, Lox::IpAddr group, GroupConfiguration const& before,
              GroupConfiguration const* now) {
    static GroupConfiguration const nothing;
    GroupConfiguration const& stays = now ? *now : nothing;
    auto const gone = GroupSource::GroupSourceIs(group);
    forDifference(before.include, stays.include, [&](auto s) { gone->includeSourceListIs(s); });
    forDifference(before.exclude, stays.exclude, [&](auto s) { gone->excludeSourceListIs(s); });
    if (!now) {
        record.groupSourceListDel(group);
    } else if (Nex::Ptr<GroupSource> const configured = record.groupSourceList(group)) {
        for (auto const s : gone->includeSourceList()) configured->includeSourceListDel(s);
        for (auto const s : gone->excludeSourceList()) configured->excludeSourceListDel(s);
    }
    if (gone->empty()) return;
    auto const deleted = record.deletedGroupSourceListIs(group);
    for (auto const s : gone->includeSourceList()) deleted->includeSourceListIs(s);
    for (auto const s : gone->excludeSourceList()) deleted->excludeSourceListIs(s);
    record.deletedGroupSourceListDel(group);
}

/// The groups that an interface's part of a configuration keeps from the forwarding table: those
/// configured, and those that the rules of its lists select.
std::set<Lox::IpAddrWithFullMask> claims(Configuration const& configuration,
                                         InterfaceConfiguration const& interface) {
    std::set<Lox::IpAddrWithFullMask> claims;
    for (auto const& item : interface.groups) claims.emplace(item.first, ~std::uint32_t(0));
    for (std::string const& name : interface.accessLists) {
        auto const list = configuration.accessLists.find(name);
        if (list == configuration.accessLists.end()) continue;
        for (auto const& [sequence, rule] : list->second)
            if (groupCount(rule) > 0) claims.insert(rule.filter.destination);
    }
    return claims;
}

} // namespace

void ConfigurationWriter::configurationIs(Configuration configuration) {
    before_ = std::exchange(written_, std::move(configuration));
    auto const& now = written_.interfaces;
    // What goes, goes first: any source is refused while specific sources of the group are listed.
    for (auto const& [name, interface] : before_.interfaces) {
        auto const stays = now.find(name);
        Nex::Ptr<IntfConfig> const record = state_.config->intfConfig(Lox::IntfId(name));
        if (stays == now.end()) {
            state_.config->intfConfigDel(Lox::IntfId(name));
        } else if (record) {
            doRemoveGroups(interface, stays->second, *record);
            doDetachLists(stays->second, *record);
        }
    }
    accessLists_.listsIs(written_.accessLists);
    for (auto const& [name, interface] : now) {
        auto const record = state_.config->intfConfigIs(Lox::IntfId(name));
        record->igmpVersionIs(IgmpHostProxy::IgmpVersion(interface.igmpVersion));
        record->unsolicitedReportIntvlIs(
            IgmpHostProxy::UnsolicitedReportInterval(interface.unsolicitedReportInterval));
        doAddGroups(interface, *record);
        if (hosts_.contains(name)) doAttachLists(interface, *record);
    }
}

std::vector<ConfigurationWriter::Released> ConfigurationWriter::released() const {
    std::vector<Released> released;
    for (auto const& [name, interface] : before_.interfaces) {
        auto const stays = written_.interfaces.find(name);
        if (stays == written_.interfaces.end()) continue;
        std::set<Lox::IpAddrWithFullMask> const now = claims(written_, stays->second);
        for (Lox::IpAddrWithFullMask const groups : claims(before_, interface))
            if (!now.contains(groups)) released.push_back({name, groups});
    }
    return released;
}

void ConfigurationWriter::hostIs(std::string const& name, bool present) {
    if (present) {
        hosts_.insert(name);
    } else {
        hosts_.erase(name);
    }
    Nex::Ptr<IntfConfig> const record = state_.config->intfConfig(Lox::IntfId(name));
    auto const interface = written_.interfaces.find(name);
    if (!record) return;
    if (present && interface != written_.interfaces.end()) {
        doAttachLists(interface->second, *record);
    } else {
        record->aclListDelAll();
    }
}

void ConfigurationWriter::doRemoveGroups(InterfaceConfiguration const& before,
                                         InterfaceConfiguration const& now, IntfConfig& record) {
    for (auto const& [group, wanted] : before.groups) {
        auto const stays = now.groups.find(group);
        doRemove(record, group, wanted, stays == now.groups.end() ? nullptr : &stays->second);
    }
}

void ConfigurationWriter::doAddGroups(InterfaceConfiguration const& now, IntfConfig& record) {
    for (auto const& [group, wanted] : now.groups) {
        auto const configured = record.groupSourceListIs(group);
        for (auto const source : wanted.include) configured->includeSourceListIs(source);
        for (auto const source : wanted.exclude) configured->excludeSourceListIs(source);
    }
}

void ConfigurationWriter::doDetachLists(InterfaceConfiguration const& now, IntfConfig& record) {
    for (Nex::String const& name : record.aclList())
        if (std::find(now.accessLists.begin(), now.accessLists.end(), name) ==
            now.accessLists.end())
            record.aclListDel(name);
}

void ConfigurationWriter::doAttachLists(InterfaceConfiguration const& now, IntfConfig& record) {
    for (std::string const& name : now.accessLists) record.aclListIs(name);
}

} // namespace Agent
