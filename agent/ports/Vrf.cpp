#include "agent/ports/Vrf.h"

#include "agent/loop/Log.h"

#include <exception>
#include <vector>

namespace Agent {

Vrf::Vrf(IgmpHostProxy::PlatformState& state, EventLoop& loop, Obstacles& obstacles,
         std::string name, VrfConfiguration where, Owns owns, Observer observer)
    : state_(state),
      loop_(loop),
      obstacles_(obstacles),
      name_(std::move(name)),
      where_(std::move(where)),
      owns_(std::move(owns)),
      observer_(std::move(observer)) {
    // The collection stays for good, empty without a namespace: one that goes would take the
    // interfaces of all VRFs down.
    state_.mfibDir->keshCollIs(name_);
    if (where_.namespaceName.empty()) doStart(-1);
}

Vrf::~Vrf() {
    doStop();
    obstacles_.clear(subject());
}

void Vrf::handleNamespace() {
    doStop();
    doRetry();
}

void Vrf::doRetry() {
    if (interfaces_) {
        interfaces_->doRetry();
        if (!where_.device.empty()) doFollowRoutes(-1);
        return;
    }
    try {
        if (!watch_)
            watch_ = std::make_unique<NamespaceWatch>(loop_, where_.namespaceName,
                                                      [this] { handleNamespace(); });
        if (watch_->namespaceFd() >= 0) doStart(watch_->namespaceFd());
        setObstacle(watch_->obstacle());
    } catch (std::exception const& error) {
        doStop();
        setObstacle(error.what());
    }
}

std::string Vrf::subject() const { return "VRF " + name_.stringValue(); }

/// Its interfaces share what stands in its way.
void Vrf::setObstacle(std::string obstacle) {
    if (obstacle == obstacle_) return;
    obstacle_ = std::move(obstacle);
    obstacles_.report(subject(), obstacle_, LogLevel::error);
    for (auto const& item : proxies_) observer_(item.first);
}

std::optional<std::string> Vrf::obstacle(std::string const& interface) const {
    return interfaces_ ? interfaces_->obstacle(interface) : subject() + ": " + obstacle_;
}

void Vrf::doStart(int namespaceFd) {
    InterfaceWriter::Place place{name_, Lox::NamespaceName::defaultNamespace(), namespaceFd,
                                 where_.device};
    if (!where_.namespaceName.empty())
        place.networkNamespace = Lox::NamespaceName("ns-" + name_.stringValue());
    if (where_ != VrfConfiguration())
        state_.allVrfStatusLocal->vrfIs(name_)->networkNamespaceIs(place.networkNamespace);
    interfaces_ = std::make_unique<FollowedInterfaces>(
        state_, loop_, place, owns_, [this](std::string const& name) { handleInterface(name); });
    writer_ = std::make_unique<RouteWriter>(state_.mfibDir->keshColl(name_),
                                            "mroute-" + name_.stringValue());
    doFollowRoutes(namespaceFd);
}

std::uint32_t Vrf::tableNumber() const {
    return where_.device.empty() ? RouteTable::defaultNumber : interfaces_->vrfTable();
}

/// The number of a VRF device's table is known once the device is, and may change.
void Vrf::doFollowRoutes(int namespaceFd) {
    std::uint32_t const table = tableNumber();
    if (table == table_) return;
    routes_ = nullptr;
    writer_->doWithdrawAll();
    table_ = 0;
    if (table != 0)
        routes_ = std::make_unique<KernelRoutes>(
            loop_,
            [this](Lox::IpAddr source, Lox::IpAddr group, bool announced) {
                writer_->write(source, group, announced);
            },
            namespaceFd, table);
    table_ = table;
    doFilterRoutes();
}

void Vrf::doStop() noexcept {
    auto const attempt = [this](auto const& act) {
        try {
            act();
        } catch (...) {
            loop_.doReportExhaustion();
        }
    };
    if (interfaces_) attempt([this] { interfaces_->doWithdrawAll(); });
    routes_ = nullptr;
    table_ = 0;
    // A table that goes takes no groups along: they leave with their routes.
    if (writer_) attempt([this] { writer_->doWithdrawAll(); });
    if (writer_) attempt([this] { writer_->doRemove(); });
    writer_ = nullptr;
    interfaces_ = nullptr;
    if (where_ != VrfConfiguration()) attempt([this] { state_.allVrfStatusLocal->vrfDel(name_); });
}

void Vrf::doRenew() {
    if (interfaces_) interfaces_->doRenew();
    if (routes_) routes_->doRenew();
}

void Vrf::handleInterface(std::string const& name) {
    auto const proxy = proxies_.find(name);
    if (proxy != proxies_.end()) doPlaceProxy(*proxy);
    if (name == where_.device) doFollowRoutes(-1);
    observer_(name);
}

/// Where a proxy interface is may have changed. Another one may have taken the place that it had.
void Vrf::doPlaceProxy(std::pair<std::string const, int>& proxy) {
    int const ifindex = interfaces_ ? interfaces_->device(proxy.first).ifindex : 0;
    if (ifindex == proxy.second) return;
    doJudgeProxy(proxy.second);
    doJudgeProxy(ifindex);
    proxy.second = ifindex;
}

void Vrf::doJudgeProxy(int ifindex) {
    if (!routes_ || ifindex == 0) return;
    std::string const name = interfaces_->name(ifindex);
    routes_->setProxyInterface(ifindex, proxies_.contains(name) &&
                                            interfaces_->device(name).ifindex == ifindex);
}

void Vrf::setRoutePolicy(ForwardingTableConfiguration const& policy,
                         std::set<std::string> proxies) {
    policy_ = policy;
    proxies_.clear();
    for (std::string const& name : proxies) proxies_[name] = 0;
    doFilterRoutes();
}

void Vrf::setProxy(std::string const& name, bool proxy) {
    if (proxy) return doPlaceProxy(*proxies_.try_emplace(name).first);
    auto const gone = proxies_.extract(name);
    if (gone) doJudgeProxy(gone.mapped());
}

void Vrf::doFilterRoutes() {
    if (!routes_) return;
    RouteFilter filter;
    filter.requireOutput = policy_.requireOutput;
    filter.anyIncoming = policy_.incoming == ForwardingTableConfiguration::Incoming::any;
    for (auto& [name, place] : proxies_) {
        place = interfaces_->device(name).ifindex;
        if (place != 0) filter.proxyInterfaces.insert(place);
    }
    routes_->setFilter(std::move(filter));
}

} // namespace Agent
