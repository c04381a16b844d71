// The agent as a whole: its state, the root machine over it, and the modules between the machine
// and the operator, the kernel and the wire.
#pragma once

#include "IgmpHostProxy/PlatformState.h"
#include "agent/Obstacles.h"
#include "agent/PortRegistry.h"
#include "agent/VrfRegistry.h"
#include "agent/config/Configuration.h"
#include "agent/files/StateKeeper.h"
#include "agent/files/StatusFile.h"
#include "agent/loop/EventLoop.h"
#include "agent/loop/HeapTrimmer.h"
#include "agent/records/ConfigurationWriter.h"

#include <memory>
#include <optional>
#include <string>

namespace Agent {

/// Writes what reading a file has found to the log.
void logDiagnostics(std::vector<Diagnostic> const& diagnostics);

class Daemon {
  public:
    struct Options {
        std::string configurationFile;
        /// Where SIGUSR1 writes the agent's view; empty for nowhere.
        std::string statusFile;
        /// Where a later run finds what this one announced, if it ends without leaving; empty for
        /// nowhere.
        std::string stateFile;
    };

    /// Starts everything and puts the configuration in force. Throws std::system_error where the
    /// kernel refuses what cannot be done without.
    Daemon(Options options, Configuration configuration);
    ~Daemon();
    Daemon(Daemon const&) = delete;
    Daemon& operator=(Daemon const&) = delete;

    /// Serves until a signal ends it; the exit status.
    int run() { return loop_.run(); }
    EventLoop& loop() { return loop_; }
    IgmpHostProxy::PlatformState const& state() const { return state_; }

  private:
    /// The loop's time is the time of all machines.
    class LoopTime : public Nex::TimeSource {
      public:
        LoopTime() { Nex::System::timeSourceIs(this); }
        ~LoopTime() { Nex::System::timeSourceIs(nullptr); }
        double currentTime() override { return EventLoop::now(); }
    };
    /// Tells the address of an interface as it is registered.
    class NexSourceIntfSm
        : public Nex::Reactor<Ip::SourceIntf::SourceIntfSm::Notifiee, Nex::PtrInterface> {
      public:
        NexSourceIntfSm(Nex::Ptr<Ip::SourceIntf::SourceIntfSm> service, Daemon* daemon)
            : Reactor(std::move(service), static_cast<Nex::PtrInterface*>(nullptr)),
              daemon_(daemon) {}
        void onSourceIntf(Lox::IntfId intfId) override;

      private:
        Daemon* daemon_;
    };

    void doFollowSignals();
    void doFollowTime();
    void handleTurn();
    void handleReload();
    void doReload();
    void handleStatus();
    void handleTerminate();
    void doReadState();
    bool settled(std::string const& name, std::string const& vrf) const;
    void doConfigure(Configuration configuration);
    void doRebuild();
    void handleExhaustion();
    IgmpHostPort::Location locate(std::string const& name, std::string const& vrf) const;

    Options options_;
    EventLoop loop_;
    LoopTime time_;
    IgmpHostProxy::PlatformState state_;
    ConfigurationWriter writer_;
    Obstacles obstacles_;
    Nex::Owned<NexSourceIntfSm> sourceIntfSm_;
    Nex::Ptr<IgmpHostProxy::IgmpHostProxySm> root_;
    Nex::Ptr<PortRegistry> hosts_;
    std::unique_ptr<VrfRegistry> vrfs_;
    StateKeeper keeper_;
    std::optional<StatusFile> statusFile_;
    Alarm rebuild_{loop_, [this] { doRebuild(); }};
    HeapTrimmer trimmer_{loop_};
    bool damaged_ = false; ///< what stands between the configuration and the ports
    bool ready_ = false;
    bool ending_ = false;
};

} // namespace Agent
