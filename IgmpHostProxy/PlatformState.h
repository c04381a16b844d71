// The state that a root machine is given, under one roof, for programs that embed the library. They
// write it from what the operator and the device say, and read from it what is to be announced.
//
// One thread writes, reads and tells the time. A write returns when all that follows from it has
// been done, but for the reviews of routes, which wait for the clock.
#pragma once

#include "IgmpHostProxy/IgmpHostProxySm.h"

namespace IgmpHostProxy {

/// All inputs exist from the start, and are empty. Programs write to them before or after the root
/// is made, in any order, and from inside callbacks; they move the time on by `clock` and
/// `timerWheel`. The root holds what it is given, so it may outlive this.
///
/// All state is in memory and none of it is kept: a program that starts anew writes it anew. Two
/// roots over the same records would both write them, and each undo the other: there is one.
struct PlatformState {
    /// Knows how to make kernel interface tables; a program with tables of its own sets another
    /// factory before it makes the root.
    PlatformState();
    ~PlatformState();
    /// The same records, timers and tables, not copies of them; single ones may be replaced before
    /// a root is made.
    PlatformState(PlatformState const& other);
    PlatformState& operator=(PlatformState const&) = delete;

    /// A root machine over this state, started up: interfaces for which everything is there are up
    /// when this returns. The caller holds the only pointer. Letting go of it ends all machines and
    /// gives the mounts back, silently: status, hosts and their groups stay as they are, and
    /// whoever wants them gone takes the interfaces out of the configuration before. Throws what a
    /// mount or a watcher throws; nothing is left mounted then.
    Nex::Ptr<IgmpHostProxySm> makeRoot() const;

    /// The kernel interface table of a namespace; null until a machine has mounted it, and again
    /// once it has been given back. Lent: ask anew in each turn. That of the process's own
    /// namespace is there as long as the root.
    KernelNetInfo::Status* kni(Lox::NamespaceName const& networkNamespace) const;

    /// The operator's wish. The program writes it, the machines read it.
    Nex::Ptr<Config> config = Config::ConfigIs("config");
    /// What is announced. The machines write it, the program reads it.
    Nex::Ptr<Status> status = Status::StatusIs("status");
    /// The forwarding tables, from the program. No interface comes up in a VRF without a collection
    /// here; an empty one will do.
    Nex::Ptr<Kesh::Multicast::Fib::MfibKeshDir> mfibDir =
        Kesh::Multicast::Fib::MfibKeshDir::MfibKeshDirIs("mfib");
    /// The access lists, from the program, whether an interface names them or not.
    Nex::Ptr<Acl::AclTypeConfig> aclConfig = Acl::AclTypeConfig::AclTypeConfigIs("ip");
    /// The hosts that the program's agent is to be. The machines write them.
    Nex::Ptr<Igmp::IgmpHostDir> hostDir = Igmp::IgmpHostDir::IgmpHostDirIs("igmpHost");
    /// What the agent publishes for each of them; without it a host gets no groups.
    Nex::Ptr<Igmp::IgmpHostStatusDir> hostStatusDir =
        Igmp::IgmpHostStatusDir::IgmpHostStatusDirIs("igmpHostStatus");
    /// Runs the reviews of routes. The program tells it the time.
    Nex::Ptr<Nex::Clock> clock = Nex::Clock::ClockIs();
    /// The addresses to send from. The root registers interfaces, the program writes addresses.
    Nex::Ptr<Ip::SourceIntf::SourceIntfSm> sourceIntfSm =
        Ip::SourceIntf::SourceIntfSm::SourceIntfSmIs();
    /// Which VRF an interface is in, from the program, which writes it before the interface comes
    /// up: nobody watches it.
    Nex::Ptr<Ip::Status> ipStatus = Ip::Status::StatusIs("ip");
    /// Which interfaces can be used, and where they are, from the program.
    Nex::Ptr<Interface::AllIntfStatusDir> allIntfStatusDir =
        Interface::AllIntfStatusDir::AllIntfStatusDirIs("intf");
    Nex::Ptr<Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir =
        Interface::AllIntfStatusLocalDir::AllIntfStatusLocalDirIs("intfLocal");
    /// The namespaces of VRFs other than the default one, from the program.
    Nex::Ptr<Ip::AllVrfStatusLocal> allVrfStatusLocal =
        Ip::AllVrfStatusLocal::AllVrfStatusLocalIs("vrf");
    /// Looks again for interfaces whose VRF is not known. The program tells it the time, too.
    Nex::Ptr<Olm::TimerWheel> timerWheel = Olm::TimerWheel::TimerWheelIs();
    /// The kernel interface tables. The root mounts them, the program fills them (`kni`), and
    /// watches this to learn of mounts.
    Nex::Ptr<Vardo::EntityManager> entityManager = Vardo::EntityManager::EntityManagerIs();
};

/// Publishes a status for each host entity as it is initialised, which is the least that a host
/// agent does. For programs without one. To be made after the root, so that an entity is filled in
/// as its status binds it, and before the first interface comes up: it does not look at hosts that
/// are there. Held by whoever makes it, as is the directory that it writes to.
class HostStatusPublisher
    : public Nex::Reactor<Igmp::IgmpHostDir::Notifiee, Igmp::IgmpHostStatusDir> {
  public:
    using Reactor::Reactor;
    void onIgmpHost(Nex::Name name) override {
        if (notifier()->igmpHost(name))
            machine()->igmpHostStatusIs(name);
        else
            machine()->igmpHostStatusDel(name);
    }
};

} // namespace IgmpHostProxy
