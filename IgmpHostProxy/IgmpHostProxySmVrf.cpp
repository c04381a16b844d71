// The VRFs: each runs in a network namespace with kernel interfaces of its own. Device names take
// proxy interfaces up and down, and the kernel's MAC addresses reach their status.
#include "IgmpHostProxy/IgmpHostProxySm.h"
#include "IgmpHostProxy/Trace.h"
#include "NexKesh/Mount.h"

namespace IgmpHostProxy {

namespace {

L3::VrfName const defaultVrf("default");
constexpr char kniStatusType[] = "KernelNetInfo::Status";
constexpr unsigned kniMountInfoType = 3;

Nex::String kniPath(Lox::NamespaceName const& networkNamespace) {
    return "kni/ns/" + networkNamespace.stringValue() + "/status";
}

} // namespace

Nex::Ptr<KernelNetInfo::Status>
IgmpHostProxySm::doMountKniStatus(Lox::NamespaceName const& networkNamespace) {
    if (!entityManager()) return nullptr;
    NexKesh::Mount mount(entityManager());
    mount.mountIs(kniPath(networkNamespace), kniStatusType, kniMountInfoType);
    return mount.entity<KernelNetInfo::Status>(kniPath(networkNamespace));
}

unsigned IgmpHostProxySm::mountsOf(Nex::String const& path) const {
    auto const* const table = entityManager() ? entityManager()->mounted(path) : nullptr;
    return table ? table->mounts() : 0;
}

void IgmpHostProxySm::doUnmountKniStatus(Lox::NamespaceName const& networkNamespace) {
    if (entityManager()) NexKesh::Mount(entityManager()).mountDel(kniPath(networkNamespace));
}

void IgmpHostProxySm::intfStatusManagerRootIs(
    Nex::Ptr<Interface::AllIntfStatusDir const> allIntfStatusDir,
    Nex::Ptr<Interface::AllIntfStatusLocalDir const> allIntfStatusLocalDir, bool active) {
    intfStatusManagerRoot_ = Nex::newObject<Interface::NetNsIntfStatusManagerRoot>(
        std::move(allIntfStatusDir), std::move(allIntfStatusLocalDir), active);
}

Nex::Ptr<KernelVrfIntfStatus>
IgmpHostProxySm::kernelVrfIntfStatusIs(L3::VrfName vrfName,
                                       Nex::Ptr<KernelNetInfo::Status const> kniStatus) {
    auto const view = kernelVrfIntfStatus_.is(kernelVrfIntfStatusFactory, vrfName, kniStatus);
    vrfIntfStatusDirIs(view);
    return view;
}

void IgmpHostProxySm::kernelVrfIntfStatusDel(L3::VrfName vrfName) {
    vrfIntfStatusDirDel(vrfName);
    kernelVrfIntfStatus_.del(vrfName);
}

void IgmpHostProxySm::kernelVrfIntfStatusDelAll() {
    for (auto const& item : kernelVrfIntfStatus_.walk()) kernelVrfIntfStatusDel(item.key);
}

void IgmpHostProxySm::getIntfEthAddr(L3::VrfName vrfName, std::uint32_t ifIndex) {
    IHP_TRACE_ENTRY();
    Nex::Ptr<KernelVrfIntfStatus> const view = kernelVrfIntfStatus(vrfName);
    if (!view || !view->kniStatus() || !view->deviceIntfStatusDir()) return;
    KernelNetInfo::Interface kernelIntf;
    try {
        kernelIntf = view->kniStatus()->lookup(KernelNetInfo::InterfaceKey(ifIndex));
    } catch (KernelNetInfo::TableCorruption const&) {
        view->kniStatus()->handleCorruption();
    }
    if (kernelIntf == KernelNetInfo::Interface()) return;
    if (!view->deviceIntfStatusDir()->intfToDeviceNameHas(ifIndex)) return;
    Lox::IntfId const intfId = view->deviceIntfStatusDir()->intfToDeviceName(ifIndex).intfId;
    if (!igmpHostProxyStatus()) return;
    Nex::Ptr<IntfStatus> const status = igmpHostProxyStatus()->intfStatus(intfId);
    if (!status) return;
    IHP_TRACE(7, "IGMP host-proxy configured on interface : %", intfId);
    status->macAddrIs(kernelIntf.ethAddr);
}

void IgmpHostProxySm::handleDeviceName(L3::VrfName vrfName, Lox::IntfId intfId) {
    IHP_TRACE_ENTRY(" ( %, % )", vrfName, intfId);
    Nex::Ptr<KernelVrfIntfStatus> const view = kernelVrfIntfStatus(vrfName);
    if (!view || !view->deviceIntfStatusDir()) return;
    Interface::IntfStatusAndDeviceName const device =
        view->deviceIntfStatusDir()->intfStatusAndDeviceName(intfId);
    IHP_TRACE(7, "devicename : %", device.deviceName);
    if (device.deviceName.empty() && device.ifIndex == 0) return deleteIntfSm(intfId);
    if (!igmpHostProxyConfig() || !igmpHostProxyConfig()->intfConfigHas(intfId)) return;
    IHP_TRACE(7, "IgmpHostProxy configured for interface : % and devicename : %", intfId,
              device.deviceName);
    handleIntfConfig(intfId);
}

Lox::NamespaceName IgmpHostProxySm::namespaceOf(Lox::IntfId const& intfId) const {
    L3::VrfName const vrfName = doGetVrfNameFromIntf(intfId);
    if (vrfName == defaultVrf) return Lox::NamespaceName::defaultNamespace();
    Ip::VrfStatusLocal const* const vrfStatus =
        allVrfStatusLocal() ? allVrfStatusLocal()->vrf(vrfName) : nullptr;
    return vrfStatus ? vrfStatus->networkNamespace() : Lox::NamespaceName();
}

void IgmpHostProxySm::handleVrf(L3::VrfName vrfName) {
    IHP_TRACE_ENTRY();
    Ip::VrfStatusLocal const* const vrfStatus =
        allVrfStatusLocal() ? allVrfStatusLocal()->vrf(vrfName) : nullptr;
    if (vrfStatus)
        vrfIs(vrfStatus);
    else
        vrfDel(vrfName);
}

void IgmpHostProxySm::handleVrf() {
    IHP_TRACE_ENTRY();
    Nex::Ptr<Ip::AllVrfStatusLocal const> const vrfs = allVrfStatusLocal();
    Nex::FirstError error;
    if (vrfs)
        for (auto const& item : vrfs->vrf()) error.attempt([&] { vrfIs(item.value); });
    for (auto const& item : vrf())
        if (!vrfs || !vrfs->vrfHas(item.key)) error.attempt([&] { handleVrf(item.key); });
    error.rethrow();
}

// One VRF

IgmpHostProxySm::KernelVrf::KernelVrf(IgmpHostProxySm* root, L3::VrfName vrfName)
    : root_(root), vrfName_(std::move(vrfName)) {}

void IgmpHostProxySm::KernelVrf::networkNamespaceIs(Lox::NamespaceName const& networkNamespace) {
    if (!root_->kernelVrfIntfStatus(vrfName_)) {
        doUnmount(); // what an earlier failure has left
        Nex::String const path = kniPath(networkNamespace);
        unsigned const mounts = root_->mountsOf(path);
        mounted_ = networkNamespace;
        Nex::Ptr<KernelNetInfo::Status> kniStatus;
        try {
            kniStatus = root_->doMountKniStatus(networkNamespace);
        } catch (...) { // before or after it was mounted; what others have mounted is theirs
            if (root_->mountsOf(path) == mounts) mounted_ = Lox::NamespaceName();
            throw;
        }
        if (!kniStatus || mounted_ != networkNamespace) return;
        root_->kernelVrfIntfStatusIs(vrfName_, kniStatus);
    }
    doEndManager();
    auto const directory =
        Interface::DeviceIntfStatusDir::DeviceIntfStatusDirIs("kvis-" + vrfName_.stringValue());
    managed_ = networkNamespace;
    directory_ = directory;
    Nex::Ptr<KernelVrfIntfStatus> const view = root_->kernelVrfIntfStatus(vrfName_);
    view->deviceIntfStatusDirIs(directory);
    if (directory_ == directory)
        root_->intfStatusManagerRoot()->intfStatusManagerIs(directory, view->kniStatus(),
                                                            networkNamespace);
}

void IgmpHostProxySm::KernelVrf::del() {
    root_->kernelVrfIntfStatusDel(vrfName_);
    Nex::FirstError error;
    error.attempt([&] { doUnmount(); });
    doEndManager();
    error.rethrow();
}

void IgmpHostProxySm::KernelVrf::doUnmount() {
    root_->doUnmountKniStatus(std::exchange(mounted_, Lox::NamespaceName()));
}

void IgmpHostProxySm::KernelVrf::doUnmountAtEnd() noexcept {
    Nex::FirstError unheard;
    unheard.attempt([&] { doUnmount(); });
}

void IgmpHostProxySm::KernelVrf::doEndManager() {
    if (auto const directory = std::exchange(directory_, nullptr))
        root_->intfStatusManagerRoot()->intfStatusManagerDel(managed_, directory);
}

IgmpHostProxySm::NexVrf::NexVrf(Nex::Ptr<Ip::VrfStatusLocal const> vrf, IgmpHostProxySm* root)
    : Reactor(std::move(vrf), root), kernelVrf_(root, notifier()->vrfName()) {
    hasNotificationActiveIs(true);
    try {
        handleNetworkNamespace();
    } catch (...) {
        nexRetire();
        throw;
    }
}

void IgmpHostProxySm::NexVrf::handleNetworkNamespace() {
    L3::VrfName const vrfName = notifier()->vrfName();
    IHP_TRACE_ENTRY(" for %", vrfName);
    if (vrfName.empty() || vrfName == defaultVrf) return;
    Lox::NamespaceName const networkNamespace = notifier()->networkNamespace();
    if (!networkNamespace.empty()) kernelVrf_.networkNamespaceIs(networkNamespace);
}

void IgmpHostProxySm::NexVrf::handleDel() {
    L3::VrfName const vrfName = notifier()->vrfName();
    IHP_TRACE_ENTRY(" for %", vrfName);
    if (vrfName.empty() || vrfName == defaultVrf) return;
    kernelVrf_.del();
}

/// The VRF's view lives as long as its reactor, whoever deletes that, and be it while it is made.
/// The root's own end has ended the view already, and only gives the mount back.
void IgmpHostProxySm::NexVrf::nexRetire() {
    if (machine()->nexZombieReactors())
        kernelVrf_.doUnmountAtEnd();
    else if (notifier())
        handleDel();
    Reactor::nexRetire();
}

// One VRF's kernel view

IgmpHostProxySm::NexVrfIntfStatusDir::NexVrfIntfStatusDir(Nex::Ptr<KernelVrfIntfStatus const> view,
                                                          IgmpHostProxySm* root)
    : Reactor(std::move(view), root) {
    hasNotificationActiveIs(true);
    Nex::watch(kniStatus_, Nex::Ptr(notifier()->kniStatus()), this);
    onDeviceIntfStatusDir();
}

void IgmpHostProxySm::NexVrfIntfStatusDir::onDeviceIntfStatusDir() {
    Nex::Ptr<Interface::DeviceIntfStatusDir const> const directory =
        notifier()->deviceIntfStatusDir();
    Nex::watch(kernelIntfStatusDir_, directory, this);
}

void IgmpHostProxySm::NexVrfIntfStatusDir::nexRetire() {
    kniStatus_.del();
    kernelIntfStatusDir_.del();
    Reactor::nexRetire();
}

void IgmpHostProxySm::NexVrfIntfStatusDir::NexKniStatus::handleKniInterface(
    KernelNetInfo::InterfaceKey key) {
    IHP_TRACE_ENTRY();
    machine()->machine()->getIntfEthAddr(machine()->vrfName(), key.ifIndex());
}

IgmpHostProxySm::NexVrfIntfStatusDir::NexKernelIntfStatusDir::NexKernelIntfStatusDir(
    Nex::Ptr<Interface::DeviceIntfStatusDir const> directory, NexVrfIntfStatusDir* dir)
    : Reactor(std::move(directory), dir) {
    hasNotificationActiveIs(true);
    handleDeviceName();
}

void IgmpHostProxySm::NexVrfIntfStatusDir::NexKernelIntfStatusDir::handleDeviceName(
    Lox::IntfId intfId) {
    IHP_TRACE_ENTRY();
    machine()->machine()->handleDeviceName(machine()->vrfName(), intfId);
}

void IgmpHostProxySm::NexVrfIntfStatusDir::NexKernelIntfStatusDir::handleDeviceName() {
    IHP_TRACE_ENTRY();
    Nex::Ptr<Interface::DeviceIntfStatusDir const> const directory = notifier();
    if (!directory) return;
    Nex::FirstError error;
    for (auto const& item : directory->intfStatusAndDeviceName()) {
        // What an interface brings about may end the VRF.
        if (notifier() != directory.get() || !machine()->notifier()) break;
        error.attempt([&] { handleDeviceName(item.key); });
    }
    error.rethrow();
}

} // namespace IgmpHostProxy
