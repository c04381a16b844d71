#include "agent/IgmpHostAgent.h"

#include <algorithm>

namespace Agent {

IgmpHostAgent::IgmpHostAgent(IgmpHostProxy::PlatformState& state, EventLoop& loop,
                             IgmpHostPort::Locate locate, Observer observer)
    : state_(state), loop_(loop), locate_(std::move(locate)), observer_(std::move(observer)) {
    Nex::watch(hostDir_, state_.hostDir, this);
    for (auto const& item : state_.hostDir->igmpHost()) handleHost(item.key);
}

IgmpHostAgent::~IgmpHostAgent() { nexDoZombieReactors(true); }

void IgmpHostAgent::handleHost(Nex::Name const& name) {
    if (Nex::Ptr<Igmp::IgmpHost> const host = state_.hostDir->igmpHost(name)) {
        auto const [known, fresh] = ports_.try_emplace(name);
        if (!fresh) return;
        auto const port = Nex::newObject<IgmpHostPort>(loop_, host, locate_);
        known->second = port;
        port->statusIs(state_.hostStatusDir->igmpHostStatusIs(name));
        observer_(name, true);
    } else if (auto gone = ports_.extract(name)) {
        gone.mapped()->doLeave(EventLoop::now(), true);
        state_.hostStatusDir->igmpHostStatusDel(name);
        observer_(name, false);
    }
}

void IgmpHostAgent::handleDevice(std::string const& name) {
    auto const found = ports_.find(name);
    if (found != ports_.end()) found->second->handleLocation();
}

void IgmpHostAgent::handleConfiguration() {
    for (auto const& [name, port] : ports_) port->handleLocation();
}

void IgmpHostAgent::handleTurn(double now) {
    for (auto const& [name, port] : ports_) port->handleTurn(now);
}

double IgmpHostAgent::nextExpiry() const {
    double next = Nex::never;
    for (auto const& [name, port] : ports_) next = std::min(next, port->nextExpiry());
    return next;
}

void IgmpHostAgent::timeIs(double now) {
    for (auto const& [name, port] : ports_)
        if (port->nextExpiry() <= now) port->timeIs(now);
}

void IgmpHostAgent::doLeave(double now) {
    // An interface that comes up in the turn at hand would still join.
    hostDir_.del();
    for (auto const& [name, port] : ports_) port->doLeave(now, false);
    ports_.clear();
}

nlohmann::json IgmpHostAgent::statusJson() const {
    auto json = nlohmann::json::object();
    for (auto const& [name, port] : ports_) json[name] = port->statusJson();
    return json;
}

} // namespace Agent
