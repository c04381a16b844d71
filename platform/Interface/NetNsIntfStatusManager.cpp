#include "Interface/NetNsIntfStatusManager.h"

namespace Interface {

NetNsIntfStatusManager::NetNsIntfStatusManager(
    Nex::Ptr<AllIntfStatusDir const> allIntfStatusDir,
    Nex::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir,
    Nex::Ptr<DeviceIntfStatusDir> deviceIntfStatusDir,
    Nex::Ptr<KernelNetInfo::Status const> kniStatus, Lox::NamespaceName networkNamespace)
    : allIntfStatus_(allIntfStatusDir),
      allIntfStatusLocal_(allIntfStatusLocalDir),
      deviceIntfStatusDir_(std::move(deviceIntfStatusDir)),
      kni_(kniStatus),
      networkNamespace_(std::move(networkNamespace)) {
    if (!allIntfStatus_ || !allIntfStatusLocal_ || !kni_) return;
    allIntfStatusDir_.make(allIntfStatusDir, this);
    allIntfStatusLocalDir_.make(allIntfStatusLocalDir, this);
    kniStatus_.make(kniStatus, this);
    for (auto const& item : kniStatus->interface()) handleInterface(item.key);
    for (auto const& item : allIntfStatusDir->intfStatus()) handleIntfStatus(item.key);
    for (auto const& item : allIntfStatusLocalDir->intfStatusLocal())
        handleIntfStatusLocal(item.key);
}

void NetNsIntfStatusManager::handleIntfStatus(Lox::IntfId const& intfId) {
    if (auto const* const status = allIntfStatus_->intfStatus(intfId)) {
        intfStatus_.is(intfId, Nex::Ptr(status), this);
    } else {
        intfStatus_.del(intfId);
    }
    handleIntf(intfId);
}

void NetNsIntfStatusManager::handleIntfStatusLocal(Lox::IntfId const& intfId) {
    if (auto const* const status = allIntfStatusLocal_->intfStatusLocal(intfId)) {
        intfStatusLocal_.is(intfId, Nex::Ptr(status), this);
    } else {
        intfStatusLocal_.del(intfId);
    }
    handleIntf(intfId);
}

void NetNsIntfStatusManager::handleInterface(KernelNetInfo::InterfaceKey key) {
    Nex::String const before = deviceByIfIndex_.take(key.ifIndex());
    if (auto const* const index = ifIndexByDevice_.find(before); index && *index == key.ifIndex())
        doForgetDevice(before);
    KernelNetInfo::Interface const now = kni_->interface(key);
    if (now.ifIndex != 0) {
        *deviceByIfIndex_.findOrInsert(now.ifIndex).first = now.deviceName;
        *ifIndexByDevice_.findOrInsert(now.deviceName).first = now.ifIndex;
    }
    for (auto const& item : allIntfStatusLocal_->intfStatusLocal())
        if (item.value->deviceName() == before || item.value->deviceName() == now.deviceName)
            handleIntf(item.key);
}

void NetNsIntfStatusManager::doForgetDevice(Nex::String const& deviceName) {
    ifIndexByDevice_.take(deviceName);
    // Between a device's end and its successor's beginning the table may show both, in any order.
    for (auto const& item : deviceByIfIndex_.walk())
        if (item.value == deviceName) *ifIndexByDevice_.findOrInsert(deviceName).first = item.key;
}

IntfStatusAndDeviceName NetNsIntfStatusManager::entryOf(Lox::IntfId const& intfId) const {
    auto const* const status = allIntfStatus_->intfStatus(intfId);
    auto const* const local = allIntfStatusLocal_->intfStatusLocal(intfId);
    if (!status || !status->operUp() || !local || local->networkNamespace() != networkNamespace_)
        return {};
    auto const* const ifIndex = ifIndexByDevice_.find(local->deviceName());
    if (!ifIndex) return {};
    return {Nex::Ptr(const_cast<IntfStatus*>(status)), local->deviceName(), *ifIndex};
}

void NetNsIntfStatusManager::handleIntf(Lox::IntfId const& intfId) {
    IntfStatusAndDeviceName const listed = deviceIntfStatusDir_->intfStatusAndDeviceName(intfId);
    if (entryOf(intfId) == listed) return;
    // A device that came back under another index or name is another device.
    if (listed != IntfStatusAndDeviceName()) doDelist(intfId);
    // Looked up again, for whoever was told may have changed it.
    IntfStatusAndDeviceName const entry = entryOf(intfId);
    if (entry != IntfStatusAndDeviceName()) doList(intfId, entry);
}

void NetNsIntfStatusManager::doList(Lox::IntfId const& intfId,
                                    IntfStatusAndDeviceName const& entry) {
    deviceIntfStatusDir_->intfToDeviceNameIs(entry.ifIndex, {intfId, entry.deviceName});
    deviceIntfStatusDir_->intfStatusAndDeviceNameIs(intfId, entry);
}

void NetNsIntfStatusManager::doDelist(Lox::IntfId const& intfId) {
    std::uint32_t const ifIndex = deviceIntfStatusDir_->intfStatusAndDeviceName(intfId).ifIndex;
    deviceIntfStatusDir_->intfStatusAndDeviceNameDel(intfId);
    if (deviceIntfStatusDir_->intfToDeviceName(ifIndex).intfId == intfId)
        deviceIntfStatusDir_->intfToDeviceNameDel(ifIndex);
}

void NetNsIntfStatusManagerRoot::intfStatusManagerIs(
    Nex::Ptr<DeviceIntfStatusDir> deviceIntfStatusDir,
    Nex::Ptr<KernelNetInfo::Status const> kniStatus, Lox::NamespaceName networkNamespace) {
    if (!active_) return;
    intfStatusManagerDel(networkNamespace);
    managers_.findOrInsert(networkNamespace);
    auto const manager = Nex::newObject<NetNsIntfStatusManager>(
        allIntfStatusDir_, allIntfStatusLocalDir_, std::move(deviceIntfStatusDir),
        std::move(kniStatus), networkNamespace);
    auto* const place = managers_.find(networkNamespace);
    if (place && !*place) {
        *place = manager;
    } else {
        manager->nexDoZombieReactors(true); // deleted, or made anew, while it filled its directory
    }
}

void NetNsIntfStatusManagerRoot::intfStatusManagerDel(Lox::NamespaceName const& networkNamespace) {
    if (auto const manager = managers_.take(networkNamespace)) manager->nexDoZombieReactors(true);
}

NetNsIntfStatusManager*
NetNsIntfStatusManagerRoot::intfStatusManager(Lox::NamespaceName const& networkNamespace) const {
    auto const* const found = managers_.find(networkNamespace);
    return found ? found->get() : nullptr;
}

} // namespace Interface
