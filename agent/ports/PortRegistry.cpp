#include "agent/ports/PortRegistry.h"

#include "agent/loop/Json.h"

#include <algorithm>

namespace Agent {

namespace {

/// For the state file: well below a millisecond.
constexpr std::size_t mostGroupsAtOnce = 1000;

std::string vrfOf(IgmpHostProxy::PlatformState const& state, Lox::IntfId const& intfId) {
    Nex::Ptr const status = state.ipStatus->ipIntfStatus(intfId);
    return status && status->ipIntfConfig() ? status->ipIntfConfig()->vrf().stringValue() : "";
}

} // namespace

PortRegistry::PortRegistry(IgmpHostProxy::PlatformState& state, EventLoop& loop,
                           IgmpHostPort::Locate locate, IgmpHostPort::Cause cause,
                           NamespaceOf namespaceOf, Observer observer)
    : state_(state),
      loop_(loop),
      locate_(std::move(locate)),
      cause_(std::move(cause)),
      namespaceOf_(std::move(namespaceOf)),
      observer_(std::move(observer)) {
    Nex::watch(hostDir_, state_.hostDir, this);
    for (auto const& item : state_.hostDir->igmpHost()) handleHost(item.key);
}

PortRegistry::~PortRegistry() { nexDoZombieReactors(true); }

void PortRegistry::doDetach() { hostDir_.del(); }

void PortRegistry::doAttach() { Nex::watch(hostDir_, state_.hostDir, this); }

void PortRegistry::doEndRebuild() {
    std::map<std::string, Nex::Ptr<IgmpHostPort>> const ports = ports_;
    for (auto const& [name, port] : ports) handleHost(name);
}

void PortRegistry::handleHost(Nex::Name const& name) {
    Nex::Ptr<Igmp::IgmpHost> const host = state_.hostDir->igmpHost(name);
    std::string const namespaceName = namespaceOf_(vrfOf(state_, Lox::IntfId(name)));
    if (auto const known = ports_.find(name); known != ports_.end()) {
        if (host && known->second->host() == host.get()) return;
        if (!host || !known->second->fits(namespaceName)) doWithdraw(name);
    }
    if (!host) return;
    auto const [known, fresh] = ports_.try_emplace(name);
    try {
        if (fresh) known->second = portFor(name, namespaceName);
    } catch (...) {
        ports_.erase(known);
        throw;
    }
    Nex::Ptr<IgmpHostPort> const port = known->second;
    port->attach(host, namespaceName);
    port->setStatus(state_.hostStatusDir->igmpHostStatusIs(name));
    observer_(name, true);
}

void PortRegistry::doWithdraw(Nex::Name const& name) {
    auto const gone = ports_.find(name);
    Nex::Ptr<IgmpHostPort> const port = gone->second;
    absent_.insert(ports_.extract(gone));
    port->detach(EventLoop::now());
    state_.hostStatusDir->igmpHostStatusDel(name);
    observer_(name, false);
}

/// One that is still leaving takes the groups back.
Nex::Ptr<IgmpHostPort> PortRegistry::portFor(std::string const& name,
                                             std::string const& namespaceName) {
    auto const [first, last] = absent_.equal_range(name);
    auto const found = std::find_if(
        first, last, [&](auto const& item) { return item.second->fits(namespaceName); });
    if (found != last) {
        absentGone_ = true;
        return absent_.extract(found).mapped();
    }
    return Nex::newObject<IgmpHostPort>(
        loop_, schedule_, changes_, name, namespaceName,
        [this](std::string const& intf, std::string const& space) { return locate(intf, space); },
        cause_);
}

IgmpHostPort::Location PortRegistry::locate(std::string const& name,
                                            std::string const& namespaceName) const {
    IgmpHostPort::Location location = locate_(name, namespaceName);
    auto const left = left_.find(namespaceName);
    if (!location.followed && left != left_.end())
        static_cast<Whereabouts&>(location) = left->second.whereabouts(name);
    return location;
}

/// Looks for the interface of a port that owes leaves where no VRF is any more.
void PortRegistry::doSeek(IgmpHostPort const& port) {
    std::string const& space = port.namespaceName();
    if (!port.seeks() || left_.contains(space)) return;
    left_.try_emplace(space, loop_, space, [this, space] { leftChanged_.insert(space); });
    leftChanged_.insert(space);
}

/// Follows no namespace any longer than there are such ports.
void PortRegistry::doForgetLeft() {
    if (!std::exchange(absentGone_, false) || left_.empty()) return;
    std::set<std::string> owed;
    for (auto const& [name, port] : absent_) owed.insert(port->namespaceName());
    std::erase_if(left_, [&](auto const& left) { return !owed.contains(left.first); });
}

void PortRegistry::addFormer(std::vector<InterfaceState> const& former) {
    for (InterfaceState const& interface : former) {
        auto const port = portFor(interface.name, interface.namespaceName);
        port->addFormer(interface.groups);
        absent_.emplace(interface.name, port);
    }
}

std::optional<std::string> PortRegistry::nameAfter(std::string const& after) const {
    auto const port = ports_.upper_bound(after);
    auto const absent = absent_.upper_bound(after);
    if (absent == absent_.end())
        return port == ports_.end() ? std::nullopt : std::optional(port->first);
    return port == ports_.end() ? absent->first : std::min(port->first, absent->first);
}

std::vector<IgmpHostPort const*> PortRegistry::portsOf(std::string const& name) const {
    std::vector<IgmpHostPort const*> ports;
    if (auto const port = ports_.find(name); port != ports_.end())
        ports.push_back(port->second.get());
    auto const [first, last] = absent_.equal_range(name);
    std::for_each(first, last, [&](auto const& item) { ports.push_back(item.second.get()); });
    return ports;
}

class PortRegistry::HeldWalk {
  public:
    explicit HeldWalk(Nex::Ptr<PortRegistry const> registry) : registry_(std::move(registry)) {}
    bool operator()(StateText& text) {
        auto ports = registry_->portsOf(name_);
        if (port_ >= ports.size()) {
            auto const name = registry_->nameAfter(name_);
            if (!name) return false;
            name_ = *name;
            port_ = 0;
            ports = registry_->portsOf(name_);
        }
        IgmpHostPort const& port = *ports[port_];
        InterfaceState interface {
            name_, port.namespaceName(), {}
        };
        if (!port.addHeldRecords(interface.groups, place_, mostGroupsAtOnce)) {
            ++port_;
            place_ = {};
        }
        if (interface.groups.size() > 0) text.addInterface(interface);
        return true;
    }

  private:
    Nex::Ptr<PortRegistry const> registry_;
    std::string name_; ///< of the interface at hand, and which of its ports
    std::size_t port_ = 0;
    HostEngine::HeldPlace place_;
};

StateKeeper::Next PortRegistry::heldWalk() const {
    return HeldWalk(Nex::Ptr<PortRegistry const>(this));
}

void PortRegistry::handleDevice(std::string const& name) {
    auto const found = ports_.find(name);
    if (found != ports_.end()) found->second->handleLocation();
    auto const [first, last] = absent_.equal_range(name);
    std::for_each(first, last, [](auto const& item) { item.second->handleLocation(); });
}

void PortRegistry::handleConfiguration() {
    forPorts([](IgmpHostPort& port) { port.handleLocation(); });
}

void PortRegistry::handleTurn(double now) {
    Nex::FirstError error;
    error.attempt([&] { doServe(now); });
    error.attempt([&] { doForgetLeft(); });
    // In case that a namespace is known to be gone.
    if (!leftChanged_.empty()) error.attempt([&] { doServe(now); });
    error.rethrow();
}

/// Each of the ports that were stirred, once. One that fails, most likely for want of memory, keeps
/// the others from nothing.
void PortRegistry::doServe(double now) {
    if (!leftChanged_.empty())
        for (auto const& [name, port] : absent_)
            if (leftChanged_.contains(port->namespaceName())) port->handleLocation();
    leftChanged_.clear();
    Nex::FirstError error;
    for (std::size_t left = schedule_.stirredCount(); left > 0 && schedule_.stirredCount() > 0;
         --left)
        error.attempt([&] { doServe(schedule_.stirred(), now); });
    error.rethrow();
}

void PortRegistry::doServe(IgmpHostPort& port, double now) {
    port.handleTurn(now);
    heldChanged_ |= port.takeHeldChange();
    if (port.host()) return;
    doSeek(port);
    doForgetIfFinished(port, now);
}

void PortRegistry::doForgetIfFinished(IgmpHostPort const& port, double now) {
    auto const [first, last] = absent_.equal_range(port.name());
    auto const at =
        std::find_if(first, last, [&](auto const& item) { return item.second.get() == &port; });
    if (at == last || !at->second->finished(now, ending_)) return;
    heldChanged_ = absentGone_ = true;
    if (ending_ && at->second->owes())
        owing_.insert(absent_.extract(at));
    else
        absent_.erase(at);
}

bool PortRegistry::takeOwing() {
    absent_.merge(owing_);
    return !absent_.empty();
}

void PortRegistry::advance(double now) {
    Nex::FirstError error;
    while (schedule_.nextTime() <= now) error.attempt([&] { schedule_.next().advance(now); });
    error.rethrow();
}

void PortRegistry::doEnd(double now) {
    // An interface that comes up in the turn at hand would still join.
    hostDir_.del();
    ending_ = true;
    while (!ports_.empty()) absent_.insert(ports_.extract(ports_.begin()));
    Nex::FirstError error;
    for (auto at = absent_.begin(); at != absent_.end();) {
        Nex::Ptr<IgmpHostPort> const port = (at++)->second;
        if (port->host()) error.attempt([&] { port->detach(now); });
        error.attempt([&] { doForgetIfFinished(*port, now); });
    }
    error.rethrow();
}

bool PortRegistry::telling() const {
    bool telling = false;
    forPorts([&](IgmpHostPort const& port) { telling |= port.engine().telling(); });
    return telling;
}

std::size_t PortRegistry::memberCount() const {
    std::size_t count = 0;
    for (auto const& [name, port] : ports_) count += port->engine().memberCount();
    return count;
}

IgmpHostPort const* PortRegistry::port(std::string const& name) const {
    auto const found = ports_.find(name);
    return found == ports_.end() ? nullptr : found->second.get();
}

void PortRegistry::doResetCounters(std::string const& name) {
    for (auto const& [each, port] : ports_)
        if (name.empty() || each == name) port->doResetCounters();
}

/// One port at a time, found by the name of the one before: ports come and go meanwhile.
class PortRegistry::StatusPart : public JsonPart {
  public:
    explicit StatusPart(Nex::Ptr<PortRegistry const> registry) : registry_(std::move(registry)) {}
    bool next(JsonStream& stream) override {
        auto const port = registry_->ports_.upper_bound(last_);
        if (port == registry_->ports_.end()) return false;
        last_ = port->first;
        stream.add(last_, port->second->statusJson());
        return true;
    }

  private:
    Nex::Ptr<PortRegistry const> registry_;
    std::string last_;
};

std::unique_ptr<JsonPart> PortRegistry::statusPart() const {
    return std::make_unique<StatusPart>(Nex::Ptr<PortRegistry const>(this));
}

} // namespace Agent
