#include "agent/answers/Groups.h"

#include "IgmpHostProxy/IgmpHostProxySm.h"
#include "agent/config/AddressText.h"
#include "agent/control/JsonRpc.h"
#include "agent/loop/Json.h"

#include <algorithm>
#include <fmt/format.h>
#include <optional>

namespace Agent {

namespace {

using nlohmann::json;

json sourcesOf(Igmp::IgmpV3GroupRecord const& record) {
    json sources = json::array();
    if (Igmp::IgmpV3HostGroupSourceList const* const list = record.source())
        for (auto const& item : list->sourceIp())
            if (item.value != 0 && !item.key.isZero()) sources.push_back(item.key.stringValue());
    return sources;
}

/// The groups of one interface after those of another, as they are when it is their turn.
class GroupRows : public JsonElements {
  public:
    GroupRows(AgentView const& view, GroupFilter filter)
        : view_(view), filter_(std::move(filter)) {}
    bool next(JsonStream& stream) override {
        if (!place_) return doNextInterface();
        if (place_->at == place_->groups.end()) {
            place_.reset();
        } else {
            doShow(stream, *(*place_->at).value);
            ++place_->at;
        }
        return true;
    }

  private:
    bool doNextInterface() {
        auto const* const found = view_.nextInterface(interface_);
        if (!found) return false;
        interface_ = found->first;
        vrf_ = found->second.vrf;
        if (!filter_.interface.empty() && filter_.interface != *interface_) return true;
        if (!filter_.vrf.empty() && filter_.vrf != vrf_) return true;
        IgmpHostPort const* const port = view_.ports.port(*interface_);
        Igmp::IgmpHost const* const host = port ? port->host() : nullptr;
        if (host) place_.emplace(*host);
        return true;
    }

    void doShow(JsonStream& stream, Igmp::IgmpV3GroupRecord const& record) {
        Lox::IpAddr const group = record.group();
        if (!filter_.groups.has(group)) return;
        auto const wanted = originsOf(view_, *interface_, group);
        json wantedBy = json::array();
        bool shown = filter_.origin.empty();
        for (std::size_t i = 0; i < wanted.size(); ++i)
            if (wanted[i]) {
                wantedBy.push_back(originNames[i]);
                shown |= filter_.origin == originNames[i];
            }
        if (!shown) return;
        bool const include = record.filterMode() == Lox::IgmpV3GroupRecordType::modeIsInclude;
        stream.addElement({{"interface", *interface_},
                           {"vrf", vrf_},
                           {"group", group.stringValue()},
                           {"mode", include ? "include" : "exclude"},
                           {"sources", sourcesOf(record)},
                           {"origins", std::move(wantedBy)}});
    }

    AgentView const& view_;
    GroupFilter filter_;
    std::optional<std::string> interface_;
    std::string vrf_;
    std::optional<GroupPlace> place_;
};

} // namespace

GroupFilter GroupFilter::fromJson(json const& params) {
    GroupFilter filter;
    filter.interface = params.value("interface", "");
    filter.vrf = params.value("vrf", "");
    filter.origin = params.value("origin", "");
    if (!filter.origin.empty() &&
        std::find(originNames.begin(), originNames.end(), filter.origin) == originNames.end())
        throw RpcError(
            RpcError::invalidParams,
            fmt::format("origin {} found, expected configuration, list or route", filter.origin));
    std::string const groups = params.value("groups", "any");
    auto const range = parseRange(groups);
    if (!range)
        throw RpcError(RpcError::invalidParams,
                       fmt::format("groups {} found, expected a group or a prefix", groups));
    filter.groups = *range;
    return filter;
}

std::array<bool, originNames.size()> originsOf(AgentView const& view, std::string const& interface,
                                               Lox::IpAddr group) {
    InterfaceConfiguration const* const configured = view.configured(interface);
    Nex::Ptr const machine =
        view.root ? view.root->igmpHostProxyIntfSm(Lox::IntfId(interface)) : nullptr;
    bool const own = configured && configured->groups.find(group);
    bool const listed = machine && machine->aclHas(group);
    // The forwarding table has what nobody else owns.
    return {own, listed, !own && !listed};
}

std::string originText(Configuration const& configuration, std::string const& interface,
                       Lox::IpAddr group) {
    auto const [own, listed, route] = originNames;
    auto const found = configuration.interfaces.find(interface);
    if (found == configuration.interfaces.end()) return route;
    if (found->second.groups.find(group)) return own;
    for (std::string const& name : found->second.accessLists) {
        AccessListConfiguration const* const list = configuration.list(name);
        auto const* rule = list ? list->ruleAbout(group) : nullptr;
        while (rule && groupCount(rule->second) == 0) rule = list->ruleAbout(group, rule->first);
        if (rule) return fmt::format("{} {}", listed, name);
    }
    return route;
}

bool isRouteOnly(AgentView const& view, std::string const& interface, Lox::IpAddr group) {
    return originsOf(view, interface, group)[2];
}

std::unique_ptr<JsonElements> groupsAnswer(AgentView const& view, GroupFilter filter) {
    return std::make_unique<GroupRows>(view, std::move(filter));
}

} // namespace Agent
