// Start-up of the root machine, and the life of each interface.
#include "IgmpHostProxy/IgmpHostProxySm.h"

#include "IgmpHostProxy/Trace.h"

namespace IgmpHostProxy {

Nex::Ptr<IgmpHostProxySm> IgmpHostProxySmIs(
    Nex::Ptr<Config const> igmpHostProxyConfig, Nex::Ptr<Status> igmpHostProxyStatus,
    Nex::Ptr<Kesh::Multicast::Fib::MfibKeshDir const> mfibKeshDir,
    Nex::Ptr<Acl::AclTypeConfig const> ipAclConfig, Nex::Ptr<Igmp::IgmpHostDir> igmpHostDir,
    Nex::Ptr<Igmp::IgmpHostStatusDir const> igmpHostStatusDir, Nex::Ptr<Nex::Clock const> clock,
    Nex::Ptr<Ip::SourceIntf::SourceIntfSm> sourceIntfSm, Nex::Ptr<Ip::Status const> ipStatus,
    Nex::Ptr<Interface::AllIntfStatusDir const> allIntfStatusDir,
    Nex::Ptr<Interface::AllIntfStatusLocalDir const> allIntfStatusLocalDir,
    Nex::Ptr<Ip::AllVrfStatusLocal const> allVrfStatusLocal, Nex::Ptr<Olm::TimerWheel> timerWheel,
    Nex::Ptr<Vardo::EntityManager> entityManager) {
    return Nex::newObject<IgmpHostProxySm>(
        std::move(igmpHostProxyConfig), std::move(igmpHostProxyStatus), std::move(mfibKeshDir),
        std::move(ipAclConfig), std::move(igmpHostDir), std::move(igmpHostStatusDir),
        std::move(clock), std::move(sourceIntfSm), std::move(ipStatus), std::move(allIntfStatusDir),
        std::move(allIntfStatusLocalDir), std::move(allVrfStatusLocal), std::move(timerWheel),
        std::move(entityManager));
}

IgmpHostProxySm::IgmpHostProxySm(
    Nex::Ptr<Config const> igmpHostProxyConfig, Nex::Ptr<Status> igmpHostProxyStatus,
    Nex::Ptr<Kesh::Multicast::Fib::MfibKeshDir const> mfibKeshDir,
    Nex::Ptr<Acl::AclTypeConfig const> ipAclConfig, Nex::Ptr<Igmp::IgmpHostDir> igmpHostDir,
    Nex::Ptr<Igmp::IgmpHostStatusDir const> igmpHostStatusDir, Nex::Ptr<Nex::Clock const> clock,
    Nex::Ptr<Ip::SourceIntf::SourceIntfSm> sourceIntfSm, Nex::Ptr<Ip::Status const> ipStatus,
    Nex::Ptr<Interface::AllIntfStatusDir const> allIntfStatusDir,
    Nex::Ptr<Interface::AllIntfStatusLocalDir const> allIntfStatusLocalDir,
    Nex::Ptr<Ip::AllVrfStatusLocal const> allVrfStatusLocal, Nex::Ptr<Olm::TimerWheel> timerWheel,
    Nex::Ptr<Vardo::EntityManager> entityManager)
    : igmpHostProxyStatus_(std::move(igmpHostProxyStatus)),
      ipAclConfig_(std::move(ipAclConfig)),
      sourceIntfSm_(std::move(sourceIntfSm)),
      ipStatus_(std::move(ipStatus)),
      allIntfStatusDir_(std::move(allIntfStatusDir)),
      allIntfStatusLocalDir_(std::move(allIntfStatusLocalDir)),
      timerWheel_(std::move(timerWheel)),
      entityManager_(std::move(entityManager)),
      defaultVrf_(this, L3::VrfName("default")) {
    Nex::watch(igmpHostProxyConfig_, igmpHostProxyConfig, this);
    Nex::watch(mfibKeshDir_, mfibKeshDir, this);
    Nex::watch(igmpHostDir_, igmpHostDir, this);
    Nex::watch(igmpHostStatusDir_, igmpHostStatusDir, this);
    Nex::watch(clock_, clock, this);
    Nex::watch(allVrfStatusLocal_, allVrfStatusLocal, this);
    try {
        handleInitialized();
        if (allVrfStatusLocal) handleVrf();
    } catch (...) {
        Nex::FirstError ignored; // beside the one that has ended the start
        ignored.attempt([&] { vrfDelAll(); });
        ignored.attempt([&] { defaultVrf_.del(); });
        doEnd();
        throw;
    }
}

IgmpHostProxySm::~IgmpHostProxySm() { doEnd(); }

void IgmpHostProxySm::doEnd() {
    nexDoZombieReactors(true);
    vrfIntfStatusDirDelAll();
    kernelVrfIntfStatusDelAll();
    intfStatusManagerRoot_ = nullptr;
    igmpHostProxyIntfSm_.delAll();
    igmpHostIntfSm_.delAll();
    vrfDelAll();
    defaultVrf_.doUnmountAtEnd();
}

void IgmpHostProxySm::handleInitialized() {
    IHP_TRACE_ENTRY();
    if (clock_) clock_->timeMinIs(Nex::never);
    ipStatusCheckTimerIs(timerWheel_);
    intfStatusManagerRootIs(allIntfStatusDir(), allIntfStatusLocalDir(), true);
    defaultVrf_.networkNamespaceIs(Lox::NamespaceName(Lox::DEFAULT_NS));
    // Both return at once, for `initialized` is still false. Interfaces that were configured before
    // come up by their device names and tables; taking them up here as well would do it twice.
    handleIntfConfig();
    handleMfibKesh();
    initializedIs(true);
}

void IgmpHostProxySm::ipStatusCheckTimerIs(Nex::Ptr<Olm::TimerWheel> timerWheel) {
    if (!timerWheel) return;
    ipStatusCheckTimer_.make(timerWheel, this);
    ipStatusCheckTimer_->timeMinIs(Nex::never);
}

void IgmpHostProxySm::handleIntfConfig() {
    IHP_TRACE_ENTRY();
    if (!initialized() || !igmpHostProxyConfig()) return;
    Nex::FirstError error;
    for (auto const& item : igmpHostProxyConfig()->intfConfig())
        error.attempt([&] { handleIntfConfig(item.key); });
    error.rethrow();
}

void IgmpHostProxySm::handleIntfConfig(Lox::IntfId intfId) {
    IHP_TRACE_ENTRY(" ( % )", intfId);
    if (!igmpHostProxyConfig() || !igmpHostProxyStatus()) return;
    IntfInProgress* const progress = inProgress_.find(intfId);
    if (progress && igmpHostProxyConfig()->intfConfigHas(intfId))
        progress->again = true;
    else
        doInProgress(intfId, [&] { doDecideIntf(intfId); });
}

template <class Act>
void IgmpHostProxySm::doInProgress(Lox::IntfId const& intfId, Act act) {
    if (!inProgress_.findOrInsert(intfId).second) return act();
    Nex::FirstError error;
    error.attempt(act);
    while (inProgress_.find(intfId)->again) {
        *inProgress_.find(intfId) = IntfInProgress();
        error.attempt([&] { doDecideIntf(intfId); });
    }
    inProgress_.take(intfId);
    error.rethrow();
}

void IgmpHostProxySm::doDecideIntf(Lox::IntfId const& intfId) {
    if (!igmpHostProxyConfig()->intfConfigHas(intfId)) return doForgetIntf(intfId);

    L3::VrfName const vrfName = doGetVrfNameFromIntf(intfId);
    if (vrfName.empty()) {
        IHP_TRACE(7, "VrfName not known from IpStatus. We retry again later.");
        checkInterfaceIs(intfId);
        doArmIpStatusCheckTimer();
        return;
    }
    Nex::Ptr<KernelVrfIntfStatus> const view = kernelVrfIntfStatus(vrfName);
    if (!view) {
        IHP_TRACE(7, "Ignoring since Kernel Intf Status is not ready");
        return;
    }
    Interface::IntfStatusAndDeviceName const device =
        view->deviceIntfStatusDir() ? view->deviceIntfStatusDir()->intfStatusAndDeviceName(intfId)
                                    : Interface::IntfStatusAndDeviceName();
    if (device.deviceName.empty()) {
        IHP_TRACE(7, "Interface device name is %", device.deviceName);
        return;
    }
    doRegisterIntf(intfId, vrfName, device);
    doProxyIntf(intfId, vrfName);
}

Nex::Ptr<Ip::SourceIntf::SourceIntf>
IgmpHostProxySm::sourceIntfOf(Lox::IntfId const& intfId) const {
    IntfInProgress const* const progress = inProgress_.find(intfId);
    return progress && progress->sourceIntf ? progress->sourceIntf : Nex::Ptr(srcIntfIhpIntf());
}

void IgmpHostProxySm::doForgetIntf(Lox::IntfId const& intfId) {
    Nex::FirstError error;
    error.attempt([&] { deleteIntfSm(intfId); });
    IHP_TRACE(7, "Unregistering interface: %", intfId);
    // Whichever interface registered last is unregistered; the slot keeps it.
    if (sourceIntfSm() && srcIntfIhpIntf()) sourceIntfSm()->unregisterSourceIntf(srcIntfIhpIntf());
    error.rethrow();
}

void IgmpHostProxySm::doRegisterIntf(Lox::IntfId const& intfId, L3::VrfName const& vrfName,
                                     Interface::IntfStatusAndDeviceName const& device) {
    IHP_TRACE(7, "Registering interface:%", intfId);
    if (sourceIntfSm()) {
        auto const sourceIntf = sourceIntfSm()->registerSourceIntf(intfId);
        // Another interface that comes up inside this set-up takes the slot.
        inProgress_.find(intfId)->sourceIntf = sourceIntf;
        srcIntfIhpIntfIs(sourceIntf);
    }
    // Who is told of the registration may answer by taking the interface down.
    if (inProgress_.find(intfId)->takenDown) return;
    IHP_TRACE(7, "Adding intfStatus for %", intfId);
    Nex::Ptr<IntfStatus> const intfStatus = igmpHostProxyStatus()->intfStatusIs(intfId);
    IHP_TRACE(7, "Setting interface MAC address");
    getIntfEthAddr(vrfName, device.ifIndex);
    IHP_TRACE(7, "Setting deviceName: %", device.deviceName);
    intfStatus->deviceNameIs(device.deviceName);
}

void IgmpHostProxySm::doProxyIntf(Lox::IntfId const& intfId, L3::VrfName const& vrfName) {
    IHP_TRACE(7, "Initializing IgmpHostProxyIntfSm and IgmpHostIntfSm");
    // Looked up anew: whoever saw the status come may have changed the configuration at once.
    Nex::Ptr<IntfConfig const> const intfConfig = igmpHostProxyConfig()->intfConfig(intfId);
    Nex::Ptr<IntfStatus> const intfStatus = igmpHostProxyStatus()->intfStatus(intfId);
    if (!intfConfig || !intfStatus) return;
    Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl const> const mfibKeshColl =
        mfibKeshDir() ? mfibKeshDir()->keshColl(vrfName) : nullptr;
    if (!mfibKeshColl) return;
    IHP_TRACE(7, "Adding igmpHostProxyIntfSm for intfId: %", intfId);
    igmpHostProxyIntfSmIs(intfId, intfConfig, intfStatus, mfibKeshColl, ipAclConfig(), clock(),
                          sourceIntfOf(intfId));
    // The same holds for whoever saw its groups come: without a machine there is no host, either.
    if (!igmpHostProxyIntfSm(intfId)) return;
    IHP_TRACE(7, "Initialize IgmpHost");
    if (!igmpHostDir()) return;
    Nex::Name const& name = intfId.stringValue();
    if (!igmpHostDir()->igmpHostHas(name)) unfilledHost_.findOrInsert(name);
    igmpHostDir()->igmpHostIs(name);
    if (unfilledHost_.has(name)) initializeIgmpHost(name);
}

L3::VrfName IgmpHostProxySm::doGetVrfNameFromIntf(Lox::IntfId intfId) const {
    Nex::Ptr<Ip::IpIntfStatus const> const status =
        ipStatus() ? ipStatus()->ipIntfStatus(intfId) : nullptr;
    if (!status) {
        IHP_TRACE(7, "Interface % has no IpStatus.", intfId);
        return {};
    }
    return status->ipIntfConfig() ? status->ipIntfConfig()->vrf() : L3::VrfName();
}

void IgmpHostProxySm::doArmIpStatusCheckTimer() {
    if (ipStatusCheckTimer_)
        ipStatusCheckTimer_->timeMinIs(Nex::System::currentTime() + ipStatusCheckPeriod);
}

void IgmpHostProxySm::ipStatusCheckTimerExpired() {
    IHP_TRACE_ENTRY();
    Nex::FirstError error;
    for (Lox::IntfId const& intfId : checkInterface()) {
        if (!ipStatus() || !ipStatus()->ipIntfStatus(intfId)) continue;
        error.attempt([&] { handleIntfConfig(intfId); });
        // Afterwards, even if the call has queued the interface again: without a VRF it waits for
        // the next notification rather than for the timer.
        checkInterfaceDel(intfId);
    }
    if (!checkInterface().empty())
        doArmIpStatusCheckTimer();
    else if (ipStatusCheckTimer_)
        ipStatusCheckTimer_->timeMinIs(Nex::never);
    error.rethrow();
}

void IgmpHostProxySm::handleIpAddrChange() {
    IHP_TRACE_ENTRY();
    if (!srcIntfIhpIntf()) return;
    Lox::IntfId const intfId = srcIntfIhpIntf()->intfId();
    if (srcIntfIhpIntf()->ipAddr().isZero()) {
        IHP_TRACE(7, "Interface is down. Deleting intfStatus and state machines");
        deleteIntfSm(intfId);
    } else {
        handleIntfConfig(intfId);
    }
}

void IgmpHostProxySm::handleMfibKesh() {
    IHP_TRACE_ENTRY();
    if (!initialized() || !mfibKeshDir()) return;
    Nex::FirstError error;
    for (auto const& item : mfibKeshDir()->keshColl())
        error.attempt([&] { handleMfibKesh(item.key); });
    error.rethrow();
}

void IgmpHostProxySm::handleMfibKesh(L3::VrfName vrfName) {
    IHP_TRACE_ENTRY(" ( % )", vrfName);
    if (!initialized() || !mfibKeshDir() || !igmpHostProxyConfig()) return;
    // All interfaces, whatever their own VRF, and on purpose: the tables of all VRFs come and go
    // with the one process that routes, so one that goes announces the end of all.
    Nex::FirstError error;
    for (auto const& item : igmpHostProxyConfig()->intfConfig()) {
        if (mfibKeshDir()->keshColl(vrfName)) {
            error.attempt([&] { handleIntfConfig(item.key); });
        } else {
            IHP_TRACE(7, "Deleting IntfSm for intfId : %", item.key);
            error.attempt([&] { deleteIntfSm(item.key); });
        }
    }
    error.rethrow();
}

void IgmpHostProxySm::deleteIntfSm(Lox::IntfId intfId) {
    IHP_TRACE_ENTRY(" ( % )", intfId);
    IHP_TRACE(7, "IgmpHostProxy configured for interface: % Deleting intfStatus, igmpHost and SMs",
              intfId);
    doInProgress(intfId, [&] {
        // Whoever asked for it before wanted it up until now.
        IntfInProgress& progress = *inProgress_.find(intfId);
        progress.again = false;
        progress.takenDown = true;
        Nex::FirstError error;
        error.attempt([&] { igmpHostProxyIntfSmDel(intfId); });
        error.attempt([&] {
            if (igmpHostDir()) igmpHostDir()->igmpHostDel(intfId.stringValue());
        });
        if (igmpHostProxyStatus()) igmpHostProxyStatus()->intfStatusDel(intfId);
        error.rethrow();
    });
}

void IgmpHostProxySm::initializeIgmpHost(Nex::Name name) {
    IHP_TRACE_ENTRY(" ( % )", name);
    Nex::Ptr<Igmp::IgmpHost> const host = igmpHostDir() ? igmpHostDir()->igmpHost(name) : nullptr;
    if (!host) {
        IHP_TRACE(7, "IgmpHost was deleted for : %", name);
        unfilledHost_.take(name);
        return;
    }
    unfilledHost_.findOrInsert(name);
    Lox::IntfId const intfId(name);
    IHP_TRACE(7, "Setting intfId : %", intfId);
    host->intfIdIs(intfId);
    host->nsIs(namespaceOf(intfId));
    host->enableRouterAlertIs(true);
    host->vlanIdIs(1);
    host->useMuxIs(false);
    host->taggedIs(false);
    if (Nex::Ptr<IntfStatus> const status =
            igmpHostProxyStatus() ? igmpHostProxyStatus()->intfStatus(intfId) : nullptr)
        host->deviceNameIs(status->deviceName());
    if (auto const sourceIntf = sourceIntfOf(intfId)) host->ipAddrIs(sourceIntf->ipAddr());
    host->enabledIs(true);
    host->enablePeriodicReportIs(true);
    raiseConfigVersion(*host);
    raiseIntfConfigVersion(*host);
    unfilledHost_.take(name);
}

void IgmpHostProxySm::createOrDeleteIgmpHostIntfSm() {
    IHP_TRACE_ENTRY();
    if (!igmpHostStatusDir()) return;
    Nex::FirstError error;
    for (auto const& item : igmpHostStatusDir()->igmpHostStatus())
        error.attempt([&] { createOrDeleteIgmpHostIntfSm(item.key); });
    error.rethrow();
}

void IgmpHostProxySm::createOrDeleteIgmpHostIntfSm(Nex::Name name) {
    IHP_TRACE_ENTRY(" ifName : %", name);
    Lox::IntfId const intfId(name);
    Nex::Ptr<Igmp::IgmpHostStatus const> const hostStatus =
        igmpHostStatusDir() ? igmpHostStatusDir()->igmpHostStatus(name) : nullptr;
    if (hostStatus) {
        IHP_TRACE(7, "Adding igmpHostIntfSm for intfId : %", intfId);
        igmpHostIntfSmIs(
            intfId, igmpHostProxyStatus() ? igmpHostProxyStatus()->intfStatus(intfId) : nullptr,
            igmpHostDir() ? igmpHostDir()->igmpHost(name) : nullptr, hostStatus,
            sourceIntfOf(intfId));
    } else {
        IHP_TRACE(7, "Deleting igmpHostIntfSm for intfId : %", intfId);
        igmpHostIntfSmDel(intfId);
    }
}

Nex::Ptr<IgmpHostProxyIntfSm> IgmpHostProxySm::igmpHostProxyIntfSmIs(
    Lox::IntfId intfId, Nex::Ptr<IntfConfig const> intfConfig, Nex::Ptr<IntfStatus> intfStatus,
    Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl const> mfibKeshColl,
    Nex::Ptr<Acl::AclTypeConfig const> ipAclConfig, Nex::Ptr<Nex::Clock const> clock,
    Nex::Ptr<Ip::SourceIntf::SourceIntf> srcIntfIhpIntf) {
    auto const factory = [this](auto const&... arguments) {
        return igmpHostProxyIntfSmFactory(arguments..., this);
    };
    return igmpHostProxyIntfSm_.is(factory, intfId, intfConfig, intfStatus, mfibKeshColl,
                                   ipAclConfig, clock, srcIntfIhpIntf);
}

Nex::Ptr<IgmpHostIntfSm>
IgmpHostProxySm::igmpHostIntfSmIs(Lox::IntfId intfId, Nex::Ptr<IntfStatus> intfStatus,
                                  Nex::Ptr<Igmp::IgmpHost> igmpHost,
                                  Nex::Ptr<Igmp::IgmpHostStatus const> igmpHostStatus,
                                  Nex::Ptr<Ip::SourceIntf::SourceIntf> srcIntfIhpIntf) {
    auto const factory = [this](auto const&... arguments) {
        return igmpHostIntfSmFactory(arguments..., this);
    };
    return igmpHostIntfSm_.is(factory, intfId, intfStatus, igmpHost, igmpHostStatus,
                              srcIntfIhpIntf);
}

Nex::Ptr<IgmpHostProxyIntfSm> igmpHostProxyIntfSmFactory(
    Lox::IntfId intfId, Nex::Ptr<IntfConfig const> intfConfig, Nex::Ptr<IntfStatus> intfStatus,
    Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl const> mfibKeshColl,
    Nex::Ptr<Acl::AclTypeConfig const> ipAclConfig, Nex::Ptr<Nex::Clock const> clock,
    Nex::Ptr<Ip::SourceIntf::SourceIntf> srcIntfIhpIntf, IgmpHostProxySm* root) {
    return IgmpHostProxyIntfSm::IgmpHostProxyIntfSmIs(
        std::move(intfId), std::move(intfConfig), std::move(intfStatus), std::move(mfibKeshColl),
        std::move(ipAclConfig), std::move(clock), std::move(srcIntfIhpIntf), root);
}

Nex::Ptr<IgmpHostIntfSm> igmpHostIntfSmFactory(Lox::IntfId intfId, Nex::Ptr<IntfStatus> intfStatus,
                                               Nex::Ptr<Igmp::IgmpHost> igmpHost,
                                               Nex::Ptr<Igmp::IgmpHostStatus const> igmpHostStatus,
                                               Nex::Ptr<Ip::SourceIntf::SourceIntf> srcIntfIhpIntf,
                                               IgmpHostProxySm* root) {
    return Nex::newObject<IgmpHostIntfSm>(std::move(intfId), std::move(intfStatus),
                                          std::move(igmpHost), std::move(igmpHostStatus),
                                          std::move(srcIntfIhpIntf), root);
}

} // namespace IgmpHostProxy
