// One VRF: a network namespace with its interfaces and its multicast routes, for as long as the
// namespace is there. It may appear, vanish and come back; the default VRF is the agent's own
// namespace and always there.
#pragma once

#include "agent/config/Configuration.h"
#include "agent/kernel/KernelRoutes.h"
#include "agent/kernel/NamespaceWatch.h"
#include "agent/ports/Obstacles.h"
#include "agent/records/FollowedInterfaces.h"
#include "agent/records/RouteWriter.h"

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace Agent {

class Vrf {
  public:
    using Owns = InterfaceWriter::Owns;
    using Observer = InterfaceWriter::Observer;

    /// `where`: the agent's own namespace without a device for the default VRF. `state`,
    /// `loop` and `obstacles`, which is told of the namespace, outlive this. The agent's own
    /// namespace is followed at once; throws std::system_error where the kernel refuses. Another
    /// one waits for doRetry().
    Vrf(IgmpHostProxy::PlatformState& state, EventLoop& loop, Obstacles& obstacles,
        std::string name, VrfConfiguration where, Owns owns, Observer observer);
    ~Vrf();
    /// Takes the interfaces down and forgets the routes. What fails is reported to the loop.
    void doStop() noexcept;
    Vrf(Vrf const&) = delete;
    Vrf& operator=(Vrf const&) = delete;

    VrfConfiguration const& where() const { return where_; }
    /// Does what the kernel has refused so far; to be called every few seconds.
    void doRetry();
    /// Null while the namespace is not there, or cannot be followed.
    InterfaceWriter* interfaces() const { return interfaces_.get(); }
    /// What keeps an interface of this VRF from being used; empty for nothing, and nothing while
    /// that is not known.
    std::optional<std::string> obstacle(std::string const& interface) const;
    /// Whether the interfaces have been read, if there is a namespace. Not the routes: the kernel
    /// takes minutes to tell a million.
    bool synchronized() const { return !interfaces_ || interfaces_->synchronized(); }
    /// Whether the routes have been read, too, and those that pass the filter been announced.
    bool routesTold() const { return !routes_ || routes_->told(); }
    /// Whether the routes that are known have been judged by the policy in force.
    bool routesJudged() const { return !routes_ || routes_->reviewed(); }

    /// Null while the namespace is not there.
    RouteTable const* routes() const { return routes_ ? &routes_->table() : nullptr; }

    /// Writes interfaces and routes once more, and reads them again from the kernel.
    void doRenew();
    /// Which routes to announce, and the names of this VRF's proxy interfaces.
    void setRoutePolicy(ForwardingTableConfiguration const& policy, std::set<std::string> proxies);
    /// One of these more, or less.
    void setProxy(std::string const& name, bool proxy);

  private:
    void handleNamespace();
    void setObstacle(std::string obstacle);
    std::string subject() const;
    void doStart(int namespaceFd);
    void doFollowRoutes(int namespaceFd);
    std::uint32_t tableNumber() const;
    void handleInterface(std::string const& name);
    void doPlaceProxy(std::pair<std::string const, int>& proxy);
    void doJudgeProxy(int ifindex);
    void doFilterRoutes();

    IgmpHostProxy::PlatformState& state_;
    EventLoop& loop_;
    Obstacles& obstacles_;
    L3::VrfName name_;
    VrfConfiguration where_;
    Owns owns_;
    Observer observer_;
    ForwardingTableConfiguration policy_;
    std::map<std::string, int> proxies_; ///< with the kernel index by which routes are filtered
    std::string obstacle_;               ///< why there are no interfaces
    std::unique_ptr<FollowedInterfaces> interfaces_;
    std::unique_ptr<RouteWriter> writer_;
    std::unique_ptr<KernelRoutes> routes_;
    std::uint32_t table_ = 0; ///< the number of theirs; 0 for none
    std::unique_ptr<NamespaceWatch> watch_;
};

} // namespace Agent
