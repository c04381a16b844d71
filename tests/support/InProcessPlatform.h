// A whole platform in the process, for tests and benchmarks: the state that a root machine is
// given, and short ways to change it as a device would.
#pragma once

#include "IgmpHostProxy/PlatformState.h"

#include <string>

namespace Support {

struct InProcessPlatform : IgmpHostProxy::PlatformState {
    InProcessPlatform() { teller.make(sourceIntfSm, this); }
    ~InProcessPlatform() { publisher.del(); }

    /// Starts the root machine, then the host agent's part: hosts that came up with the root are
    /// published at once.
    void start() {
        root = makeRoot();
        publisher.make(hostDir, hostStatusDir.get());
        for (auto const& item : hostDir->igmpHost()) publisher->onIgmpHost(item.key);
    }

    KernelNetInfo::Status* kni(std::string const& ns = "default") const {
        return PlatformState::kni(Lox::NamespaceName(ns));
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
        allIntfStatusDir->intfStatusIs(Lox::IntfId(intf))->operUpIs(false);
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

    Nex::Map<Lox::IntfId, Lox::IpAddr> addresses;
    Nex::Owned<AddressTeller> teller;
    Nex::Owned<IgmpHostProxy::HostStatusPublisher> publisher;
    Nex::Ptr<IgmpHostProxy::IgmpHostProxySm> root;
};

} // namespace Support
