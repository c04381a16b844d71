// A whole platform in the process, for tests, benchmarks and the demonstration: the state that a
// root machine is given, and short ways to change it as a device would.
#pragma once

#include "IgmpHostProxy/IgmpHostProxySm.h"

#include <string>

namespace Support {

/// Publishes a host status for every host entity as it is initialised, as a host agent does.
class HostStatusPublisher
    : public Nex::Reactor<Igmp::IgmpHostDir::Notifiee, Igmp::IgmpHostStatusDir> {
  public:
    using Reactor::Reactor;
    void onIgmpHost(Nex::Name name) override {
        if (notifier()->igmpHost(name)) {
            machine()->igmpHostStatusIs(name);
        } else {
            machine()->igmpHostStatusDel(name);
        }
    }
};

struct InProcessPlatform {
    InProcessPlatform() {
        entityManager->factoryIs("KernelNetInfo::Status", [](Nex::String const& path) {
            return KernelNetInfo::Status::StatusIs(path);
        });
        teller.make(sourceIntfSm, this);
    }
    ~InProcessPlatform() { publisher.del(); }

    /// Starts the root machine, then the host agent's part: hosts that came up with the root are
    /// published at once.
    void start() {
        root = IgmpHostProxy::IgmpHostProxySmIs(config, status, mfibDir, aclConfig, hostDir,
                                                hostStatusDir, clock, sourceIntfSm, ipStatus,
                                                allIntfStatusDir, allIntfStatusLocalDir,
                                                allVrfStatusLocal, timerWheel, entityManager);
        publisher.make(hostDir, hostStatusDir.get());
        for (auto const& item : hostDir->igmpHost()) publisher->onIgmpHost(item.key);
    }

    KernelNetInfo::Status* kni(std::string const& ns = "default") const {
        auto const* const mounted = entityManager->mounted("kni/ns/" + ns + "/status");
        return mounted ? dynamic_cast<KernelNetInfo::Status*>(mounted->entity().get()) : nullptr;
    }
    void vrfOfIntf(std::string const& intf, std::string const& vrf) {
        Lox::IntfId const intfId(intf);
        auto const ipConfig = Ip::IpIntfConfig::IpIntfConfigIs(intfId);
        ipConfig->vrfIs(L3::VrfName(vrf));
        ipStatus->ipIntfStatusIs(intfId)->ipIntfConfigIs(ipConfig);
    }
    void kernelDevice(std::string const& device, std::uint32_t ifIndex,
                      std::string const& ns = "default") {
        kni(ns)->interfaceIs(KernelNetInfo::InterfaceKey(ifIndex),
                             {ifIndex, device, macOf(ifIndex)});
    }
    void listIntf(std::string const& intf, std::string const& ns = "default") {
        Lox::IntfId const intfId(intf);
        auto const local = allIntfStatusLocalDir->intfStatusLocalIs(intfId);
        local->networkNamespaceIs(Lox::NamespaceName(ns));
        local->deviceNameIs(intf);
        allIntfStatusDir->intfStatusIs(intfId)->operUpIs(true);
    }
    void delistIntf(std::string const& intf) {
        allIntfStatusDir->intfStatus(Lox::IntfId(intf))->operUpIs(false);
    }
    /// The address is told as the interface is registered, and whenever it changes later.
    void addressOf(std::string const& intf, std::string const& address) {
        *addresses.findOrInsert(Lox::IntfId(intf)).first = Lox::IpAddr(address);
        if (auto* const source = sourceIntfSm->sourceIntf(Lox::IntfId(intf)))
            source->ipAddrIs(Lox::IpAddr(address));
    }
    /// Everything that a usable interface of the default VRF has.
    void usableIntf(std::string const& intf, std::uint32_t ifIndex) {
        vrfOfIntf(intf, "default");
        addressOf(intf, "192.0.2." + std::to_string(ifIndex));
        kernelDevice(intf, ifIndex);
        listIntf(intf);
    }
    void tables(std::string const& vrf = "default") { mfibDir->keshCollIs(L3::VrfName(vrf)); }

    static Lox::EthAddr macOf(std::uint32_t ifIndex) {
        return Lox::EthAddr({2, 0, 0, 0, 0, std::uint8_t(ifIndex)});
    }
    IgmpHostProxy::IntfStatus* intfStatus(std::string const& intf) const {
        return status->intfStatus(Lox::IntfId(intf));
    }
    Igmp::IgmpHost* host(std::string const& intf) const { return hostDir->igmpHost(intf); }

    class AddressTeller
        : public Nex::Reactor<Ip::SourceIntf::SourceIntfSm::Notifiee, Nex::PtrInterface> {
      public:
        AddressTeller(Nex::Ptr<Ip::SourceIntf::SourceIntfSm> service, InProcessPlatform* platform)
            : Reactor(std::move(service), static_cast<Nex::PtrInterface*>(nullptr)),
              platform_(platform) {}
        void onSourceIntf(Lox::IntfId intfId) override {
            if (auto const* const address = platform_->addresses.find(intfId))
                notifier()->sourceIntf(intfId)->ipAddrIs(*address);
        }

      private:
        InProcessPlatform* platform_;
    };

    Nex::Ptr<IgmpHostProxy::Config> config = IgmpHostProxy::Config::ConfigIs("config");
    Nex::Ptr<IgmpHostProxy::Status> status = IgmpHostProxy::Status::StatusIs("status");
    Nex::Ptr<Kesh::Multicast::Fib::MfibKeshDir> mfibDir =
        Kesh::Multicast::Fib::MfibKeshDir::MfibKeshDirIs("mfib");
    Nex::Ptr<Acl::AclTypeConfig> aclConfig = Acl::AclTypeConfig::AclTypeConfigIs("ip");
    Nex::Ptr<Igmp::IgmpHostDir> hostDir = Igmp::IgmpHostDir::IgmpHostDirIs("igmpHost");
    Nex::Ptr<Igmp::IgmpHostStatusDir> hostStatusDir =
        Igmp::IgmpHostStatusDir::IgmpHostStatusDirIs("igmpHostStatus");
    Nex::Ptr<Nex::Clock> clock = Nex::Clock::ClockIs();
    Nex::Ptr<Ip::SourceIntf::SourceIntfSm> sourceIntfSm =
        Ip::SourceIntf::SourceIntfSm::SourceIntfSmIs();
    Nex::Ptr<Ip::Status> ipStatus = Ip::Status::StatusIs("ip");
    Nex::Ptr<Interface::AllIntfStatusDir> allIntfStatusDir =
        Interface::AllIntfStatusDir::AllIntfStatusDirIs("intf");
    Nex::Ptr<Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir =
        Interface::AllIntfStatusLocalDir::AllIntfStatusLocalDirIs("intfLocal");
    Nex::Ptr<Ip::AllVrfStatusLocal> allVrfStatusLocal =
        Ip::AllVrfStatusLocal::AllVrfStatusLocalIs("vrf");
    Nex::Ptr<Olm::TimerWheel> timerWheel = Olm::TimerWheel::TimerWheelIs();
    Nex::Ptr<Vardo::EntityManager> entityManager = Vardo::EntityManager::EntityManagerIs();

    Nex::Map<Lox::IntfId, Lox::IpAddr> addresses;
    Nex::Owned<AddressTeller> teller;
    Nex::Owned<HostStatusPublisher> publisher;
    Nex::Ptr<IgmpHostProxy::IgmpHostProxySm> root;
};

} // namespace Support
