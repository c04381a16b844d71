// Fills a namespace's directory of device names: an interface is listed while its status says that
// it can be used, its local status places it in the namespace, and the kernel table of the
// namespace has its device.
#pragma once

#include "Interface/Status.h"
#include "KernelNetInfo/Status.h"
#include "Nex/Machine.h"

namespace Interface {

class NetNsIntfStatusManager : public Nex::PtrInterface {
  public:
    NetNsIntfStatusManager(Nex::Ptr<AllIntfStatusDir const> allIntfStatusDir,
                           Nex::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir,
                           Nex::Ptr<DeviceIntfStatusDir> deviceIntfStatusDir,
                           Nex::Ptr<KernelNetInfo::Status const> kniStatus,
                           Lox::NamespaceName networkNamespace);
    ~NetNsIntfStatusManager() override { nexDoZombieReactors(true); }

    DeviceIntfStatusDir* deviceIntfStatusDir() const { return deviceIntfStatusDir_.get(); }

    /// Lists the interface, or takes it out.
    void handleIntf(Lox::IntfId const& intfId);
    void handleIntfStatus(Lox::IntfId const& intfId);
    void handleIntfStatusLocal(Lox::IntfId const& intfId);
    void handleInterface(KernelNetInfo::InterfaceKey key);

  private:
    template <class Interface>
    using Reactor = Nex::Reactor<Interface, NetNsIntfStatusManager>;

    struct NexAllIntfStatusDir : Reactor<AllIntfStatusDir::NotifieeConst> {
        using Reactor::Reactor;
        void onIntfStatus(Lox::IntfId intfId) override { machine()->handleIntfStatus(intfId); }
    };
    struct NexIntfStatus : Reactor<IntfStatus::NotifieeConst> {
        using Reactor::Reactor;
        void onOperUp() override { machine()->handleIntf(notifier()->intfId()); }
    };
    struct NexAllIntfStatusLocalDir : Reactor<AllIntfStatusLocalDir::NotifieeConst> {
        using Reactor::Reactor;
        void onIntfStatusLocal(Lox::IntfId intfId) override {
            machine()->handleIntfStatusLocal(intfId);
        }
    };
    struct NexIntfStatusLocal : Reactor<IntfStatusLocal::NotifieeConst> {
        using Reactor::Reactor;
        void onNetworkNamespace() override { machine()->handleIntf(notifier()->intfId()); }
        void onDeviceName() override { machine()->handleIntf(notifier()->intfId()); }
    };
    struct NexKniStatus : Reactor<KernelNetInfo::Status::NotifieeConst> {
        using Reactor::Reactor;
        void onInterface(KernelNetInfo::InterfaceKey key) override {
            machine()->handleInterface(key);
        }
    };

    /// What the directory should say of an interface.
    IntfStatusAndDeviceName entryOf(Lox::IntfId const& intfId) const;
    void doList(Lox::IntfId const& intfId, IntfStatusAndDeviceName const& entry);
    void doDelist(Lox::IntfId const& intfId);
    /// The device has left its index.
    void doForgetDevice(Nex::String const& deviceName);

    Nex::Ptr<AllIntfStatusDir const> allIntfStatus_;
    Nex::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocal_;
    Nex::Ptr<DeviceIntfStatusDir> deviceIntfStatusDir_;
    Nex::Ptr<KernelNetInfo::Status const> kni_;
    Lox::NamespaceName networkNamespace_;

    Nex::Map<Nex::String, std::uint32_t> ifIndexByDevice_;
    Nex::Map<std::uint32_t, Nex::String> deviceByIfIndex_;
    Nex::Owned<NexAllIntfStatusDir> allIntfStatusDir_;
    Nex::Owned<NexAllIntfStatusLocalDir> allIntfStatusLocalDir_;
    Nex::Owned<NexKniStatus> kniStatus_;
    Nex::ReactorMap<Lox::IntfId, NexIntfStatus> intfStatus_;
    Nex::ReactorMap<Lox::IntfId, NexIntfStatusLocal> intfStatusLocal_;
};

/// The managers of all namespaces.
class NetNsIntfStatusManagerRoot : public Nex::PtrInterface {
  public:
    /// With `active` false the managers fill nothing.
    NetNsIntfStatusManagerRoot(Nex::Ptr<AllIntfStatusDir const> allIntfStatusDir,
                               Nex::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir,
                               bool active)
        : allIntfStatusDir_(std::move(allIntfStatusDir)),
          allIntfStatusLocalDir_(std::move(allIntfStatusLocalDir)),
          active_(active) {}

    /// Starts filling `deviceIntfStatusDir` for a namespace. A manager that fills another
    /// directory, or reads another table, makes way.
    void intfStatusManagerIs(Nex::Ptr<DeviceIntfStatusDir> deviceIntfStatusDir,
                             Nex::Ptr<KernelNetInfo::Status const> kniStatus,
                             Lox::NamespaceName networkNamespace);
    void intfStatusManagerDel(Lox::NamespaceName const& networkNamespace);
    NetNsIntfStatusManager* intfStatusManager(Lox::NamespaceName const& networkNamespace) const;

  private:
    Nex::Ptr<AllIntfStatusDir const> allIntfStatusDir_;
    Nex::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir_;
    bool active_;
    Nex::Map<Lox::NamespaceName, Nex::Ptr<NetNsIntfStatusManager>> managers_;
};

} // namespace Interface
