#include "agent/ConfigurationWriter.h"

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

} // namespace

void ConfigurationWriter::configurationIs(Configuration configuration) {
    Configuration const before = std::exchange(written_, std::move(configuration));
    for (auto const& [name, interface] : before.interfaces)
        if (!written_.interfaces.contains(name)) state_.config->intfConfigDel(Lox::IntfId(name));
    for (auto const& [name, interface] : written_.interfaces) {
        auto const known = before.interfaces.find(name);
        auto const record = state_.config->intfConfigIs(Lox::IntfId(name));
        doWrite(*record,
                known == before.interfaces.end() ? InterfaceConfiguration{} : known->second,
                interface);
    }
}

void ConfigurationWriter::doWrite(IntfConfig& record, InterfaceConfiguration const& before,
                                  InterfaceConfiguration const& now) {
    record.igmpVersionIs(IgmpHostProxy::IgmpVersion(now.igmpVersion));
    record.unsolicitedReportIntvlIs(
        IgmpHostProxy::UnsolicitedReportInterval(now.unsolicitedReportInterval));
    // Removals first: any-source is refused in exclude mode while specific sources are listed.
    for (auto const& [group, wanted] : before.groups) {
        auto const stays = now.groups.find(group);
        doRemove(record, group, wanted, stays == now.groups.end() ? nullptr : &stays->second);
    }
    for (auto const& [group, wanted] : now.groups) {
        auto const configured = record.groupSourceListIs(group);
        for (auto const source : wanted.include) configured->includeSourceListIs(source);
        for (auto const source : wanted.exclude) configured->excludeSourceListIs(source);
    }
}

} // namespace Agent
