#include "agent/Daemon.h"

#include "agent/answers/Groups.h"
#include "agent/answers/Metrics.h"
#include "agent/control/JsonRpc.h"
#include "agent/control/UnixSocket.h"
#include "agent/loop/Log.h"
#include "agent/loop/ServiceManager.h"
#include "agent/ports/ChangesAnswer.h"
#include "agent/records/RecordPart.h"

#include <algorithm>
#include <filesystem>
#include <linux/capability.h>
#include <signal.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace Agent {

namespace {

/// How soon an address to serve figures at is tried again, in seconds.
constexpr double metricsRetrySeconds = 5;
/// How soon the attempt to recover is repeated, in seconds.
constexpr double rebuildSeconds = 1;

/// How soon, and how often, the agent tries to say that it is ready.
constexpr double sayReadySeconds = 1;
constexpr unsigned mostReadyTries = 10;

/// As obstacles name it.
constexpr char metricsSubject[] = "metrics";

/// What is announced, under "igmpHost" what the ports count, and under "obstacles" what keeps whom
/// from working.
class StatusPart : public JsonPart {
  public:
    /// `obstacles` outlives this.
    StatusPart(Nex::Ptr<IgmpHostProxy::Status const> announced, std::unique_ptr<JsonPart> hosts,
               Obstacles const& obstacles)
        : announced_(std::move(announced)), hosts_(std::move(hosts)), obstacles_(&obstacles) {}
    bool next(JsonStream& stream) override {
        if (announced_.next(stream)) return true;
        if (hosts_) {
            stream.open("igmpHost", std::move(hosts_));
            return true;
        }
        if (!obstacles_) return false;
        auto json = nlohmann::json::object();
        for (auto const& [subject, obstacle] : obstacles_->obstacles())
            json[subject] = obstacle.reason;
        stream.add("obstacles", json);
        obstacles_ = nullptr;
        return true;
    }

  private:
    RecordPart<IgmpHostProxy::Status> announced_;
    std::unique_ptr<JsonPart> hosts_;
    Obstacles const* obstacles_;
};

/// Whether no route waits for the machine.
bool isReviewed(IgmpHostProxy::IgmpHostProxyIntfSm const& machine) {
    return !machine.syncAllRoutes() && !machine.reviewTimer()->reviewPending();
}

} // namespace

Daemon::Daemon(Options options, Configuration configuration,
               std::vector<InterfaceState> const& former)
    : options_(std::move(options)),
      writer_(state_),
      keeper_(loop_, options_.stateFile, [this] { return ports_->heldWalk(); }),
      reloader_(loop_, *this, options_.configurationFile) {
    doFollowSignals();
    sourceIntfSm_.make(state_.sourceIntfSm, this);
    root_ = state_.makeRoot();
    ports_ = Nex::newObject<PortRegistry>(
        state_, loop_,
        [this](std::string const& name, std::string const& space) { return locate(name, space); },
        [this](std::string const& name, Lox::IpAddr group, bool joined) {
            return causeOf(name, group, joined);
        },
        [this](std::string const& vrf) { return vrfs_->namespaceName(vrf); },
        [this](std::string const& name, bool present) { writer_.handleHost(name, present); });
    if (!hasCapability(CAP_NET_RAW)) obstacles_.report("the agent", noRawSockets, LogLevel::error);
    vrfs_ =
        std::make_unique<VrfRegistry>(state_, loop_, obstacles_, [this](std::string const& name) {
            patterns_.handleInterface(name);
            ports_->handleDevice(name);
        });
    if (!options_.statusFile.empty())
        statusFile_.emplace(loop_, options_.statusFile, [this] {
            return std::make_unique<StatusPart>(state_.status, ports_->statusPart(), obstacles_);
        });
    loop_.onExhaustion([this] { handleExhaustion(); });
    doFollowTime();
    ports_->addFormer(former);
    doConfigure(std::move(configuration));
    view_.emplace(AgentView{state_, writer_, *vrfs_, *ports_, root_, obstacles_, loop_, reloader_,
                            EventLoop::now()});
    differ_.emplace(loop_, reloader_, static_cast<Reloader::Target&>(*this), *ports_);
    doOpenControl();
}

/// Where it is wanted in a place, it is there or the agent is not; the usual place may be another
/// agent's.
void Daemon::doOpenControl() {
    bool const wanted = !options_.controlPath.empty();
    // Where there is a service manager, it has made the folder.
    std::filesystem::path const usual = defaultControlPath;
    if (!wanted) mkdir(usual.parent_path().c_str(), 0755);
    try {
        methods_ = methods();
        control_.emplace(loop_, wanted ? options_.controlPath : usual.string(), methods_);
    } catch (std::system_error const& error) {
        if (wanted) throw;
        log(LogLevel::info, "no control socket: {}; --control names another place", error.what());
    }
}

void Daemon::doServeMetrics(std::string const& listen) {
    if (listen == metricsListen_ && metrics_) return;
    metricsListen_ = listen;
    metrics_.reset();
    metricsRetry_.disarm();
    if (listen.empty()) return obstacles_.clear(metricsSubject);
    try {
        metrics_.emplace(loop_, listen, [this]() -> MetricsServer::Pieces {
            auto const text = std::make_shared<MetricsText>(*view_);
            return [text](std::string& piece) { return text->next(piece); };
        });
        obstacles_.clear(metricsSubject);
    } catch (std::system_error const& error) {
        obstacles_.report(metricsSubject, fmt::format("cannot be had: {}", error.what()));
        metricsRetry_.arm(metricsRetrySeconds);
    }
}

/// The ports go first: they would look for their interfaces while the VRFs are being taken apart.
Daemon::~Daemon() { ports_ = nullptr; }

void Daemon::doFollowSignals() {
    // First those that end the agent: reloads without end must not keep them waiting.
    for (int const signal : {SIGTERM, SIGINT})
        loop_.onSignal(signal, [this] { doStop(writer_.configuration().keepGroups); });
    loop_.onSignal(SIGHUP, [this] { handleReload(); });
    loop_.onSignal(SIGUSR1, [this] { handleStatus(); });
}

void Daemon::doFollowTime() {
    loop_.onTime(
        [this]() -> std::optional<double> {
            double const next = std::min({state_.clock->nextExpiry(),
                                          state_.timerWheel->nextExpiry(), ports_->nextExpiry()});
            return next == Nex::never ? std::nullopt : std::optional(next);
        },
        [this](double now) {
            state_.clock->timeIs(now);
            state_.timerWheel->timeIs(now);
            ports_->advance(now);
        });
    loop_.atEndOfTurn([this] { followPatterns(); });
    // Two hooks: a port that fails keeps the agent neither from ending nor from saying what fails.
    loop_.atEndOfTurn([this] { ports_->handleTurn(EventLoop::now()); });
    loop_.atEndOfTurn([this] { handleTurn(); });
}

void Daemon::NexSourceIntfSm::onSourceIntf(Lox::IntfId intfId) {
    if (!daemon_->vrfs_) return;
    Lox::IpAddr const address = daemon_->vrfs_->address(intfId.stringValue());
    notifier()->sourceIntf(intfId)->ipAddrIs(address);
}

IgmpHostPort::Location Daemon::locate(std::string const& name,
                                      std::string const& namespaceName) const {
    if (!vrfs_) return {};
    IgmpHostPort::Location location{vrfs_->whereabouts(name, namespaceName)};
    Configuration const& file = writer_.configuration();
    auto const wanted = file.interfaces.find(name);
    if (wanted != file.interfaces.end()) {
        if (namespaceName == file.namespaceOf(wanted->second.vrf))
            location.configuration = &wanted->second;
    }
    location.settled = ready_ && (!location.configuration || settled(name, wanted->second.vrf));
    return location;
}

/// Groups go while a configuration is put in force because of what the one before asked for.
std::string Daemon::causeOf(std::string const& name, Lox::IpAddr group, bool joined) const {
    if (joined) return originText(writer_.configuration(), name, group);
    return ports_->changes().begun() ? originText(writer_.before(), name, group)
                                     : originNames.back();
}

/// Whether all routes have come through to the groups of the interface, once at least.
bool Daemon::settled(std::string const& name, std::string const& vrf) const {
    if (!root_) return false; // building it anew has failed, and is tried again
    auto const* const machine = root_->igmpHostProxyIntfSm(Lox::IntfId(name));
    return machine && vrfs_->routesTold(vrf) && isReviewed(*machine);
}

void Daemon::doConfigure(Configuration configuration) {
    try {
        patterns_.doResolve(configuration, *vrfs_);
        if (damaged_) doDismantle(); // half of it would go by what was not heard
        // Before any interface is there: the machine looks at all of them for each table that
        // comes.
        for (auto const& item : configuration.vrfs)
            state_.mfibDir->keshCollIs(L3::VrfName(item.first));
        configured_ = true;
        // Interfaces that go leave their groups before their VRF is taken away.
        writer_.applyConfiguration(std::move(configuration));
        if (damaged_) return doRebuild();
        vrfs_->applyConfiguration(writer_.configuration());
        ports_->handleConfiguration();
        for (auto const& released : writer_.released()) {
            Nex::Ptr const machine = root_->igmpHostProxyIntfSm(Lox::IntfId(released.interface));
            if (machine) machine->doReleaseGroups(released.groups);
        }
    } catch (std::exception const& error) {
        log(LogLevel::error, "the configuration is put in force anew, because of: {}",
            error.what());
        doRebuild();
    }
}

/// The machines go, and all that they have written.
void Daemon::doDismantle() {
    ports_->doDetach();
    root_ = nullptr;
    state_.hostDir->igmpHostDelAll();
    state_.hostStatusDir->igmpHostStatusDelAll();
    state_.status->intfStatusDelAll();
}

/// Something has failed half way, most likely for want of memory, and nobody knows what the
/// machines have heard. They are made anew, over records that are written anew; the ports stay, so
/// that the network hears of nothing but differences. If this fails, too, it is tried again.
void Daemon::doRebuild() {
    if (ending_) { // what has failed may have been the end
        rebuild_.arm(rebuildSeconds);
        if (!keeping_) ports_->doEnd(EventLoop::now());
        return;
    }
    handleExhaustion();
    doDismantle();
    writer_.doRewrite([this] {
        root_ = state_.makeRoot();
        ports_->doAttach();
    });
    vrfs_->applyConfiguration(writer_.configuration());
    vrfs_->doRenew();
    ports_->doEndRebuild();
    ports_->handleConfiguration();
    damaged_ = false;
    rebuild_.disarm();
    log(LogLevel::warning, "everything was built anew after a failure");
}

void Daemon::handleExhaustion() {
    damaged_ = true;
    rebuild_.arm(rebuildSeconds);
}

/// One that fails on the way leaves the state half written.
void Daemon::followPatterns() {
    if (ending_ || damaged_) return;
    try {
        patterns_.handleTurn(*vrfs_);
    } catch (...) {
        handleExhaustion();
        throw;
    }
}

void Daemon::handleTurn() {
    if (ports_->takeHeldChange()) {
        keeper_.handleChange();
        service_.handleChange();
    }
    if (keeping_) {
        if (keeper_.doWriteAtOnce()) return doEnd();
        keeping_ = false;
        log(LogLevel::warning, "the groups are left, for nothing would tell the next run of them");
        ports_->doEnd(EventLoop::now());
    }
    if (ports_->ended()) {
        // Before it was ready, what an earlier run announced was not left.
        if (ready_ && ports_->takeOwing())
            keeper_.doWriteAtOnce();
        else if (ready_)
            keeper_.doRemove();
        return doEnd();
    }
    if (std::exchange(configured_, false)) doFollowConfiguration();
    vrfs_->handleTurn();
    if (obstacles_.handleTurn()) service_.handleChange();
    trimmer_.handleTurn();
    reserve_.handleTurn();
    reloader_.handleTurn();
    if (ready_ || ending_ || !vrfs_->synchronized()) return;
    ready_ = true;
    // What an earlier run announced, where nobody asks for it now, waits for this.
    ports_->handleConfiguration();
    doSayReady();
    serviceNotify("READY=1");
    log(LogLevel::debug, "ready, {} groups announced so far", ports_->memberCount());
    ports_->handleTurn(EventLoop::now());
    service_.doTell();
}

/// Somebody may wait for it who is slow to read what was written before, or not there at all.
void Daemon::doSayReady() {
    if (writeAtOnce(STDOUT_FILENO, "ready\n") || ++readyTries_ == mostReadyTries) return;
    sayReady_.arm(sayReadySeconds);
}

/// What beside the groups goes by the configuration. Not in a copy of the agent, whose turns are
/// others.
void Daemon::doFollowConfiguration() {
    bool const unkept = writer_.configuration().keepGroups && options_.stateFile.empty();
    obstacles_.report("keep-groups", unkept ? "has no effect, for --state names no file" : "");
    if (control_)
        obstacles_.report("the control socket",
                          control_->setGroup(writer_.configuration().controlGroup));
    doServeMetrics(writer_.configuration().metricsListen);
    service_.handleChange();
}

/// How many interfaces of the configuration can be used.
std::size_t Daemon::usableCount() const {
    auto const& interfaces = writer_.configuration().interfaces;
    return std::size_t(
        std::count_if(interfaces.begin(), interfaces.end(), [this](auto const& item) {
            return vrfs_->obstacle(item.first).value_or("?").empty();
        }));
}

/// For the service manager.
std::string Daemon::statusText() const {
    std::size_t const groups = ports_->memberCount();
    std::string const obstacle = obstacles_.text();
    return fmt::format("{} of {} interfaces up, {} group{}{}{}", usableCount(),
                       writer_.configuration().interfaces.size(), groups, groups == 1 ? "" : "s",
                       obstacle.empty() ? "" : "; ", obstacle);
}

void Daemon::handleReload() {
    if (!ending_) reloader_.handleSignal(ready_); // before, the start is not over by that
}

void Daemon::doReload(Reloader::Request request) {
    if (ending_) throw RpcError(RpcError::refused, "the agent is ending");
    reloader_.reload(std::move(request), ready_);
}

/// Whether the machines have nothing left to do for the groups. Those of a damaged state are built
/// anew first.
bool Daemon::settled() const {
    if (damaged_ || !root_ || !vrfs_->synchronized() || !vrfs_->routesJudged()) return false;
    auto const& interfaces = writer_.configuration().interfaces;
    return std::none_of(interfaces.begin(), interfaces.end(), [this](auto const& item) {
        auto const* const machine = root_->igmpHostProxyIntfSm(Lox::IntfId(item.first));
        return machine && !isReviewed(*machine);
    });
}

/// Whether any group is asked for on an interface that is there. One where nobody has looked yet
/// may be.
bool Daemon::selectsHere(Configuration const& configuration) const {
    auto const selects = [&](InterfaceConfiguration const& entry) {
        return configuration.selectedGroups(entry) > 0;
    };
    for (auto const& [name, entry] : configuration.interfaces) {
        Whereabouts const here = vrfs_->whereabouts(name, configuration.namespaceOf(entry.vrf));
        if ((!here.followed || here.device.kernel) && selects(entry)) return true;
    }
    for (InterfaceConfiguration const& pattern : configuration.patterns)
        if (pattern.vrf != defaultVrf && selects(pattern)) return true;
    bool any = false;
    vrfs_->forInterfaces([&](std::string const&, std::string const& name) {
        InterfaceConfiguration const* const entry = configuration.entryFor(name);
        any = any || (entry && !entry->pattern.empty() && selects(*entry));
    });
    return any;
}

bool Daemon::leavesAll(Configuration const& configuration) const {
    if (selectsHere(configuration)) return false;
    bool any = false;
    bool kept = false; // for the forwarding table
    for (auto const& item : writer_.configuration().interfaces) {
        IgmpHostPort const* const port = ports_->port(item.first);
        if (!port) continue;
        any |= port->engine().memberCount() > 0;
        if (configuration.entryFor(item.first))
            port->engine().forMembers(
                [&](Lox::IpAddr group) { kept = kept || isRouteOnly(*view_, item.first, group); });
    }
    return any && !kept;
}

nlohmann::json Daemon::changesJson() const {
    ChangeCounts const counts = changeCounts(*ports_);
    return {{"joined", counts.joined}, {"left", counts.left}, {"changed", counts.changed}};
}

void Daemon::handleStatus() {
    if (!statusFile_) return log(LogLevel::warning, "no status is written: --status names no file");
    statusFile_->doWrite();
}

/// Has all groups left; or kept for the next run, at the end of the turn: what the turn changes is
/// told to the routers by then.
void Daemon::doStop(bool keepGroups) {
    // The end takes a second, whoever asks for it again.
    if (std::exchange(ending_, true)) return;
    serviceNotify("STOPPING=1");
    keeping_ = keepGroups && !options_.stateFile.empty();
    if (!keeping_) ports_->doEnd(EventLoop::now());
}

void Daemon::doEnd() {
    loop_.stop(0);
    for (RpcReply const& reply : std::exchange(stopped_, {})) {
        reply.result({{"groupsKept", keeping_}});
        reply.flush();
    }
}

} // namespace Agent
