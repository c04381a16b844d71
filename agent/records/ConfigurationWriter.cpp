#include "agent/records/ConfigurationWriter.h"

#include <algorithm>

namespace Agent {

namespace {

using IgmpHostProxy::GroupSource;
using IgmpHostProxy::IntfConfig;
using Sources = GroupConfiguration::Sources;
using Groups = GroupConfigurations;

/// Calls `visit` for the members of `a` that `b` lacks.
template <class Visit>
void forDifference(Sources const& a, Sources const& b, Visit visit) {
    for (Lox::IpAddr const source : a)
        if (!std::ranges::binary_search(b, source)) visit(source);
}

/// Takes the sources of one group that `now` lacks out of the configured list, then has the
/// machine take their effect back by listing them as deleted, and leaves no trace there: a source
/// that stays listed as deleted would be kept out of the forwarding table's groups, too. Returns
/// whether there were any.
bool doRemove(IntfConfig& record, Lox::IpAddr group, GroupConfiguration const& before,
              GroupConfiguration const* now) {
    static GroupConfiguration const nothing;
    if (now && *now == before) return false;
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
    if (gone->empty()) return false;
    auto const deleted = record.deletedGroupSourceListIs(group);
    for (auto const s : gone->includeSourceList()) deleted->includeSourceListIs(s);
    for (auto const s : gone->excludeSourceList()) deleted->excludeSourceListIs(s);
    record.deletedGroupSourceListDel(group);
    return true;
}

void doAdd(IntfConfig& record, Lox::IpAddr group, GroupConfiguration const& wanted) {
    auto const configured = record.groupSourceListIs(group);
    for (auto const source : wanted.include) configured->includeSourceListIs(source);
    for (auto const source : wanted.exclude) configured->excludeSourceListIs(source);
}

/// Calls `visit(group, wanted, other)` for each of these groups, with what is wanted of it among
/// the others; null for nothing.
template <class Visit>
void forGroups(Groups const& groups, Groups const& others, Visit visit) {
    auto other = others.begin();
    for (auto const& [group, wanted] : groups) {
        while (other != others.end() && other->first < group) ++other;
        bool const found = other != others.end() && other->first == group;
        visit(group, wanted, found ? &other->second : nullptr);
    }
}

} // namespace

void ConfigurationWriter::applyConfiguration(Configuration configuration) {
    before_ = std::exchange(written_, std::move(configuration));
    doWrite();
}

void ConfigurationWriter::doRewrite(std::function<void()> const& attach) {
    before_ = {};
    hosts_.clear();
    accessLists_.doForget();
    state_.config->intfConfigDelAll();
    state_.aclConfig->aclDelAll();
    attach();
    doWrite();
}

void ConfigurationWriter::doWrite() {
    auto const& now = written_.interfaces;
    bool lost = false;
    // What goes, goes first: any source is refused while specific sources of the group are listed.
    for (auto const& [name, interface] : before_.interfaces) {
        auto const stays = now.find(name);
        Nex::Ptr<IntfConfig> const record = state_.config->intfConfig(Lox::IntfId(name));
        if (stays == now.end()) {
            state_.config->intfConfigDel(Lox::IntfId(name));
        } else if (record) {
            lost |= doRemoveGroups(interface, stays->second, *record);
            lost |= doDetachLists(stays->second, *record);
        }
    }
    lost |= accessLists_.applyLists(written_.accessLists);
    for (auto const& [name, interface] : now) {
        auto const was = before_.interfaces.find(name);
        doWriteInterface(name, interface, was == before_.interfaces.end() ? nullptr : &was->second,
                         lost);
    }
}

void ConfigurationWriter::doWriteInterface(std::string const& name,
                                           InterfaceConfiguration const& now,
                                           InterfaceConfiguration const* was, bool lost) {
    static Groups const nothing;
    auto const record = state_.config->intfConfigIs(Lox::IntfId(name));
    record->igmpVersionIs(IgmpHostProxy::IgmpVersion(now.igmpVersion));
    record->unsolicitedReportIntvlIs(
        IgmpHostProxy::UnsolicitedReportInterval(now.unsolicitedReportInterval));
    forGroups(now.groups, was ? was->groups : nothing,
              [&](auto group, auto const& wanted, auto const* there) {
                  if (!there || *there != wanted) doAdd(*record, group, wanted);
              });
    if (!hosts_.contains(name)) return;
    doAttachLists(now, *record);
    if (lost) doRenewWishes(now, *record);
}

void ConfigurationWriter::doAddInterface(std::string const& name,
                                         InterfaceConfiguration const& interface) {
    auto const added = written_.interfaces.emplace(name, interface).first;
    doWriteInterface(name, added->second, nullptr, false);
}

void ConfigurationWriter::doRemoveInterface(std::string const& name) {
    written_.interfaces.erase(name);
    state_.config->intfConfigDel(Lox::IntfId(name));
}

std::vector<ConfigurationWriter::Released> ConfigurationWriter::released() const {
    std::vector<Released> released;
    for (auto const& item : before_.interfaces) {
        std::string const& name = item.first;
        InterfaceConfiguration const& was = item.second;
        auto const stays = written_.interfaces.find(name);
        if (stays == written_.interfaces.end()) continue;
        InterfaceConfiguration const& now = stays->second;
        forGroups(was.groups, now.groups, [&](auto group, auto const&, auto const* kept) {
            if (!kept) released.push_back({name, Lox::IpAddrWithFullMask(group, ~0u)});
        });
        for (std::string const& list : was.accessLists) {
            AccessListConfiguration const* const before = before_.list(list);
            AccessListConfiguration const* const after =
                std::ranges::count(now.accessLists, list) > 0 ? written_.list(list) : nullptr;
            if (!before) continue;
            before->forRanges([&](Lox::IpAddrWithFullMask groups) {
                if (!after || !after->selects(groups)) released.push_back({name, groups});
            });
        }
    }
    return released;
}

void ConfigurationWriter::handleHost(std::string const& name, bool present) {
    if (present)
        hosts_.insert(name);
    else
        hosts_.erase(name);
    Nex::Ptr<IntfConfig> const record = state_.config->intfConfig(Lox::IntfId(name));
    auto const interface = written_.interfaces.find(name);
    if (!record) return;
    if (present && interface != written_.interfaces.end())
        doAttachLists(interface->second, *record);
    else
        record->aclListDelAll();
}

bool ConfigurationWriter::doRemoveGroups(InterfaceConfiguration const& before,
                                         InterfaceConfiguration const& now, IntfConfig& record) {
    bool lost = false;
    forGroups(before.groups, now.groups, [&](auto group, auto const& wanted, auto const* stays) {
        lost |= doRemove(record, group, wanted, stays);
    });
    return lost;
}

bool ConfigurationWriter::doDetachLists(InterfaceConfiguration const& now, IntfConfig& record) {
    std::size_t const before = record.aclListCount();
    for (Nex::String const& name : record.aclList())
        if (std::find(now.accessLists.begin(), now.accessLists.end(), name) ==
            now.accessLists.end())
            record.aclListDel(name);
    return record.aclListCount() != before;
}

/// From every interface. Those that keep it attach it again, with the rules that stay.
void ConfigurationWriter::doDetachList(std::string const& name) {
    for (auto const& item : written_.interfaces)
        if (Nex::Ptr const record = state_.config->intfConfig(Lox::IntfId(item.first)))
            record->aclListDel(name);
}

/// A machine forgets a wish in two cases, and hears it again. A group that is wanted from any
/// source as well as from specific ones is listed with these; when they go, with nothing, or by a
/// rule that denies the forwarding table's groups not at all. And one such rule that goes admits
/// these, whatever other rules say.
void ConfigurationWriter::doRenewWishes(InterfaceConfiguration const& now, IntfConfig& record) {
    Nex::Ptr<IgmpHostProxy::IntfStatus> const status = state_.status->intfStatus(record.intfId());
    if (!status) return;
    bool forgotten = deniesRoutes(record) != status->denyMroute();
    for (auto const& [group, announced] : status->groupSourceList())
        forgotten |= announced->empty() && !now.groups.find(group);
    for (auto const& [group, wanted] : now.groups) {
        Nex::Ptr const announced = status->groupSourceList(group);
        if (announced && !announced->empty()) continue;
        doRemove(record, group, wanted, nullptr);
        doAdd(record, group, wanted);
    }
    if (!forgotten) return;
    record.aclListDelAll();
    doAttachLists(now, record);
}

bool ConfigurationWriter::deniesRoutes(IntfConfig const& record) const {
    for (Nex::String const& name : record.aclList()) {
        AccessListConfiguration const* const list = written_.list(name);
        if (list && list->deniesAll()) return true;
    }
    return false;
}

void ConfigurationWriter::doAttachLists(InterfaceConfiguration const& now, IntfConfig& record) {
    for (std::string const& name : now.accessLists) record.aclListIs(name);
}

} // namespace Agent
