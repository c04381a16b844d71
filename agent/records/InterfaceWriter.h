// The interfaces of one VRF: what is known of the links in its network namespace, written into the
// platform's state. An interface that the configuration names is usable, and so listed, while its
// link is up and it has an IPv4 address; every interface comes and goes on its own. Whoever learns
// of links (FollowedInterfaces.h) derives from this.
#pragma once

#include "IgmpHostProxy/PlatformState.h"
#include "agent/kernel/InterfaceTable.h"

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace Agent {

class InterfaceWriter {
  public:
    struct Place {
        L3::VrfName vrf;
        Lox::NamespaceName networkNamespace;
        int namespaceFd = -1; ///< negative for the process's own; outlived by its owner
        /// Only the ports of this VRF device are this VRF's; empty for all interfaces.
        std::string vrfDevice = {};
    };
    /// Whether the configuration has the interface of that name in this VRF.
    using Owns = std::function<bool(std::string const& name)>;
    /// Told the name of an interface that changed, after the state has been written.
    using Observer = std::function<void(std::string const& name)>;

    /// `state` outlives this.
    InterfaceWriter(IgmpHostProxy::PlatformState& state, Place place, Owns owns, Observer observer);
    virtual ~InterfaceWriter() = default;
    InterfaceWriter(InterfaceWriter const&) = delete;
    InterfaceWriter& operator=(InterfaceWriter const&) = delete;

    /// Of the whole namespace.
    virtual InterfaceTable const& links() const = 0;
    /// Whether everything has been read once. Before, the table is empty.
    virtual bool synchronized() const = 0;
    /// Null for another VRF's.
    Device device(std::string const& name) const;
    /// Whether an interface of the namespace is this VRF's.
    bool has(KernelInterface const& interface) const;
    /// Of the VRF device; 0 while there is none.
    std::uint32_t vrfTable() const;
    /// Empty for no interface.
    std::string name(int ifindex) const {
        KernelInterface const* const found = links().interface(ifindex);
        return found ? found->name : "";
    }
    Whereabouts whereabouts(std::string const& name) const {
        return {synchronized(), device(name), place_.namespaceFd};
    }
    /// 0.0.0.0 unless the interface is usable.
    Lox::IpAddr address(std::string const& name) const;
    /// What keeps it from being usable; empty for nothing, and nothing before all has been read.
    std::optional<std::string> obstacle(std::string const& name) const;
    /// Writes what is known of an interface of this VRF.
    void doPublish(std::string const& name);
    /// Takes an interface, or all of this VRF, out of those that can be used; the root machine
    /// takes them down.
    void doWithdraw(std::string const& name);
    void doWithdrawAll();

  protected:
    /// A link is new, changed or gone.
    void doPublishInterface(int ifindex);
    /// Writes everything once more.
    void doPublishAll();

  private:
    void doPublishPorts();
    void doPublishKernelInterface(int ifindex);
    void doPublishUsable(Lox::IntfId const& intfId, Lox::IpAddr usableAddress);

    IgmpHostProxy::PlatformState& state_;
    Place place_;
    Owns owns_;
    Observer observer_;
    std::map<int, std::string> names_; ///< as last written, by kernel index
};

} // namespace Agent
