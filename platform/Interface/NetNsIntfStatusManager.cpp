#include "Interface/NetNsIntfStatusManager.h"

#include "Nex/Error.h"

namespace Interface {

// One manager

NetNsIntfStatusManager::NetNsIntfStatusManager(Nex::Ptr<DeviceIntfStatusDir> deviceIntfStatusDir,
                                               Nex::Ptr<KernelNetInfo::Status const> kniStatus,
                                               Lox::NamespaceName networkNamespace,
                                               NetNsIntfStatusManagerRoot* root)
    : deviceIntfStatusDir_(std::move(deviceIntfStatusDir)),
      kni_(kniStatus),
      networkNamespace_(std::move(networkNamespace)),
      root_(root) {
    kniStatus_.make(kniStatus, this);
}

void NetNsIntfStatusManager::handleInterface() {
    Nex::FirstError error;
    for (auto const& item : kni_->interface()) error.attempt([&] { handleInterface(item.key); });
    error.rethrow();
}

void NetNsIntfStatusManager::handleInterface(KernelNetInfo::InterfaceKey key) {
    if (nexZombieReactors()) return; // ended by whoever was told of an interface before
    KernelNetInfo::Interface const before = known_.take(key);
    KernelNetInfo::Interface now = kni_->interface(key);
    // The index is the key's: what the entry says of itself, readers of its address check.
    if (now.ifIndex != 0) now.ifIndex = key.ifIndex();
    if (now.ifIndex != 0) *known_.findOrInsert(key).first = now;
    if (before.ifIndex == now.ifIndex && before.deviceName == now.deviceName) return;
    if (auto* const indexes = ifIndexesByDevice_.find(before.deviceName)) {
        std::erase(*indexes, before.ifIndex);
        if (indexes->empty()) ifIndexesByDevice_.take(before.deviceName);
    }
    if (now.ifIndex != 0)
        ifIndexesByDevice_.findOrInsert(now.deviceName).first->push_back(now.ifIndex);

    std::vector<Lox::IntfId> concerned = root_->intfsAt({networkNamespace_, before.deviceName});
    for (Lox::IntfId const& intfId : root_->intfsAt({networkNamespace_, now.deviceName}))
        concerned.push_back(intfId);
    Nex::FirstError error;
    for (Lox::IntfId const& intfId : concerned) error.attempt([&] { handleIntf(intfId); });
    error.rethrow();
}

IntfStatusAndDeviceName NetNsIntfStatusManager::entryOf(Lox::IntfId const& intfId) const {
    auto const* const status = root_->allIntfStatus()->intfStatus(intfId);
    auto const* const local = root_->allIntfStatusLocal()->intfStatusLocal(intfId);
    if (!status || !status->operUp() || !local || local->networkNamespace() != networkNamespace_)
        return {};
    auto const* const indexes = ifIndexesByDevice_.find(local->deviceName());
    if (!indexes) return {};
    return {Nex::Ptr(const_cast<IntfStatus*>(status)), local->deviceName(), indexes->back()};
}

void NetNsIntfStatusManager::handleIntf(Lox::IntfId const& intfId) {
    if (nexZombieReactors()) return;
    IntfStatusAndDeviceName const listed = deviceIntfStatusDir_->intfStatusAndDeviceName(intfId);
    if (entryOf(intfId) == listed) return;
    Nex::FirstError error;
    // A device that came back under another index or name is another device.
    if (listed != IntfStatusAndDeviceName()) error.attempt([&] { doDelist(intfId); });
    // Looked up again, for whoever was told may have changed it, or have ended the manager.
    IntfStatusAndDeviceName const entry =
        nexZombieReactors() ? IntfStatusAndDeviceName() : entryOf(intfId);
    if (entry != IntfStatusAndDeviceName()) {
        error.attempt([&] { doList(intfId, entry); });
        error.attempt([&] { handleIntf(intfId); }); // it may have changed before it was listed
    }
    error.rethrow();
}

void NetNsIntfStatusManager::doList(Lox::IntfId const& intfId,
                                    IntfStatusAndDeviceName const& entry) {
    Nex::FirstError error;
    error.attempt([&] {
        deviceIntfStatusDir_->intfToDeviceNameIs(entry.ifIndex, {intfId, entry.deviceName});
    });
    deviceIntfStatusDir_->intfStatusAndDeviceNameIs(intfId, entry);
    error.rethrow();
}

void NetNsIntfStatusManager::doDelist(Lox::IntfId const& intfId) {
    std::uint32_t const ifIndex = deviceIntfStatusDir_->intfStatusAndDeviceName(intfId).ifIndex;
    Nex::FirstError error;
    error.attempt([&] { deviceIntfStatusDir_->intfStatusAndDeviceNameDel(intfId); });
    if (deviceIntfStatusDir_->intfToDeviceName(ifIndex).intfId == intfId)
        deviceIntfStatusDir_->intfToDeviceNameDel(ifIndex);
    error.rethrow();
}

// All managers

NetNsIntfStatusManagerRoot::NetNsIntfStatusManagerRoot(
    Nex::Ptr<AllIntfStatusDir const> allIntfStatusDir,
    Nex::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir, bool active)
    : allIntfStatus_(std::move(allIntfStatusDir)),
      allIntfStatusLocal_(std::move(allIntfStatusLocalDir)),
      active_(active && allIntfStatus_ && allIntfStatusLocal_) {
    if (!active_) return;
    allIntfStatusDir_.make(allIntfStatus_, this);
    allIntfStatusLocalDir_.make(allIntfStatusLocal_, this);
    for (auto const& item : allIntfStatus_->intfStatus()) doFollowIntfStatus(item.key);
    for (auto const& item : allIntfStatusLocal_->intfStatusLocal()) {
        doFollowIntfStatusLocal(item.key);
        doMoveIntf(item.key);
    }
}

NetNsIntfStatusManagerRoot::~NetNsIntfStatusManagerRoot() {
    nexDoZombieReactors(true);
    for (auto const& key : managers_.walk<Nex::Nothing>()) intfStatusManagerDel(key);
}

void NetNsIntfStatusManagerRoot::intfStatusManagerIs(
    Nex::Ptr<DeviceIntfStatusDir> deviceIntfStatusDir,
    Nex::Ptr<KernelNetInfo::Status const> kniStatus, Lox::NamespaceName networkNamespace) {
    if (!active_ || !kniStatus) return;
    intfStatusManagerDel(networkNamespace, deviceIntfStatusDir);
    auto const manager = Nex::newObject<NetNsIntfStatusManager>(
        std::move(deviceIntfStatusDir), std::move(kniStatus), networkNamespace, this);
    managers_.findOrInsert(networkNamespace).first->push_back(manager);
    manager->handleInterface();
}

void NetNsIntfStatusManagerRoot::intfStatusManagerDel(
    Lox::NamespaceName networkNamespace, Nex::Ptr<DeviceIntfStatusDir const> deviceIntfStatusDir) {
    Managers* const managers = managers_.find(networkNamespace);
    if (!managers) return;
    std::erase_if(*managers, [&](auto const& manager) {
        if (deviceIntfStatusDir && manager->deviceIntfStatusDir() != deviceIntfStatusDir.get())
            return false;
        manager->nexDoZombieReactors(true);
        return true;
    });
    if (managers->empty()) managers_.take(networkNamespace);
}

NetNsIntfStatusManager*
NetNsIntfStatusManagerRoot::intfStatusManager(Lox::NamespaceName const& networkNamespace) const {
    auto const* const found = managers_.find(networkNamespace);
    return found ? found->front().get() : nullptr;
}

std::vector<Lox::IntfId> NetNsIntfStatusManagerRoot::intfsAt(Place const& place) const {
    std::vector<Lox::IntfId> found;
    for (auto at = intfs_.lower_bound({place, Lox::IntfId()});
         at != intfs_.end() && at->first == place; ++at)
        found.push_back(at->second);
    return found;
}

void NetNsIntfStatusManagerRoot::handleIntfStatus(Lox::IntfId const& intfId) {
    doFollowIntfStatus(intfId);
    if (Place const* const place = places_.find(intfId)) {
        Lox::NamespaceName const networkNamespace = place->networkNamespace;
        handleIntf(networkNamespace, intfId);
    }
}

void NetNsIntfStatusManagerRoot::handleIntfStatusLocal(Lox::IntfId const& intfId) {
    doFollowIntfStatusLocal(intfId);
    handlePlace(intfId);
}

void NetNsIntfStatusManagerRoot::handlePlace(Lox::IntfId const& intfId) {
    Lox::NamespaceName const before = doMoveIntf(intfId).networkNamespace;
    Place const* const place = places_.find(intfId);
    Lox::NamespaceName const now = place ? place->networkNamespace : Lox::NamespaceName();
    Nex::FirstError error;
    // Out of the one namespace before into the other: an interface has one device at a time.
    if (before != now) error.attempt([&] { handleIntf(before, intfId); });
    error.attempt([&] { handleIntf(now, intfId); });
    error.rethrow();
}

void NetNsIntfStatusManagerRoot::handleIntf(Lox::NamespaceName const& networkNamespace,
                                            Lox::IntfId const& intfId) {
    auto const* const found = managers_.find(networkNamespace);
    if (!found) return;
    Managers const managers = *found;
    Nex::FirstError error;
    for (auto const& manager : managers) error.attempt([&] { manager->handleIntf(intfId); });
    error.rethrow();
}

void NetNsIntfStatusManagerRoot::doFollowIntfStatus(Lox::IntfId const& intfId) {
    if (auto const* const status = allIntfStatus_->intfStatus(intfId))
        intfStatus_.is(intfId, Nex::Ptr(status), this);
    else
        intfStatus_.del(intfId);
}

void NetNsIntfStatusManagerRoot::doFollowIntfStatusLocal(Lox::IntfId const& intfId) {
    if (auto const* const local = allIntfStatusLocal_->intfStatusLocal(intfId))
        intfStatusLocal_.is(intfId, Nex::Ptr(local), this);
    else
        intfStatusLocal_.del(intfId);
}

Place NetNsIntfStatusManagerRoot::doMoveIntf(Lox::IntfId const& intfId) {
    Place const before = places_.take(intfId);
    intfs_.erase({before, intfId});
    if (auto const* const local = allIntfStatusLocal_->intfStatusLocal(intfId)) {
        Place const now{local->networkNamespace(), local->deviceName()};
        *places_.findOrInsert(intfId).first = now;
        intfs_.emplace(now, intfId);
    }
    return before;
}

} // namespace Interface
