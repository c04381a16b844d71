#include "agent/answers/Groups.h"

#include "agent/config/AddressText.h"
#include "agent/control/JsonRpc.h"

#include "Igmp/IgmpHost.h"
#include "IgmpHostProxy/IgmpHostProxySm.h"

#include <fmt/format.h>
#include <optional>

namespace Agent {

namespace {

using nlohmann::json;

constexpr char const* origins[] = {"configuration", "list", "route"};

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
    /// In the groups of one host entity.
    struct Place {
        explicit Place(Igmp::IgmpHost const& host) : groups(host.v3group()), at(groups.begin()) {}
        decltype(std::declval<Igmp::IgmpHost const&>().v3group()) groups;
        decltype(groups.begin()) at;
    };

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
        auto const wantedBy = originsOf(view_, *interface_, group);
        if (!filter_.origin.empty() &&
            std::find(wantedBy.begin(), wantedBy.end(), filter_.origin) == wantedBy.end())
            return;
        bool const include = record.filterMode() == Lox::IgmpV3GroupRecordType::modeIsInclude;
        stream.addElement({{"interface", *interface_},
                           {"vrf", vrf_},
                           {"group", group.stringValue()},
                           {"mode", include ? "include" : "exclude"},
                           {"sources", sourcesOf(record)},
                           {"origins", wantedBy}});
    }

    AgentView const& view_;
    GroupFilter filter_;
    std::optional<std::string> interface_;
    std::string vrf_;
    std::optional<Place> place_;
};

} // namespace

GroupFilter GroupFilter::fromJson(json const& params) {
    GroupFilter filter;
    filter.interface = params.value("interface", "");
    filter.vrf = params.value("vrf", "");
    filter.origin = params.value("origin", "");
    if (!filter.origin.empty() &&
        std::find(std::begin(origins), std::end(origins), filter.origin) == std::end(origins))
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

json toJson(HostEngine::GroupState const& state) {
    json sources = json::array();
    for (Lox::IpAddr const source : state.sources) sources.push_back(source.stringValue());
    return {{"mode", state.mode == FilterMode::include ? "include" : "exclude"},
            {"sources", std::move(sources)}};
}

std::vector<std::string> originsOf(AgentView const& view, std::string const& interface,
                                   Lox::IpAddr group) {
    std::vector<std::string> found;
    InterfaceConfiguration const* const configured = view.configured(interface);
    if (configured && configured->groups.contains(group)) found.emplace_back(origins[0]);
    Nex::Ptr const machine =
        view.root ? view.root->igmpHostProxyIntfSm(Lox::IntfId(interface)) : nullptr;
    if (machine && machine->aclHas(group)) found.emplace_back(origins[1]);
    // The forwarding table has what nobody else owns.
    if (found.empty()) found.emplace_back(origins[2]);
    return found;
}

bool isRouteOnly(AgentView const& view, std::string const& interface, Lox::IpAddr group) {
    return originsOf(view, interface, group) == std::vector<std::string>{origins[2]};
}

std::unique_ptr<JsonElements> groupsAnswer(AgentView const& view, GroupFilter filter) {
    return std::make_unique<GroupRows>(view, std::move(filter));
}

} // namespace Agent
