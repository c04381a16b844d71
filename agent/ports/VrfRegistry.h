// All VRFs of the configuration, and which of them each interface is in.
//
// One alarm: every few seconds it has all VRFs try again what the kernel has refused them.
#pragma once

#include "agent/ports/Vrf.h"

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace Agent {

class VrfRegistry {
  public:
    /// `observer` is told the name of an interface that changed. `state`, `loop` and
    /// `obstacles`, which is told of every interface, outlive this. Throws std::system_error where
    /// the kernel refuses the agent's own namespace.
    VrfRegistry(IgmpHostProxy::PlatformState& state, EventLoop& loop, Obstacles& obstacles,
                InterfaceWriter::Observer observer);

    /// Adds, replaces and removes VRFs, and moves interfaces between them; whatever stays is not
    /// touched.
    void applyConfiguration(Configuration const& configuration);

    /// The configuration has an interface more in this VRF, or one less.
    void doAddInterface(std::string const& name, std::string const& vrf);
    void doRemoveInterface(std::string const& name);
    /// Calls `visit` with the name of the VRF and that of each interface that it has.
    template <class Visit>
    void forInterfaces(Visit visit) const {
        for (auto const& [name, vrf] : vrfs_)
            if (vrf->interfaces())
                for (auto const& item : vrf->interfaces()->links().interfaces())
                    if (vrf->interfaces()->has(item.second)) visit(name, item.second.name);
    }
    /// Whether a VRF has such an interface; nothing while that is not known.
    std::optional<bool> exists(std::string const& vrf, std::string const& interface) const;

    /// The end of a turn: tells what keeps the interfaces that changed from being used.
    void handleTurn();
    /// Writes once more what all VRFs know, and nothing else, and has them read it again.
    void doRenew();

    bool synchronized() const;
    /// The name of a VRF's namespace; empty for the agent's own.
    std::string namespaceName(std::string const& vrf) const;
    /// Where an interface is in the namespace of that name, if that is there and a VRF's.
    Whereabouts whereabouts(std::string const& interface, std::string const& namespaceName) const;
    /// Whether all routes of that VRF have been announced, as far as they were there at the start.
    bool routesTold(std::string const& vrf) const;
    /// The kernel's, of that VRF; null for one that is not there.
    RouteTable const* routes(std::string const& vrf) const;
    /// By the index of an interface there; empty for one that is not there.
    std::string interfaceName(std::string const& vrf, int ifindex) const;
    /// Whether no route waits to be judged by the policy in force.
    bool routesJudged() const;
    /// What keeps an interface of the configuration from being used; empty for nothing, and nothing
    /// while that is not known.
    std::optional<std::string> obstacle(std::string const& interface) const;
    /// 0.0.0.0 unless the interface is usable.
    Lox::IpAddr address(std::string const& interface) const;

  private:
    /// Empty for an interface that the configuration does not name.
    std::string vrfOf(std::string const& interface) const;
    InterfaceWriter* interfacesOf(std::string const& interface) const;
    void doMoveInterfaces(std::map<std::string, std::string> vrfOfInterface);
    void doAdd(std::string const& name, VrfConfiguration where);
    void doForget(std::string const& interface);
    void doRetry();

    IgmpHostProxy::PlatformState& state_;
    EventLoop& loop_;
    Obstacles& obstacles_;
    InterfaceWriter::Observer observer_;
    std::set<std::string> changed_; ///< interfaces to tell of, or that nothing is known of yet
    std::map<std::string, std::string> vrfOfInterface_; ///< of those that the configuration names
    Alarm retry_;
    std::map<std::string, std::unique_ptr<Vrf>> vrfs_;
    std::map<std::string, std::string> vrfOfNamespace_; ///< one of them
};

} // namespace Agent
