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

void IgmpHostProxySm::doSetUpDefaultVrf() {
    Lox::NamespaceName const networkNamespace(Lox::DEFAULT_NS);
    Nex::Ptr<KernelNetInfo::Status> const kniStatus = doMountKniStatus(networkNamespace);
    intfStatusManagerRootIs(allIntfStatusDir(), allIntfStatusLocalDir(), true);
    if (!kniStatus) return;
    doFollowDeviceNames(*kernelVrfIntfStatusIs(defaultVrf, kniStatus), networkNamespace);
}

Nex::Ptr<KernelNetInfo::Status>
IgmpHostProxySm::doMountKniStatus(Lox::NamespaceName const& networkNamespace) {
    if (!entityManager()) return nullptr;
    NexKesh::Mount mount(entityManager());
    mount.mountIs(kniPath(networkNamespace), kniStatusType, kniMountInfoType);
    return mount.entity<KernelNetInfo::Status>(kniPath(networkNamespace));
}

void IgmpHostProxySm::doUnmountKniStatus(Lox::NamespaceName const& networkNamespace) {
    if (entityManager()) NexKesh::Mount(entityManager()).mountDel(kniPath(networkNamespace));
}

void IgmpHostProxySm::doFollowDeviceNames(KernelVrfIntfStatus& view,
                                          Lox::NamespaceName const& networkNamespace) {
    Nex::Ptr<KernelVrfIntfStatus> const hold(&view);
    auto const directory = Interface::DeviceIntfStatusDir::DeviceIntfStatusDirIs(
        "kvis-" + view.vrfName().stringValue());
    view.deviceIntfStatusDirIs(directory);
    intfStatusManagerRoot()->intfStatusManagerIs(directory, view.kniStatus(), networkNamespace);
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
    Lox::IntfId const intfId = view->deviceIntfStatusDir()->intfToDeviceName(ifIndex).intfId;
    if (intfId.empty() || !igmpHostProxyStatus()) return;
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
    if (vrfStatus) {
        vrfIs(vrfStatus);
    } else {
        vrfDel(vrfName);
    }
}

void IgmpHostProxySm::handleVrf() {
    IHP_TRACE_ENTRY();
    Nex::Ptr<Ip::AllVrfStatusLocal const> const vrfs = allVrfStatusLocal();
    if (vrfs)
        for (auto const& item : vrfs->vrf()) vrfIs(item.value);
    for (auto const& item : vrf())
        if (!vrfs || !vrfs->vrfHas(item.key)) handleVrf(item.key);
}

// One VRF

IgmpHostProxySm::NexVrf::NexVrf(Nex::Ptr<Ip::VrfStatusLocal const> vrf, IgmpHostProxySm* root)
    : Reactor(std::move(vrf), root) {
    hasNotificationActiveIs(true);
    handleNetworkNamespace();
}

void IgmpHostProxySm::NexVrf::handleNetworkNamespace() {
    L3::VrfName const vrfName = notifier()->vrfName();
    IHP_TRACE_ENTRY(" for %", vrfName);
    if (vrfName.empty() || vrfName == defaultVrf) return;
    Lox::NamespaceName const networkNamespace = notifier()->networkNamespace();
    if (networkNamespace.empty()) return;
    if (!machine()->kernelVrfIntfStatus(vrfName)) {
        auto const kniStatus = machine()->doMountKniStatus(networkNamespace);
        if (!kniStatus) return;
        mounted_ = networkNamespace;
        machine()->kernelVrfIntfStatusIs(vrfName, kniStatus);
    }
    // A VRF that moves to another namespace leaves no manager behind. A namespace belongs to one
    // VRF: managers are told apart by their namespaces.
    if (managed_ != networkNamespace)
        machine()->intfStatusManagerRoot()->intfStatusManagerDel(managed_);
    managed_ = networkNamespace;
    machine()->doFollowDeviceNames(*machine()->kernelVrfIntfStatus(vrfName), networkNamespace);
}

void IgmpHostProxySm::NexVrf::handleDel() {
    L3::VrfName const vrfName = notifier()->vrfName();
    IHP_TRACE_ENTRY(" for %", vrfName);
    if (vrfName.empty() || vrfName == defaultVrf) return;
    machine()->kernelVrfIntfStatusDel(vrfName);
    machine()->doUnmountKniStatus(mounted_);
    machine()->intfStatusManagerRoot()->intfStatusManagerDel(managed_);
}

/// The VRF's view lives as long as its reactor, whoever deletes that, and be it while it is made.
/// The root's own end deletes no record.
void IgmpHostProxySm::NexVrf::nexRetire() {
    if (notifier() && !machine()->nexZombieReactors()) handleDel();
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
    for (auto const& item : directory->intfStatusAndDeviceName()) {
        // What an interface brings about may end the VRF.
        if (notifier() != directory.get() || !machine()->notifier()) return;
        handleDeviceName(item.key);
    }
}

} // namespace IgmpHostProxy
