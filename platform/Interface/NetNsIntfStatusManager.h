// Fills the directories of device names: an interface is listed in a namespace's directory while
// its status says that it can be used, its local status places it in the namespace, and the kernel
// table of the namespace has its device.
//
// The root watches the interfaces, once for all managers, and tells those whom a change concerns; a
// manager watches the kernel table of its namespace. So a change costs the same, and a manager
// takes the same memory, however many interfaces and namespaces there are.
//
// Everything is looked at anew at each change, and once more after everything that was told: a
// watcher of a directory may take the interface away, or end the manager. An error of one interface
// keeps no other waiting, and whoever made the change hears the first.
#pragma once

#include "Interface/Status.h"
#include "KernelNetInfo/Status.h"
#include "Nex/Machine.h"

#include <set>
#include <vector>

namespace Interface {

class NetNsIntfStatusManagerRoot;

/// Where local status has an interface.
struct Place {
    Lox::NamespaceName networkNamespace;
    Nex::String deviceName;
    friend auto operator<=>(Place const&, Place const&) = default;
};

/// Fills one directory from one kernel table.
class NetNsIntfStatusManager : public Nex::PtrInterface {
  public:
    /// Fills nothing yet: `handleInterface()` does, once whoever makes it has noted it. `root` is
    /// not held; it outlives the manager's reactors, and calls what is below. The other inputs are
    /// held, and not null. What it has listed stays listed as it ends.
    NetNsIntfStatusManager(Nex::Ptr<DeviceIntfStatusDir> deviceIntfStatusDir,
                           Nex::Ptr<KernelNetInfo::Status const> kniStatus,
                           Lox::NamespaceName networkNamespace, NetNsIntfStatusManagerRoot* root);
    ~NetNsIntfStatusManager() override { nexDoZombieReactors(true); }

    DeviceIntfStatusDir* deviceIntfStatusDir() const { return deviceIntfStatusDir_.get(); }

    /// Looks at the whole kernel table, or at one of its entries; of an entry that has not changed
    /// since nothing follows.
    void handleInterface();
    void handleInterface(KernelNetInfo::InterfaceKey key);
    /// Lists the interface, or takes it out, in two steps that are told one by one. Nothing where
    /// the directory says already what it should.
    void handleIntf(Lox::IntfId const& intfId);

  private:
    struct NexKniStatus
        : Nex::Reactor<KernelNetInfo::Status::NotifieeConst, NetNsIntfStatusManager> {
        using Reactor::Reactor;
        void onInterface(KernelNetInfo::InterfaceKey key) override {
            machine()->handleInterface(key);
        }
    };

    /// What the directory should say of an interface.
    IntfStatusAndDeviceName entryOf(Lox::IntfId const& intfId) const;
    void doList(Lox::IntfId const& intfId, IntfStatusAndDeviceName const& entry);
    void doDelist(Lox::IntfId const& intfId);

    Nex::Ptr<DeviceIntfStatusDir> deviceIntfStatusDir_;
    Nex::Ptr<KernelNetInfo::Status const> kni_;
    Lox::NamespaceName networkNamespace_;
    NetNsIntfStatusManagerRoot* root_;

    Nex::Map<KernelNetInfo::InterfaceKey, KernelNetInfo::Interface> known_; ///< of the table
    /// Between a device's end and its successor's beginning the table may show both, in any order:
    /// the one that came last counts.
    Nex::Map<Nex::String, std::vector<std::uint32_t>> ifIndexesByDevice_;
    Nex::Owned<NexKniStatus> kniStatus_;
};

/// The managers of all namespaces, and the interfaces by their places. Owned by the proxy's root.
class NetNsIntfStatusManagerRoot : public Nex::PtrInterface {
  public:
    /// With `active` false, or without a directory to read, the managers fill nothing. Holds both
    /// directories, which may be null.
    NetNsIntfStatusManagerRoot(Nex::Ptr<AllIntfStatusDir const> allIntfStatusDir,
                               Nex::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir,
                               bool active);
    ~NetNsIntfStatusManagerRoot() override;

    /// Starts filling `deviceIntfStatusDir` for a namespace; a manager that fills it already makes
    /// way. A namespace may have several directories. What is there is listed before this returns.
    /// Nothing happens without a table. Throws what watchers of the directory throw, with the
    /// manager in place.
    void intfStatusManagerIs(Nex::Ptr<DeviceIntfStatusDir> deviceIntfStatusDir,
                             Nex::Ptr<KernelNetInfo::Status const> kniStatus,
                             Lox::NamespaceName networkNamespace);
    /// Ends the filling of one directory, or, with null, of all directories of the namespace. What
    /// they list stays there.
    void intfStatusManagerDel(Lox::NamespaceName networkNamespace,
                              Nex::Ptr<DeviceIntfStatusDir const> deviceIntfStatusDir = nullptr);
    /// The namespace's first manager, or null. Lent.
    NetNsIntfStatusManager* intfStatusManager(Lox::NamespaceName const& networkNamespace) const;

    AllIntfStatusDir const* allIntfStatus() const { return allIntfStatus_.get(); }
    AllIntfStatusLocalDir const* allIntfStatusLocal() const { return allIntfStatusLocal_.get(); }
    /// The interfaces on a device, in the order of their names, whether they are up or not.
    std::vector<Lox::IntfId> intfsAt(Place const& place) const;

    // An interface came, went, or changed in one of the two directories. All of them look at what
    // the directories say now.

    void handleIntfStatus(Lox::IntfId const& intfId);
    void handleIntfStatusLocal(Lox::IntfId const& intfId);
    /// The interface may have moved: it leaves the namespace where it was before it is listed in
    /// the other.
    void handlePlace(Lox::IntfId const& intfId);
    /// Has the managers of a namespace look at an interface.
    void handleIntf(Lox::NamespaceName const& networkNamespace, Lox::IntfId const& intfId);

  private:
    template <class Interface>
    using Reactor = Nex::Reactor<Interface, NetNsIntfStatusManagerRoot>;

    struct NexAllIntfStatusDir : Reactor<AllIntfStatusDir::NotifieeConst> {
        using Reactor::Reactor;
        void onIntfStatus(Lox::IntfId intfId) override { machine()->handleIntfStatus(intfId); }
    };
    struct NexIntfStatus : Reactor<IntfStatus::NotifieeConst> {
        using Reactor::Reactor;
        void onOperUp() override { machine()->handleIntfStatus(notifier()->intfId()); }
    };
    struct NexAllIntfStatusLocalDir : Reactor<AllIntfStatusLocalDir::NotifieeConst> {
        using Reactor::Reactor;
        void onIntfStatusLocal(Lox::IntfId intfId) override {
            machine()->handleIntfStatusLocal(intfId);
        }
    };
    struct NexIntfStatusLocal : Reactor<IntfStatusLocal::NotifieeConst> {
        using Reactor::Reactor;
        void onNetworkNamespace() override { machine()->handlePlace(notifier()->intfId()); }
        void onDeviceName() override { machine()->handlePlace(notifier()->intfId()); }
    };
    using Managers = std::vector<Nex::Ptr<NetNsIntfStatusManager>>;

    void doFollowIntfStatus(Lox::IntfId const& intfId);
    void doFollowIntfStatusLocal(Lox::IntfId const& intfId);
    /// Brings the index in step; returns where the interface was.
    Place doMoveIntf(Lox::IntfId const& intfId);

    Nex::Ptr<AllIntfStatusDir const> allIntfStatus_;
    Nex::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocal_;
    bool active_;
    Nex::Map<Lox::NamespaceName, Managers> managers_;
    Nex::Map<Lox::IntfId, Place> places_;
    std::set<std::pair<Place, Lox::IntfId>> intfs_; ///< the same, by place
    Nex::Owned<NexAllIntfStatusDir> allIntfStatusDir_;
    Nex::Owned<NexAllIntfStatusLocalDir> allIntfStatusLocalDir_;
    Nex::ReactorMap<Lox::IntfId, NexIntfStatus> intfStatus_;
    Nex::ReactorMap<Lox::IntfId, NexIntfStatusLocal> intfStatusLocal_;
};

} // namespace Interface
