// The root machine of the IGMP host proxy.
//
// For every interface that the configuration names it finds the VRF, the kernel device and the MAC
// address, and then keeps, as far as things are known: the interface's status, its proxy machine,
// its host entity, and the binding of the two. Each interface is decided anew, from scratch,
// whenever something about it changes (`handleIntfConfig(intfId)`).
//
//     IgmpHostProxySm.cpp       start-up and the life of each interface
//     IgmpHostProxySmVrf.cpp    VRFs, kernel interfaces, device names and MAC addresses
//
// An interface comes up once these are there, in whichever order they come: its configuration, its
// VRF, the VRF's view of the kernel, its device there, and a collection of forwarding tables of
// that VRF, be it empty. Then come, each told as it does: the registration of its source interface,
// its status, its machine with all groups, its host entity; the first two without tables, too. It
// goes down as the device, any collection or the configuration goes, or the address of the
// interface that was registered last.
//
// Everything is done inside the call that brings it about, and whoever is told may change any of
// it: a set-up ends where its interface is taken down, and is done once more where it was changed.
//
// Timers: `ipStatusCheckTimer`, on the timer wheel, looks again for the VRF of the interfaces in
// `checkInterface` every `ipStatusCheckPeriod` seconds while there are any.
#pragma once

#include "Acl/AclConfig.h"
#include "Igmp/IgmpHost.h"
#include "IgmpHostProxy/Config.h"
#include "IgmpHostProxy/IgmpHostIntfSm.h"
#include "IgmpHostProxy/IgmpHostProxyIntfSm.h"
#include "IgmpHostProxy/KernelVrfIntfStatus.h"
#include "IgmpHostProxy/Status.h"
#include "Interface/NetNsIntfStatusManager.h"
#include "Ip/SourceIntf.h"
#include "Ip/Status.h"
#include "Kesh/Mfib.h"
#include "Nex/Machine.h"
#include "Olm/TimerWheel.h"
#include "Vardo/EntityManager.h"

namespace IgmpHostProxy {

class IgmpHostProxySm : public Nex::PtrInterface {
  public:
    static constexpr char nexTypeName[] = "IgmpHostProxy::IgmpHostProxySm";
    static constexpr double ipStatusCheckPeriod = 1.0; // seconds

    /// Use the factory `IgmpHostProxySmIs`. An input may be null; what depends on it stays away,
    /// but `clock`, without which the first interface that comes up ends the process. All are held
    /// as long as the root. Throws what a mount or a watcher throws at start-up, and leaves nothing
    /// mounted then.
    IgmpHostProxySm(
        Nex::Ptr<Config const> igmpHostProxyConfig, Nex::Ptr<Status> igmpHostProxyStatus,
        Nex::Ptr<Kesh::Multicast::Fib::MfibKeshDir const> mfibKeshDir,
        Nex::Ptr<Acl::AclTypeConfig const> ipAclConfig, Nex::Ptr<Igmp::IgmpHostDir> igmpHostDir,
        Nex::Ptr<Igmp::IgmpHostStatusDir const> igmpHostStatusDir, Nex::Ptr<Nex::Clock const> clock,
        Nex::Ptr<Ip::SourceIntf::SourceIntfSm> sourceIntfSm, Nex::Ptr<Ip::Status const> ipStatus,
        Nex::Ptr<Interface::AllIntfStatusDir const> allIntfStatusDir,
        Nex::Ptr<Interface::AllIntfStatusLocalDir const> allIntfStatusLocalDir,
        Nex::Ptr<Ip::AllVrfStatusLocal const> allVrfStatusLocal,
        Nex::Ptr<Olm::TimerWheel> timerWheel, Nex::Ptr<Vardo::EntityManager> entityManager);
    /// Deletes the machines and gives its mounts back, but deletes no record of the state store.
    /// Not from below one of the root's own calls: whoever is told of something leaves it to the
    /// loop.
    ~IgmpHostProxySm() override;

    // Each handler looks at the inputs as they are now, so it may be called at any time, also from
    // inside a callback, and again. Where it concerns several interfaces, an error of one keeps no
    // other waiting, and the caller hears the first.

    /// The constructor's part: the timer, the managers of namespaces, and the default VRF, whose
    /// kernel table it mounts.
    void handleInitialized();
    void handleIntfConfig();
    /// Decides one interface: sets up what is possible now, or, once it has left the configuration,
    /// takes it down. While it is under way for the interface, it is done once more afterwards.
    /// Takes the time of one interface, whatever the number of others; does nothing that is done
    /// already.
    void handleIntfConfig(Lox::IntfId intfId);
    void handleMfibKesh();
    /// A VRF's tables came or went; all interfaces are decided anew, or taken down, those of other
    /// VRFs, too. The latter come up again as something happens to them, or as any collection
    /// comes.
    void handleMfibKesh(L3::VrfName vrfName);
    /// The address of the interface that was registered last came, changed or went: it is decided
    /// anew, or taken down. Of others the addresses are left to their bindings.
    void handleIpAddrChange();
    /// Decides the interfaces that wait for their VRF and have an IP status by now.
    void ipStatusCheckTimerExpired();
    /// Fills in the host entity of that name, which is the interface's; one that has gone is
    /// traced. Whoever made the entity, and whether or not the interface is up. If a watcher
    /// throws, the next look at the interface fills in the rest.
    void initializeIgmpHost(Nex::Name name);
    void createOrDeleteIgmpHostIntfSm();
    /// Brings the binding of an interface in step with the host agent's status of that name. Made
    /// of the entity and the interface's status as they are now, null where they are not there. A
    /// binding to other objects that is still there makes this throw Nex::NameInUseException.
    void createOrDeleteIgmpHostIntfSm(Nex::Name name);
    /// Takes an interface down: its machine, its host entity and its status go, in that order. The
    /// binding goes with the host agent's status. It stays configured, and may come up again.
    void deleteIntfSm(Lox::IntfId intfId);
    /// Of the interface's IP status, which nobody watches: empty when unknown.
    L3::VrfName doGetVrfNameFromIntf(Lox::IntfId intfId) const;

    /// Copies the MAC address of a kernel interface into the status of the proxy interface on it.
    /// Where it is not known, that keeps what it has. An inconsistent table is counted there.
    void getIntfEthAddr(L3::VrfName vrfName, std::uint32_t ifIndex);
    /// Takes an interface up or down by its kernel device name. One that has a name and no
    /// configuration is left alone; one without a name goes down, configured or not.
    void handleDeviceName(L3::VrfName vrfName, Lox::IntfId intfId);
    /// The VRF's reactor comes or goes with the VRF, and with it the mount, the view and the
    /// manager.
    void handleVrf(L3::VrfName vrfName);
    void handleVrf();

    /// The interface's machine, made of these where there is none. Null while it is being made.
    /// Throws Nex::NameInUseException where one of other objects is there. Here and below: what is
    /// returned plain is lent, and walks yield counted pointers.
    Nex::Ptr<IgmpHostProxyIntfSm> igmpHostProxyIntfSmIs(
        Lox::IntfId intfId, Nex::Ptr<IntfConfig const> intfConfig, Nex::Ptr<IntfStatus> intfStatus,
        Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl const> mfibKeshColl,
        Nex::Ptr<Acl::AclTypeConfig const> ipAclConfig, Nex::Ptr<Nex::Clock const> clock,
        Nex::Ptr<Ip::SourceIntf::SourceIntf> srcIntfIhpIntf);
    /// What the machine has written stays in the status.
    void igmpHostProxyIntfSmDel(Lox::IntfId intfId) { igmpHostProxyIntfSm_.del(intfId); }
    IgmpHostProxyIntfSm* igmpHostProxyIntfSm(Lox::IntfId intfId) const {
        return igmpHostProxyIntfSm_.get(intfId);
    }
    auto igmpHostProxyIntfSm() const { return igmpHostProxyIntfSm_.walk(); }

    /// Likewise the binding of an interface.
    Nex::Ptr<IgmpHostIntfSm> igmpHostIntfSmIs(Lox::IntfId intfId, Nex::Ptr<IntfStatus> intfStatus,
                                              Nex::Ptr<Igmp::IgmpHost> igmpHost,
                                              Nex::Ptr<Igmp::IgmpHostStatus const> igmpHostStatus,
                                              Nex::Ptr<Ip::SourceIntf::SourceIntf> srcIntfIhpIntf);
    void igmpHostIntfSmDel(Lox::IntfId intfId) { igmpHostIntfSm_.del(intfId); }
    IgmpHostIntfSm* igmpHostIntfSm(Lox::IntfId intfId) const { return igmpHostIntfSm_.get(intfId); }
    auto igmpHostIntfSm() const { return igmpHostIntfSm_.walk(); }

    /// Creates a VRF's kernel view and its reactor, or finds the one that is there. A view that
    /// reads another table is in the way: Nex::NameInUseException.
    Nex::Ptr<KernelVrfIntfStatus>
    kernelVrfIntfStatusIs(L3::VrfName vrfName, Nex::Ptr<KernelNetInfo::Status const> kniStatus);
    /// Ends its reactor, too. Mounts and managers are left to the VRF, and interfaces that are up
    /// stay so.
    void kernelVrfIntfStatusDel(L3::VrfName vrfName);
    void kernelVrfIntfStatusDelAll();
    KernelVrfIntfStatus* kernelVrfIntfStatus(L3::VrfName vrfName) const {
        return kernelVrfIntfStatus_.get(vrfName);
    }

    /// Replaces the managers of all namespaces by none: directories that were filled stay as they
    /// are.
    void
    intfStatusManagerRootIs(Nex::Ptr<Interface::AllIntfStatusDir const> allIntfStatusDir,
                            Nex::Ptr<Interface::AllIntfStatusLocalDir const> allIntfStatusLocalDir,
                            bool active);
    Interface::NetNsIntfStatusManagerRoot* intfStatusManagerRoot() const {
        return intfStatusManagerRoot_.get();
    }
    /// Makes the timer, disarmed; without a wheel there is none, and interfaces without a VRF wait
    /// for another notification.
    void ipStatusCheckTimerIs(Nex::Ptr<Olm::TimerWheel> timerWheel);

    // Reactors: each forwards what it is told to a handler above. They are made with the root and
    // heed nothing once it ends.

    class NexIgmpHostProxyConfig : public Nex::Reactor<Config::NotifieeConst, IgmpHostProxySm> {
      public:
        using Reactor::Reactor;
        void onIntfConfig(Lox::IntfId intfId) override { machine()->handleIntfConfig(intfId); }
    };

    class NexMfibKeshDir
        : public Nex::Reactor<Kesh::Multicast::Fib::MfibKeshDir::NotifieeConst, IgmpHostProxySm> {
      public:
        using Reactor::Reactor;
        void onKeshColl(L3::VrfName vrfName) override { machine()->handleMfibKesh(vrfName); }
    };

    class NexIgmpHostDir : public Nex::Reactor<Igmp::IgmpHostDir::Notifiee, IgmpHostProxySm> {
      public:
        using Reactor::Reactor;
        void onIgmpHost(Nex::Name name) override { machine()->initializeIgmpHost(name); }
    };

    class NexIgmpHostStatusDir
        : public Nex::Reactor<Igmp::IgmpHostStatusDir::NotifieeConst, IgmpHostProxySm> {
      public:
        using Reactor::Reactor;
        void onIgmpHostStatus(Nex::Name name) override {
            machine()->createOrDeleteIgmpHostIntfSm(name);
        }
    };

    /// Never armed. The clock is watched to be handed to the machines.
    class NexClock : public Nex::Reactor<Nex::Clock::NotifieeConst, IgmpHostProxySm> {
      public:
        using Reactor::Reactor;
    };

    /// Pointing it at another interface runs no handler: who does that is setting it up.
    class NexSrcIntfIhpIntf
        : public Nex::Reactor<Ip::SourceIntf::SourceIntf::Notifiee, IgmpHostProxySm> {
      public:
        using Reactor::Reactor;
        void onIpAddr() override { machine()->handleIpAddrChange(); }
    };

    class NexIpStatusCheckTimer : public Nex::Reactor<Olm::TimerWheel::Notifiee, IgmpHostProxySm> {
      public:
        using Reactor::Reactor;
        void onTime() override { machine()->ipStatusCheckTimerExpired(); }
    };

    class NexAllVrfStatusLocal
        : public Nex::Reactor<Ip::AllVrfStatusLocal::NotifieeConst, IgmpHostProxySm> {
      public:
        using Reactor::Reactor;
        void onVrf(L3::VrfName vrfName) override { machine()->handleVrf(vrfName); }
        void onVrfnexImmediate() override { machine()->handleVrf(); }
    };

    /// What a VRF has of its network namespace: the mounted interface table, the view that reads
    /// it, and the manager that fills the view's device names. It knows at any moment how far they
    /// have come, for whoever is told of a step may end the VRF.
    class KernelVrf {
      public:
        KernelVrf(IgmpHostProxySm* root, L3::VrfName vrfName);
        /// Brings up what is not there yet, and fills a new directory of device names. The table
        /// that is mounted first stays the view's, also under another namespace. Throws what a
        /// mount or a watcher throws; another call, or `del`, tidies up what that left.
        void networkNamespaceIs(Lox::NamespaceName const& networkNamespace);
        /// Ends view, mount and manager, as far as they have come; the interfaces stay as they are.
        void del();
        /// All that is left to do once the root has ended everything else. Nobody is there to hear
        /// an error.
        void doUnmountAtEnd() noexcept;

      private:
        void doUnmount();
        void doEndManager();

        IgmpHostProxySm* root_;
        L3::VrfName vrfName_;
        Lox::NamespaceName mounted_; ///< whose interface table the view reads
        Lox::NamespaceName managed_; ///< whose device names fill `directory_`
        Nex::Ptr<Interface::DeviceIntfStatusDir> directory_;
    };

    /// One VRF. Builds the VRF's kernel view as soon as its namespace is known. The default VRF's
    /// is the root's own, and a VRF without a name has none.
    class NexVrf : public Nex::Reactor<Ip::VrfStatusLocal::NotifieeConst, IgmpHostProxySm> {
      public:
        NexVrf(Nex::Ptr<Ip::VrfStatusLocal const> vrf, IgmpHostProxySm* root);
        void handleNetworkNamespace();
        /// The VRF went away.
        void handleDel();

        void onNetworkNamespace() override { handleNetworkNamespace(); }
        void onNotifier() override { handleNetworkNamespace(); }
        void nexRetire() override;

      private:
        KernelVrf kernelVrf_;
    };

    /// One VRF's kernel view: follows its interface table, and its directory of device names even
    /// when that is replaced.
    class NexVrfIntfStatusDir
        : public Nex::Reactor<KernelVrfIntfStatus::NotifieeConst, IgmpHostProxySm> {
      public:
        NexVrfIntfStatusDir(Nex::Ptr<KernelVrfIntfStatus const> view, IgmpHostProxySm* root);
        void onDeviceIntfStatusDir() override;

        class NexKniStatus
            : public Nex::Reactor<KernelNetInfo::Status::NotifieeConst, NexVrfIntfStatusDir> {
          public:
            using Reactor::Reactor;
            void handleKniInterface(KernelNetInfo::InterfaceKey key);
            void onInterface(KernelNetInfo::InterfaceKey key) override { handleKniInterface(key); }
        };

        class NexKernelIntfStatusDir
            : public Nex::Reactor<Interface::DeviceIntfStatusDir::NotifieeConst,
                                  NexVrfIntfStatusDir> {
          public:
            NexKernelIntfStatusDir(Nex::Ptr<Interface::DeviceIntfStatusDir const> directory,
                                   NexVrfIntfStatusDir* dir);
            void handleDeviceName(Lox::IntfId intfId);
            void handleDeviceName();

            void onIntfStatusAndDeviceName(Lox::IntfId intfId) override {
                handleDeviceName(intfId);
            }
            void onIntfStatusAndDeviceNamenexImmediate() override { handleDeviceName(); }
        };

        L3::VrfName vrfName() const { return notifier()->vrfName(); }
        void nexRetire() override;

      private:
        Nex::Owned<NexKniStatus> kniStatus_;
        Nex::Owned<NexKernelIntfStatusDir> kernelIntfStatusDir_;
    };

  private:
    /// An interface that is being set up or taken down. Taking it down inside its set-up ends that;
    /// setting it up waits until neither is under way, and then begins from scratch.
    struct IntfInProgress {
        bool again = false;                              ///< to be decided anew
        bool takenDown = false;                          ///< since its set-up began
        Nex::Ptr<Ip::SourceIntf::SourceIntf> sourceIntf; ///< that its set-up has registered
    };
    /// Calls `act` for an interface, then decides the interface anew if that was asked for.
    template <class Act>
    void doInProgress(Lox::IntfId const& intfId, Act act);
    void doDecideIntf(Lox::IntfId const& intfId);
    void doForgetIntf(Lox::IntfId const& intfId);
    /// The source interface that the set-up under way has registered, otherwise the slot's.
    Nex::Ptr<Ip::SourceIntf::SourceIntf> sourceIntfOf(Lox::IntfId const& intfId) const;
    /// Ends all machines, silently. The destructor's part that a failed constructor needs, too.
    void doEnd();
    void doRegisterIntf(Lox::IntfId const& intfId, L3::VrfName const& vrfName,
                        Interface::IntfStatusAndDeviceName const& device);
    void doProxyIntf(Lox::IntfId const& intfId, L3::VrfName const& vrfName);
    void doArmIpStatusCheckTimer();
    /// Mounts the kernel interface table of a namespace; null when there is none to be had.
    Nex::Ptr<KernelNetInfo::Status> doMountKniStatus(Lox::NamespaceName const& networkNamespace);
    /// How often the table at a path is mounted, by whomever.
    unsigned mountsOf(Nex::String const& path) const;
    void doUnmountKniStatus(Lox::NamespaceName const& networkNamespace);
    Lox::NamespaceName namespaceOf(Lox::IntfId const& intfId) const;

    NEX_WATCHED(Config const, igmpHostProxyConfig, NexIgmpHostProxyConfig)
    NEX_INPUT(Status, igmpHostProxyStatus)
    NEX_WATCHED(Kesh::Multicast::Fib::MfibKeshDir const, mfibKeshDir, NexMfibKeshDir)
    NEX_INPUT(Acl::AclTypeConfig const, ipAclConfig)
    NEX_WATCHED(Igmp::IgmpHostDir, igmpHostDir, NexIgmpHostDir)
    NEX_WATCHED(Igmp::IgmpHostStatusDir const, igmpHostStatusDir, NexIgmpHostStatusDir)
    NEX_WATCHED(Nex::Clock const, clock, NexClock)
    NEX_INPUT(Ip::SourceIntf::SourceIntfSm, sourceIntfSm)
    NEX_INPUT(Ip::Status const, ipStatus)
    NEX_INPUT(Interface::AllIntfStatusDir const, allIntfStatusDir)
    NEX_INPUT(Interface::AllIntfStatusLocalDir const, allIntfStatusLocalDir)
    NEX_WATCHED(Ip::AllVrfStatusLocal const, allVrfStatusLocal, NexAllVrfStatusLocal)
    NEX_INPUT(Olm::TimerWheel, timerWheel)
    NEX_INPUT(Vardo::EntityManager, entityManager)

    Nex::MachineMap<L3::VrfName, KernelVrfIntfStatus> kernelVrfIntfStatus_;
    Nex::Ptr<Interface::NetNsIntfStatusManagerRoot> intfStatusManagerRoot_;
    Nex::MachineMap<Lox::IntfId, IgmpHostProxyIntfSm> igmpHostProxyIntfSm_;
    Nex::MachineMap<Lox::IntfId, IgmpHostIntfSm> igmpHostIntfSm_;
    NEX_FIELD(bool, initialized, false)
    NEX_REACTORS(L3::VrfName, NexVrf, vrf, Ip::VrfStatusLocal const, vrfName)
    NEX_REACTORS(L3::VrfName, NexVrfIntfStatusDir, vrfIntfStatusDir, KernelVrfIntfStatus const,
                 vrfName)
    /// The source interface registered last. One slot for all interfaces, on purpose: the address
    /// of the others is watched by their own bindings, and their loss shows in the device names.
    NEX_WATCHED(Ip::SourceIntf::SourceIntf, srcIntfIhpIntf, NexSrcIntfIhpIntf)
    /// Those whose VRF was not known as they were decided. They leave it as the timer finds an IP
    /// status, be it without a VRF.
    NEX_FIELD_SET(Lox::IntfId, checkInterface)
    Nex::Map<Lox::IntfId, IntfInProgress> inProgress_;
    Nex::Set<Nex::Name> unfilledHost_; ///< host entities whose filling in was interrupted
    KernelVrf defaultVrf_;
    Nex::Owned<NexIpStatusCheckTimer> ipStatusCheckTimer_;
};

/// Makes the root machine and starts it up, as its constructor says. All inputs are counted and
/// shared with the caller, who holds the only pointer to the root and ends it by letting go.
/// `PlatformState::makeRoot` spares writing them all down.
Nex::Ptr<IgmpHostProxySm> IgmpHostProxySmIs(
    Nex::Ptr<Config const> igmpHostProxyConfig, Nex::Ptr<Status> igmpHostProxyStatus,
    Nex::Ptr<Kesh::Multicast::Fib::MfibKeshDir const> mfibKeshDir,
    Nex::Ptr<Acl::AclTypeConfig const> ipAclConfig, Nex::Ptr<Igmp::IgmpHostDir> igmpHostDir,
    Nex::Ptr<Igmp::IgmpHostStatusDir const> igmpHostStatusDir, Nex::Ptr<Nex::Clock const> clock,
    Nex::Ptr<Ip::SourceIntf::SourceIntfSm> sourceIntfSm, Nex::Ptr<Ip::Status const> ipStatus,
    Nex::Ptr<Interface::AllIntfStatusDir const> allIntfStatusDir,
    Nex::Ptr<Interface::AllIntfStatusLocalDir const> allIntfStatusLocalDir,
    Nex::Ptr<Ip::AllVrfStatusLocal const> allVrfStatusLocal, Nex::Ptr<Olm::TimerWheel> timerWheel,
    Nex::Ptr<Vardo::EntityManager> entityManager);
/// The same, under the name that generic construction looks for.
inline constexpr auto igmpHostProxySmFactory = &IgmpHostProxySmIs;

/// How the root makes its machines: it owns them, and `root`, which is not held, outlives them.
Nex::Ptr<IgmpHostProxyIntfSm> igmpHostProxyIntfSmFactory(
    Lox::IntfId intfId, Nex::Ptr<IntfConfig const> intfConfig, Nex::Ptr<IntfStatus> intfStatus,
    Nex::Ptr<Kesh::Multicast::Fib::MfibKeshColl const> mfibKeshColl,
    Nex::Ptr<Acl::AclTypeConfig const> ipAclConfig, Nex::Ptr<Nex::Clock const> clock,
    Nex::Ptr<Ip::SourceIntf::SourceIntf> srcIntfIhpIntf, IgmpHostProxySm* root);
Nex::Ptr<IgmpHostIntfSm> igmpHostIntfSmFactory(Lox::IntfId intfId, Nex::Ptr<IntfStatus> intfStatus,
                                               Nex::Ptr<Igmp::IgmpHost> igmpHost,
                                               Nex::Ptr<Igmp::IgmpHostStatus const> igmpHostStatus,
                                               Nex::Ptr<Ip::SourceIntf::SourceIntf> srcIntfIhpIntf,
                                               IgmpHostProxySm* root);

} // namespace IgmpHostProxy
