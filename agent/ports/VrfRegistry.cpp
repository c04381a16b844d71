#include "agent/ports/VrfRegistry.h"

#include <algorithm>
#include <set>
#include <vector>

namespace Agent {

namespace {

constexpr double reopenSeconds = 5;

std::string placeIn(std::map<std::string, std::string> const& places, std::string const& name) {
    auto const found = places.find(name);
    return found == places.end() ? std::string() : found->second;
}

} // namespace

VrfRegistry::VrfRegistry(IgmpHostProxy::PlatformState& state, EventLoop& loop, Obstacles& obstacles,
                         InterfaceWriter::Observer observer)
    : state_(state),
      loop_(loop),
      obstacles_(obstacles),
      observer_([this, observer = std::move(observer)](std::string const& name) {
          changed_.insert(name);
          observer(name);
      }),
      retry_(loop, [this] { doRetry(); }) {
    doAdd(defaultVrf, {});
}

void VrfRegistry::doAdd(std::string const& name, VrfConfiguration where) {
    if (where.device.empty()) vrfOfNamespace_[where.namespaceName] = name;
    vrfs_[name] = std::make_unique<Vrf>(
        state_, loop_, obstacles_, name, std::move(where),
        [this, name](std::string const& interface) { return vrfOf(interface) == name; }, observer_);
}

void VrfRegistry::applyConfiguration(Configuration const& configuration) {
    std::map<std::string, std::string> vrfOfInterface;
    std::map<std::string, std::set<std::string>> proxies;
    for (auto const& item : vrfOfInterface_) changed_.insert(item.first);
    for (auto const& [name, interface] : configuration.interfaces) {
        vrfOfInterface[name] = interface.vrf;
        proxies[interface.vrf].insert(name);
        changed_.insert(name);
    }
    doMoveInterfaces(std::move(vrfOfInterface));
    auto const goes = [&](auto const& item) {
        if (item.first == defaultVrf) return false;
        auto const stays = configuration.vrfs.find(item.first);
        return stays == configuration.vrfs.end() || stays->second != item.second->where();
    };
    for (auto const& item : vrfs_)
        if (goes(item)) item.second->doStop(); // while its interfaces can still be found
    std::erase_if(vrfs_, goes);
    vrfOfNamespace_.clear();
    for (auto const& item : vrfs_)
        if (item.second->where().device.empty())
            vrfOfNamespace_[namespaceName(item.first)] = item.first;
    for (auto const& [name, where] : configuration.vrfs)
        if (!vrfs_.contains(name)) doAdd(name, where);
    for (auto const& [name, vrf] : vrfs_)
        vrf->setRoutePolicy(configuration.forwardingTable, proxies[name]);
    doRetry();
}

void VrfRegistry::doAddInterface(std::string const& name, std::string const& vrf) {
    changed_.insert(name);
    vrfOfInterface_[name] = vrf;
    vrfs_.at(vrf)->setProxy(name, true);
    if (InterfaceWriter* const interfaces = interfacesOf(name)) interfaces->doPublish(name);
}

void VrfRegistry::doRemoveInterface(std::string const& name) {
    changed_.insert(name);
    if (InterfaceWriter* const interfaces = interfacesOf(name)) interfaces->doWithdraw(name);
    vrfs_.at(vrfOf(name))->setProxy(name, false);
    vrfOfInterface_.erase(name);
    doForget(name);
    observer_(name);
}

std::optional<bool> VrfRegistry::exists(std::string const& vrf,
                                        std::string const& interface) const {
    auto const found = vrfs_.find(vrf);
    InterfaceWriter const* const interfaces =
        found == vrfs_.end() ? nullptr : found->second->interfaces();
    if (!interfaces) return false;
    if (!interfaces->synchronized()) return std::nullopt;
    return interfaces->device(interface).kernel != nullptr;
}

void VrfRegistry::doRetry() {
    retry_.arm(reopenSeconds);
    for (auto const& item : vrfs_) item.second->doRetry();
}

/// An interface goes down in the VRF that it leaves before it comes up in another one.
void VrfRegistry::doMoveInterfaces(std::map<std::string, std::string> vrfOfInterface) {
    std::vector<std::string> moving;
    for (auto const* const places : {&vrfOfInterface_, &vrfOfInterface})
        for (auto const& [name, vrf] : *places)
            if (placeIn(vrfOfInterface_, name) != placeIn(vrfOfInterface, name))
                moving.push_back(name);
    for (std::string const& name : moving)
        if (InterfaceWriter* const from = interfacesOf(name)) from->doWithdraw(name);
    vrfOfInterface_ = std::move(vrfOfInterface);
    for (std::string const& name : moving)
        if (InterfaceWriter* const to = interfacesOf(name))
            to->doPublish(name);
        else if (!vrfOfInterface_.contains(name))
            doForget(name);
}

/// What the configuration no longer names leaves no trace.
void VrfRegistry::doForget(std::string const& interface) {
    Lox::IntfId const intfId(interface);
    state_.allIntfStatusDir->intfStatusDel(intfId);
    state_.allIntfStatusLocalDir->intfStatusLocalDel(intfId);
    state_.ipStatus->ipIntfStatusDel(intfId);
}

void VrfRegistry::handleTurn() {
    std::erase_if(changed_, [this](std::string const& name) {
        if (!vrfs_.contains(vrfOf(name))) {
            obstacles_.clear(name);
            return true;
        }
        std::optional<std::string> const obstacle = this->obstacle(name);
        if (obstacle) obstacles_.report(name, *obstacle);
        return obstacle.has_value();
    });
}

void VrfRegistry::doRenew() {
    for (auto const& item : state_.allIntfStatusDir->intfStatus())
        if (!vrfOfInterface_.contains(item.key.stringValue())) doForget(item.key.stringValue());
    for (auto const& item : vrfs_) item.second->doRenew();
}

bool VrfRegistry::synchronized() const {
    return std::all_of(vrfs_.begin(), vrfs_.end(),
                       [](auto const& item) { return item.second->synchronized(); });
}

std::string VrfRegistry::vrfOf(std::string const& interface) const {
    return placeIn(vrfOfInterface_, interface);
}

InterfaceWriter* VrfRegistry::interfacesOf(std::string const& interface) const {
    auto const found = vrfs_.find(vrfOf(interface));
    return found == vrfs_.end() ? nullptr : found->second->interfaces();
}

std::string VrfRegistry::namespaceName(std::string const& vrf) const {
    auto const found = vrfs_.find(vrf);
    return found == vrfs_.end() ? "" : found->second->where().namespaceName;
}

Whereabouts VrfRegistry::whereabouts(std::string const& interface,
                                     std::string const& namespaceName) const {
    auto const vrf = vrfs_.find(placeIn(vrfOfNamespace_, namespaceName));
    InterfaceWriter const* const interfaces =
        vrf == vrfs_.end() ? nullptr : vrf->second->interfaces();
    return interfaces ? interfaces->whereabouts(interface) : Whereabouts();
}

bool VrfRegistry::routesTold(std::string const& vrf) const {
    auto const found = vrfs_.find(vrf);
    return found == vrfs_.end() || found->second->routesTold();
}

RouteTable const* VrfRegistry::routes(std::string const& vrf) const {
    auto const found = vrfs_.find(vrf);
    return found == vrfs_.end() ? nullptr : found->second->routes();
}

std::string VrfRegistry::interfaceName(std::string const& vrf, int ifindex) const {
    auto const found = vrfs_.find(vrf);
    InterfaceWriter const* const interfaces =
        found == vrfs_.end() ? nullptr : found->second->interfaces();
    return interfaces ? interfaces->name(ifindex) : "";
}

bool VrfRegistry::routesJudged() const {
    return std::all_of(vrfs_.begin(), vrfs_.end(),
                       [](auto const& item) { return item.second->routesJudged(); });
}

std::optional<std::string> VrfRegistry::obstacle(std::string const& interface) const {
    auto const found = vrfs_.find(vrfOf(interface));
    return found == vrfs_.end() ? std::nullopt : found->second->obstacle(interface);
}

Lox::IpAddr VrfRegistry::address(std::string const& interface) const {
    InterfaceWriter const* const interfaces = interfacesOf(interface);
    return interfaces ? interfaces->address(interface) : Lox::IpAddr();
}

} // namespace Agent
