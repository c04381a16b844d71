// The state that the agent shares with the root machine: every record that the machine is given,
// under one roof. The agent's modules write it from what the operator and the kernel say, and read
// from it what is to be announced.
#pragma once

#include "IgmpHostProxy/IgmpHostProxySm.h"

namespace Agent {

struct PlatformState {
    PlatformState() {
        entityManager->factoryIs("KernelNetInfo::Status", [](Nex::String const& path) {
            return KernelNetInfo::Status::StatusIs(path);
        });
    }

    /// A root machine over this state.
    Nex::Ptr<IgmpHostProxy::IgmpHostProxySm> makeRoot() const {
        return IgmpHostProxy::IgmpHostProxySmIs(config, status, mfibDir, aclConfig, hostDir,
                                                hostStatusDir, clock, sourceIntfSm, ipStatus,
                                                allIntfStatusDir, allIntfStatusLocalDir,
                                                allVrfStatusLocal, timerWheel, entityManager);
    }

    /// The kernel interface table of a namespace; null until a machine has mounted it.
    KernelNetInfo::Status* kni(Lox::NamespaceName const& networkNamespace) const {
        auto const* const mounted =
            entityManager->mounted("kni/ns/" + networkNamespace.stringValue() + "/status");
        return mounted ? dynamic_cast<KernelNetInfo::Status*>(mounted->entity().get()) : nullptr;
    }

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
};

} // namespace Agent
