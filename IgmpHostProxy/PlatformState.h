// The state that a root machine is given, under one roof, for programs that embed the library. They
// write it from what the operator and the device say, and read from it what is to be announced.
#pragma once

#include "IgmpHostProxy/IgmpHostProxySm.h"

namespace IgmpHostProxy {

/// All inputs exist from the start, and are empty. Programs write to them before or after the root
/// is made, in any order, and from inside callbacks; they move the time on by `clock` and
/// `timerWheel`. The root holds what it is given, so it may outlive this.
struct PlatformState {
    /// Knows how to make kernel interface tables; a program with tables of its own sets another
    /// factory before it makes the root.
    PlatformState();
    ~PlatformState();
    /// The same records, timers and tables; single ones may be replaced before a root is made.
    PlatformState(PlatformState const& other);
    PlatformState& operator=(PlatformState const&) = delete;

    /// A root machine over this state, started up. Throws what a mount or a watcher throws; nothing
    /// is left mounted then.
    Nex::Ptr<IgmpHostProxySm> makeRoot() const;

    /// The kernel interface table of a namespace; null until a machine has mounted it.
    KernelNetInfo::Status* kni(Lox::NamespaceName const& networkNamespace) const;

    Nex::Ptr<Config> config = Config::ConfigIs("config");
    Nex::Ptr<Status> status = Status::StatusIs("status");
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
};

/// Publishes a status for each host entity as it is initialised, which is the least that a host
/// agent does. For programs without one.
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

} // namespace IgmpHostProxy
