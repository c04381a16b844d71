// ihproxy-demo: the main job without a kernel. A configuration file goes through the machines on
// the in-process platform; shown side by side are what it asks, what the interface's status
// announces, and the group records that the host entity would put on the wire.
#include "Nex/System.h"
#include "agent/records/ConfigurationWriter.h"

#include <algorithm>
#include <cstdio>
#include <fmt/core.h>
#include <string>

namespace {

using Agent::GroupConfiguration;

/// An interface of the default VRF that is up, with device and address.
void makeUsable(IgmpHostProxy::PlatformState& state, std::string const& name,
                std::uint32_t ifIndex) {
    Lox::IntfId const intfId(name);
    auto const ipConfig = Ip::IpIntfConfig::IpIntfConfigIs(intfId);
    ipConfig->vrfIs(L3::VrfName(Agent::defaultVrf));
    state.ipStatus->ipIntfStatusIs(intfId)->ipIntfConfigIs(ipConfig);
    state.sourceIntfSm->registerSourceIntf(intfId)->ipAddrIs(Lox::IpAddr("192.0.2.1"));
    state.kni(Lox::NamespaceName::defaultNamespace())
        ->interfaceIs(KernelNetInfo::InterfaceKey(ifIndex),
                      {ifIndex, name, Lox::EthAddr({2, 0, 0, 0, 0, std::uint8_t(ifIndex)})});
    auto const local = state.allIntfStatusLocalDir->intfStatusLocalIs(intfId);
    local->networkNamespaceIs(Lox::NamespaceName::defaultNamespace());
    local->deviceNameIs(name);
    state.allIntfStatusDir->intfStatusIs(intfId)->operUpIs(true);
}

std::string textOf(char const* before, GroupConfiguration::Sources const& sources) {
    std::string text(before);
    for (Lox::IpAddr const source : sources) text.append(" ").append(source.stringValue());
    return text;
}

/// The same words for all three views; source 0.0.0.0 excluded means any.
std::string wish(GroupConfiguration const& wanted) {
    GroupConfiguration::Sources excluded = wanted.exclude;
    std::erase(excluded, Lox::IpAddr());
    if (!wanted.include.empty()) return textOf("only from", wanted.include);
    return excluded.empty() ? "from any source" : textOf("all but from", excluded);
}

GroupConfiguration announced(IgmpHostProxy::GroupSource const* entry) {
    GroupConfiguration wanted;
    for (Lox::IpAddr const source : entry->includeSourceList()) wanted.include.push_back(source);
    for (Lox::IpAddr const source : entry->excludeSourceList()) wanted.exclude.push_back(source);
    std::ranges::sort(wanted.include);
    std::ranges::sort(wanted.exclude);
    return wanted;
}

GroupConfiguration programmed(Igmp::IgmpV3GroupRecord const* record) {
    GroupConfiguration wanted;
    bool const include = record->filterMode() == Lox::IgmpV3GroupRecordType::modeIsInclude;
    for (auto const& item : record->source()->sourceIp())
        (include ? wanted.include : wanted.exclude).push_back(item.key);
    std::ranges::sort(include ? wanted.include : wanted.exclude);
    return wanted;
}

/// Prints one interface and returns whether its three views agree.
bool show(IgmpHostProxy::PlatformState& state, std::string const& name,
          Agent::InterfaceConfiguration const& interface) {
    auto* const status = state.status->intfStatus(Lox::IntfId(name));
    auto* const host = state.hostDir->igmpHost(name);
    if (!status || !host) return false;
    bool agreed = status->groupSourceListCount() == interface.groups.size() &&
                  host->v3groupCount() == interface.groups.size();
    for (auto const& [group, wanted] : interface.groups) {
        auto const* const entry = status->groupSourceList(group);
        auto const* const record = host->v3group(group);
        std::string const views[] = {wish(wanted), entry ? wish(announced(entry)) : "-",
                                     record ? wish(programmed(record)) : "-"};
        fmt::print("{:<6} {:<15} {:<28} {:<28} {}\n", name, group.stringValue(), views[0], views[1],
                   views[2]);
        agreed = agreed && views[0] == views[1] && views[1] == views[2];
    }
    return agreed;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: ihproxy-demo CONFIGURATION\n", stderr);
        return 2;
    }
    Agent::ConfigurationReading const reading = Agent::configurationRead(argv[1]);
    for (Agent::Diagnostic const& diagnostic : reading.diagnostics)
        std::puts(diagnostic.stringValue().c_str());
    if (!reading.valid()) return 1;

    IgmpHostProxy::PlatformState state;
    auto const root = state.makeRoot();
    Nex::Owned<IgmpHostProxy::HostStatusPublisher> publisher;
    publisher.make(state.hostDir, state.hostStatusDir.get());
    state.mfibDir->keshCollIs(L3::VrfName(Agent::defaultVrf));
    Agent::ConfigurationWriter(state).applyConfiguration(reading.configuration);
    std::uint32_t ifIndex = 1;
    for (auto const& item : reading.configuration.interfaces)
        makeUsable(state, item.first, ++ifIndex);

    fmt::print("{:<6} {:<15} {:<28} {:<28} {}\n", "", "group", "the configuration asks",
               "the status announces", "the host would report");
    bool agreed = true;
    for (auto const& [name, interface] : reading.configuration.interfaces)
        agreed = show(state, name, interface) && agreed;
    std::puts(agreed ? "all three agree" : "they do not agree");
    return agreed ? 0 : 1;
}
