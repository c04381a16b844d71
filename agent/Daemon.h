// The agent as a whole: its state, the root machine over it, and the modules between the machine
// and the operator, the kernel and the wire.
#pragma once

#include "IgmpHostProxy/PlatformState.h"
#include "agent/answers/ConfigurationAnswer.h"
#include "agent/answers/View.h"
#include "agent/config/Configuration.h"
#include "agent/control/ControlServer.h"
#include "agent/control/MetricsServer.h"
#include "agent/files/StateKeeper.h"
#include "agent/files/StatusFile.h"
#include "agent/loop/EventLoop.h"
#include "agent/loop/HeapTrimmer.h"
#include "agent/loop/MemoryReserve.h"
#include "agent/loop/ServiceStatus.h"
#include "agent/ports/Obstacles.h"
#include "agent/ports/PatternInterfaces.h"
#include "agent/ports/PortRegistry.h"
#include "agent/ports/VrfRegistry.h"
#include "agent/records/ConfigurationWriter.h"
#include "agent/reload/Differ.h"
#include "agent/reload/Reloader.h"

#include <memory>
#include <optional>
#include <string>

namespace Agent {

class Daemon : private Reloader::Target {
  public:
    struct Options {
        std::string configurationFile;
        /// Where SIGUSR1 writes the agent's view; empty for nowhere.
        std::string statusFile;
        /// Where a later run finds what this one announced, if it ends without leaving; empty for
        /// nowhere.
        std::string stateFile;
        /// Where the control socket is, or empty for the usual place, which need not be had.
        std::string controlPath;
    };

    /// Starts everything and puts the configuration in force; `former` is what an earlier run has
    /// announced. Throws std::system_error where the kernel refuses what cannot be done without.
    Daemon(Options options, Configuration configuration, std::vector<InterfaceState> const& former);
    ~Daemon() override;
    Daemon(Daemon const&) = delete;
    Daemon& operator=(Daemon const&) = delete;

    /// Serves until a signal ends it; the exit status.
    int run() { return loop_.run(); }
    EventLoop& loop() { return loop_; }
    /// Whether the configuration file is being read once more.
    bool reading() const { return reloader_.reading(); }
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
    RpcMethods methods();
    void doOpenControl();
    void doServeMetrics(std::string const& listen);
    std::size_t usableCount() const;
    std::string statusText() const;
    nlohmann::json statusJson() const;
    void doSetLogLevel(std::string const& name, double seconds);
    void doFollowTime();
    void handleTurn();
    void doSayReady();
    void handleReload();
    void doReload(Reloader::Request request);
    void handleStatus();
    void doStop(bool keepGroups);
    void doEnd();
    bool settled(std::string const& name, std::string const& vrf) const;
    // Reloader::Target
    Configuration const& before() const override { return writer_.before(); }
    void putInForce(Configuration configuration) override { doConfigure(std::move(configuration)); }
    void followPatterns() override;
    bool settled() const override;
    bool leavesAll(Configuration const& configuration) const override;
    bool selectsHere(Configuration const& configuration) const;
    void beginChanges() override { ports_->beginChanges(); }
    nlohmann::json changesJson() const override;
    void endChanges() override { ports_->endChanges(); }

    void doConfigure(Configuration configuration);
    void doFollowConfiguration();
    void doDismantle();
    void doRebuild();
    void handleExhaustion();
    std::string causeOf(std::string const& name, Lox::IpAddr group, bool joined) const;
    IgmpHostPort::Location locate(std::string const& name, std::string const& namespaceName) const;

    Options options_;
    EventLoop loop_;
    LoopTime time_;
    IgmpHostProxy::PlatformState state_;
    ConfigurationWriter writer_;
    PatternInterfaces patterns_{writer_};
    Obstacles obstacles_;
    Nex::Owned<NexSourceIntfSm> sourceIntfSm_;
    Nex::Ptr<IgmpHostProxy::IgmpHostProxySm> root_;
    Nex::Ptr<PortRegistry> ports_;
    std::unique_ptr<VrfRegistry> vrfs_;
    StateKeeper keeper_;
    std::optional<StatusFile> statusFile_;
    Alarm rebuild_{loop_, [this] { doRebuild(); }};
    HeapTrimmer trimmer_{loop_};
    MemoryReserve reserve_;
    ServiceStatus service_{loop_, [this] { return statusText(); }};
    std::optional<AgentView> view_;
    Reloader reloader_;
    std::optional<Differ> differ_;
    FileAnswers fileAnswers_{loop_};
    RpcMethods methods_;
    std::optional<ControlServer> control_;
    std::optional<MetricsServer> metrics_;
    std::string metricsListen_; ///< where it is, or is to be
    Alarm metricsRetry_{loop_, [this] { doServeMetrics(metricsListen_); }};
    Alarm sayReady_{loop_, [this] { doSayReady(); }};
    unsigned readyTries_ = 0;
    Alarm formerLevel_{loop_, [this] { setLogLevel(levelBefore_); }};
    LogLevel levelBefore_{};  ///< to be returned to
    bool damaged_ = false;    ///< what stands between the configuration and the ports
    bool configured_ = false; ///< anew, in this turn
    bool ready_ = false;
    bool ending_ = false;
    bool keeping_ = false;          ///< the groups, at the end
    std::vector<RpcReply> stopped_; ///< told at the end
};

} // namespace Agent
