// Writes the operator's configuration into the records that the root machine reads, as the
// difference to what was written before: what stays is not touched, and so causes no packet.
#pragma once

#include "IgmpHostProxy/PlatformState.h"
#include "agent/config/Configuration.h"
#include "agent/records/AccessListWriter.h"

#include <set>
#include <string>
#include <vector>

namespace Agent {

class ConfigurationWriter {
  public:
    /// `state` outlives this.
    explicit ConfigurationWriter(IgmpHostProxy::PlatformState& state)
        : state_(state),
          accessLists_(*state.aclConfig, [this](std::string const& name) { doDetachList(name); }) {}

    Configuration const& configuration() const { return written_; }
    /// The one in force before that.
    Configuration const& before() const { return before_; }
    /// Groups that an interface's part of the configuration let go of.
    struct Released {
        std::string interface;
        Lox::IpAddrWithFullMask groups;
    };
    /// What the configuration in force lacks of the one before: the forwarding table may now
    /// announce these groups.
    std::vector<Released> released() const;
    /// Puts a configuration in force, in place of the one before. If that fails on the way, it is
    /// the one to be in force all the same, and doRewrite() is needed.
    void applyConfiguration(Configuration configuration);
    /// Adds an interface to the configuration in force, or takes it out. If that fails on the way,
    /// it is done all the same, and doRewrite() is needed.
    void doAddInterface(std::string const& name, InterfaceConfiguration const& interface);
    void doRemoveInterface(std::string const& name);
    /// Writes it from nothing, whatever the records hold. To be called while no machine follows
    /// them; `attach` then begins with one.
    void doRewrite(std::function<void()> const& attach);
    /// An interface's host entity came or went. Its access lists are attached only meanwhile: lists
    /// that are attached when an interface's machine is built would count twice.
    void handleHost(std::string const& name, bool present);

  private:
    void doWrite();
    /// `was`: what its record holds of an earlier configuration; null for nothing.
    void doWriteInterface(std::string const& name, InterfaceConfiguration const& now,
                          InterfaceConfiguration const* was, bool lost);
    // Both return whether they did.
    static bool doRemoveGroups(InterfaceConfiguration const& before,
                               InterfaceConfiguration const& now,
                               IgmpHostProxy::IntfConfig& record);
    static bool doDetachLists(InterfaceConfiguration const& now, IgmpHostProxy::IntfConfig& record);
    static void doAttachLists(InterfaceConfiguration const& now, IgmpHostProxy::IntfConfig& record);
    void doDetachList(std::string const& name);
    void doRenewWishes(InterfaceConfiguration const& now, IgmpHostProxy::IntfConfig& record);
    bool deniesRoutes(IgmpHostProxy::IntfConfig const& record) const;

    IgmpHostProxy::PlatformState& state_;
    AccessListWriter accessLists_;
    Configuration written_;
    Configuration before_;        ///< in force before that
    std::set<std::string> hosts_; ///< interfaces with a host entity
};

} // namespace Agent
