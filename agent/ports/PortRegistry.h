// The ports of all host entities: one comes and goes in the notification in which its entity does;
// ports without an entity stay for as long as they have groups to leave. The status that is
// published there is what binds the entity to its interface while the interface is the one being
// set up.
//
// Build it after the root machine: it must be told of an entity after the machine has initialised
// it.
#pragma once

#include "Nex/Error.h"
#include "agent/files/StateKeeper.h"
#include "agent/kernel/LeftNamespace.h"
#include "agent/ports/IgmpHostPort.h"
#include "agent/records/JsonStream.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Agent {

class PortRegistry : public Nex::PtrInterface {
  public:
    /// Told the name of a host entity that came or went.
    using Observer = std::function<void(std::string const& name, bool present)>;

    /// Told the name of a VRF, tells that of its namespace; empty for the agent's own.
    using NamespaceOf = std::function<std::string(std::string const& vrf)>;

    /// `locate` knows of the namespaces of VRFs. `state` and `loop` outlive this.
    PortRegistry(IgmpHostProxy::PlatformState& state, EventLoop& loop, IgmpHostPort::Locate locate,
                 IgmpHostPort::Cause cause, NamespaceOf namespaceOf, Observer observer);
    ~PortRegistry() override;

    /// What routers may hold from an earlier run, to be left unless it is wanted again. To be told
    /// before any entity is there.
    void addFormer(std::vector<InterfaceState> const& former);
    /// Tells what routers may hold, interfaces in the order of their names and some groups at each
    /// call. Ports and groups may come and go meanwhile.
    StateKeeper::Next heldWalk() const;
    /// Whether that has changed since the last call.
    bool takeHeldChange() { return std::exchange(heldChanged_, false); }

    // The root machine and all host entities are made anew. Meanwhile the ports stay as they are,
    // and those whose entity is back afterwards go on with it.

    void doDetach();
    /// The new root machine is there, the entities not yet.
    void doAttach();
    void doEndRebuild();

    /// A kernel interface changed.
    void handleDevice(std::string const& name);
    /// The configuration changed, or what locates any interface.
    void handleConfiguration();
    void handleTurn(double now);
    double nextExpiry() const { return schedule_.nextTime(); }
    void advance(double now);
    /// Leaves all groups everywhere, for a shutdown: no interface is opened from now on. The time
    /// goes on to be told.
    void doEnd(double now);
    /// Whether that is over, a second later at most.
    bool ended() const { return ending_ && absent_.empty(); }
    /// Whether routers may still hold something then that could not be left; heldWalk() tells it.
    bool takeOwing();
    /// From now on remembers what groups were before they change.
    void beginChanges() { changes_.begin(); }
    void endChanges() { changes_.end(); }
    GroupChanges const& changes() const { return changes_; }
    /// Whether any port has a change to tell, or to tell again.
    bool telling() const;
    /// Groups that are wanted, on all interfaces together.
    std::size_t memberCount() const;
    /// Null without a host entity of that interface.
    IgmpHostPort const* port(std::string const& name) const;
    /// Of one interface, or of all for an empty name.
    void doResetCounters(std::string const& name);
    /// What each port has counted, by the interface's name.
    std::unique_ptr<JsonPart> statusPart() const;

  private:
    class NexIgmpHostDir : public Nex::Reactor<Igmp::IgmpHostDir::Notifiee, PortRegistry> {
      public:
        using Reactor::Reactor;
        void onIgmpHost(Nex::Name name) override { machine()->handleHost(name); }
    };

    class StatusPart;
    class HeldWalk;

    void handleHost(Nex::Name const& name);
    void doWithdraw(Nex::Name const& name);
    Nex::Ptr<IgmpHostPort> portFor(std::string const& name, std::string const& namespaceName);
    IgmpHostPort::Location locate(std::string const& name, std::string const& namespaceName) const;
    void doServe(double now);
    void doServe(IgmpHostPort& port, double now);
    void doSeek(IgmpHostPort const& port);
    void doForgetLeft();
    void doForgetIfFinished(IgmpHostPort const& port, double now);
    /// The first behind `after` in the order of names; nothing at the end.
    std::optional<std::string> nameAfter(std::string const& after) const;
    std::vector<IgmpHostPort const*> portsOf(std::string const& name) const;
    template <class Visit>
    void forPorts(Visit visit) const {
        for (auto const& [name, port] : ports_) visit(*port);
        for (auto const& [name, port] : absent_) visit(*port);
    }

    IgmpHostProxy::PlatformState& state_;
    EventLoop& loop_;
    IgmpHostPort::Locate locate_;
    IgmpHostPort::Cause cause_;
    NamespaceOf namespaceOf_;
    Observer observer_;
    GroupChanges changes_;
    PortSchedule schedule_;
    std::map<std::string, Nex::Ptr<IgmpHostPort>> ports_;
    /// Without an entity. An interface that moves to another network may have several.
    std::multimap<std::string, Nex::Ptr<IgmpHostPort>> absent_;
    std::multimap<std::string, Nex::Ptr<IgmpHostPort>> owing_; ///< of those, at the end
    /// By name: those that ports without an entity were in when no VRF had them.
    std::map<std::string, LeftNamespace> left_;
    std::set<std::string> leftChanged_; ///< of these, or new
    bool absentGone_ = false;           ///< a port that may have been the last in one of these
    bool ending_ = false;
    bool heldChanged_ = false;
    NEX_WATCHED(Igmp::IgmpHostDir, hostDir, NexIgmpHostDir)
};

} // namespace Agent
