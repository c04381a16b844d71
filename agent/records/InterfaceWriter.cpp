#include "agent/records/InterfaceWriter.h"

#include <utility>

namespace Agent {

InterfaceWriter::InterfaceWriter(IgmpHostProxy::PlatformState& state, Place place, Owns owns,
                                 Observer observer)
    : state_(state),
      place_(std::move(place)),
      owns_(std::move(owns)),
      observer_(std::move(observer)) {}

Lox::IpAddr InterfaceWriter::address(std::string const& name) const {
    KernelInterface const* const kernel = device(name).kernel;
    return kernel && kernel->up ? kernel->primaryAddress() : Lox::IpAddr();
}

std::optional<std::string> InterfaceWriter::obstacle(std::string const& name) const {
    if (!synchronized()) return std::nullopt;
    KernelInterface const* const kernel = device(name).kernel;
    if (!kernel && links().device(name).kernel) return noPortOf(place_.vrfDevice);
    return obstacleOf(kernel);
}

Device InterfaceWriter::device(std::string const& name) const {
    Device const found = links().device(name);
    return found.kernel && has(*found.kernel) ? found : Device();
}

bool InterfaceWriter::has(KernelInterface const& interface) const {
    return place_.vrfDevice.empty() ||
           (interface.master != 0 && interface.master == links().device(place_.vrfDevice).ifindex);
}

std::uint32_t InterfaceWriter::vrfTable() const {
    KernelInterface const* const kernel = links().device(place_.vrfDevice).kernel;
    return kernel ? kernel->vrfTable : 0;
}

void InterfaceWriter::doPublishInterface(int ifindex) {
    KernelInterface const* const kernel = links().interface(ifindex);
    auto const known = names_.find(ifindex);
    std::string const before = known == names_.end() ? std::string() : known->second;
    if (kernel)
        names_[ifindex] = kernel->name;
    else if (known != names_.end())
        names_.erase(known);
    // An interface that loses its name or its device goes down before its device does.
    if (!before.empty() && (!kernel || kernel->name != before)) doPublish(before);
    doPublishKernelInterface(ifindex);
    if (kernel) doPublish(kernel->name);
    if (!place_.vrfDevice.empty() &&
        (before == place_.vrfDevice || (kernel && kernel->name == place_.vrfDevice)))
        doPublishPorts();
}

/// The VRF device came, went, or got another name.
void InterfaceWriter::doPublishPorts() {
    std::map<int, std::string> const names = names_;
    for (auto const& [ifindex, name] : names)
        if (name != place_.vrfDevice) doPublish(name);
}

void InterfaceWriter::doPublishKernelInterface(int ifindex) {
    if (!place_.vrfDevice.empty()) return; // the default VRF's tells of the whole namespace
    KernelNetInfo::Status* const table = state_.kni(place_.networkNamespace);
    if (!table) return;
    auto const index = std::uint32_t(ifindex);
    if (KernelInterface const* const kernel = links().interface(ifindex))
        table->interfaceIs(KernelNetInfo::InterfaceKey(index), {index, kernel->name, kernel->mac});
    else
        table->interfaceDel(KernelNetInfo::InterfaceKey(index));
}

void InterfaceWriter::doPublish(std::string const& name) {
    Lox::IpAddr const usableAddress = address(name);
    if (!owns_(name)) {
        // Not listed; but groups may have to be left there.
    } else if (usableAddress.isZero()) {
        doWithdraw(name);
    } else {
        doPublishUsable(Lox::IntfId(name), usableAddress);
    }
    observer_(name);
}

void InterfaceWriter::doPublishAll() {
    std::map<int, std::string> const known = names_;
    for (auto const& [ifindex, name] : known) doPublishInterface(ifindex);
    for (auto const& [ifindex, interface] : links().interfaces())
        if (!known.contains(ifindex)) doPublishInterface(ifindex);
}

void InterfaceWriter::doPublishUsable(Lox::IntfId const& intfId, Lox::IpAddr usableAddress) {
    auto const ipStatus = state_.ipStatus->ipIntfStatusIs(intfId);
    if (!ipStatus->ipIntfConfig() || ipStatus->ipIntfConfig()->vrf() != place_.vrf) {
        auto const ipConfig = Ip::IpIntfConfig::IpIntfConfigIs(intfId);
        ipConfig->vrfIs(place_.vrf);
        ipStatus->ipIntfConfigIs(ipConfig);
    }
    auto const local = state_.allIntfStatusLocalDir->intfStatusLocalIs(intfId);
    local->networkNamespaceIs(place_.networkNamespace);
    local->deviceNameIs(intfId.stringValue());
    if (auto* const source = state_.sourceIntfSm->sourceIntf(intfId))
        source->ipAddrIs(usableAddress);
    state_.allIntfStatusDir->intfStatusIs(intfId)->operUpIs(true);
}

void InterfaceWriter::doWithdraw(std::string const& name) {
    Lox::IntfId const intfId(name);
    if (auto* const status = state_.allIntfStatusDir->intfStatus(intfId)) status->operUpIs(false);
    if (Nex::Ptr const source = state_.sourceIntfSm->sourceIntf(intfId))
        source->ipAddrIs(Lox::IpAddr());
}

void InterfaceWriter::doWithdrawAll() {
    std::map<int, std::string> const names = names_;
    for (auto const& [ifindex, name] : names)
        if (owns_(name)) doWithdraw(name);
}

} // namespace Agent
