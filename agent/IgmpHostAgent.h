// The host protocol's agent: a port for every host entity, made and withdrawn in the notification
// in which the entity comes and goes. The status that it publishes there is what binds the entity
// to its interface while the interface is the one being set up.
//
// Build it after the root machine: it must be told of an entity after the machine has initialised
// it.
#pragma once

#include "agent/IgmpHostPort.h"

#include <map>
#include <string>

namespace Agent {

class IgmpHostAgent : public Nex::PtrInterface {
  public:
    /// Told the name of a host entity that came or went.
    using Observer = std::function<void(std::string const& name, bool present)>;

    /// `state` and `loop` outlive this.
    IgmpHostAgent(IgmpHostProxy::PlatformState& state, EventLoop& loop, IgmpHostPort::Locate locate,
                  Observer observer);
    ~IgmpHostAgent() override;

    /// A kernel interface changed.
    void handleDevice(std::string const& name);
    /// The configuration changed, of any interface.
    void handleConfiguration();
    void handleTurn(double now);
    double nextExpiry() const;
    void timeIs(double now);
    /// Leaves all groups everywhere, for a shutdown: nothing is sent or opened afterwards.
    void doLeave(double now);
    /// What each port has counted, by the interface's name.
    nlohmann::json statusJson() const;

  private:
    class NexIgmpHostDir : public Nex::Reactor<Igmp::IgmpHostDir::Notifiee, IgmpHostAgent> {
      public:
        using Reactor::Reactor;
        void onIgmpHost(Nex::Name name) override { machine()->handleHost(name); }
    };

    void handleHost(Nex::Name const& name);

    IgmpHostProxy::PlatformState& state_;
    EventLoop& loop_;
    IgmpHostPort::Locate locate_;
    Observer observer_;
    std::map<std::string, Nex::Ptr<IgmpHostPort>> ports_;
    NEX_WATCHED(Igmp::IgmpHostDir, hostDir, NexIgmpHostDir)
};

} // namespace Agent
