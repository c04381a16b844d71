#include "agent/answers/Why.h"

#include "agent/answers/Groups.h"
#include "agent/answers/Lists.h"
#include "agent/loop/Printable.h"

#include "IgmpHostProxy/IgmpHostProxySm.h"

#include <algorithm>
#include <fmt/format.h>

namespace Agent {

namespace {

using nlohmann::json;

std::string sourceText(Lox::IpAddr source) {
    return source.isZero() ? "any" : source.stringValue();
}

/// Of a time in seconds of the loop's clock; null for never.
json since1970(std::uint32_t time) {
    return time == 0 ? json() : json(secondsSince1970() - (EventLoop::now() - time));
}

class Inquiry {
  public:
    Inquiry(AgentView const& view, std::string const& interface, Lox::IpAddr group)
        : view_(view), interface_(interface), group_(group) {}

    json answer() {
        json answer{{"interface", interface_}, {"group", group_.stringValue()}};
        InterfaceConfiguration const* const configured = view_.configured(interface_);
        if (!configured) {
            answer["announced"] = false;
            answer["told"] = answer["answered"] = nullptr;
            answer["wishes"] = json::array();
            answer["obstacles"] = {"the interface is not in the configuration"};
            return answer;
        }
        IgmpHostPort const* const port = view_.ports.port(interface_);
        if (port) state_ = port->engine().state(group_);
        std::string const obstacle = view_.vrfs.obstacle(interface_).value_or("is not known yet");
        if (!obstacle.empty())
            obstacles_.push_back(fmt::format("{} {}", interface_, printable(obstacle)));
        doReadConfiguration(*configured);
        doReadLists(*configured);
        doReadRoutes(*configured);
        doReadWithheldRoutes(*configured);
        if (group_ == Lox::IpAddr::fromHost(0xE0000001))
            obstacles_.push_back("every host is a member of 224.0.0.1, and no host says so");
        else if (!group_.isMulticast())
            obstacles_.push_back("it is no multicast address");
        else if (!state_.member() && wanted_ && group_.isSourceSpecific())
            obstacles_.push_back("a source-specific group is announced with its sources only");
        if (wishes_.empty() && obstacles_.empty())
            obstacles_.push_back("nobody asks for it: no group of the interface, no rule of its "
                                 "lists, no announced route");
        answer["vrf"] = configured->vrf;
        answer["announced"] = state_.member() && obstacle.empty();
        answer.update(toJson(state_));
        HostEngine::GroupTimes const times =
            port ? port->engine().times(group_) : HostEngine::GroupTimes();
        answer["told"] = since1970(times.told);
        answer["answered"] = since1970(times.answered);
        answer["wishes"] = std::move(wishes_);
        answer["obstacles"] = std::move(obstacles_);
        return answer;
    }

  private:
    bool isListed(Lox::IpAddr source) const {
        return std::binary_search(state_.sources.begin(), state_.sources.end(), source);
    }
    /// Whether a source that is wanted, or excluded, is told as that.
    bool counts(Lox::IpAddr source, bool included) const {
        bool const any = state_.mode == FilterMode::exclude;
        if (source.isZero()) return any;
        if (included) return any ? !isListed(source) : isListed(source);
        return any && isListed(source);
    }
    void doAdd(json wish, Lox::IpAddr source, bool included) {
        wanted_ |= included;
        wish["source"] = sourceText(source);
        wish["mode"] = included ? "include" : "exclude";
        wish["counts"] = counts(source, included);
        wishes_.push_back(std::move(wish));
    }

    void doReadConfiguration(InterfaceConfiguration const& configured) {
        auto const found = configured.groups.find(group_);
        if (found == configured.groups.end()) return;
        owner_ = "the configuration";
        json wish{{"kind", "configuration"}};
        addPlace(wish, found->second.entry.line);
        for (Lox::IpAddr const source : found->second.include) doAdd(wish, source, true);
        for (Lox::IpAddr const source : found->second.exclude)
            doAdd(wish, source, source.isZero()); // from any source but none
    }

    void doReadLists(InterfaceConfiguration const& configured) {
        Configuration const& all = view_.writer.configuration();
        for (std::string const& name : configured.accessLists) {
            auto const list = all.accessLists.find(name);
            if (list == all.accessLists.end()) {
                obstacles_.push_back(fmt::format("there is no list {}", printable(name)));
                continue;
            }
            for (auto const& [sequence, rule] : list->second) {
                if (groupCount(rule) == 0)
                    denyAll_ = fmt::format("list {} #{}", printable(name), sequence);
                else if (rule.filter.destination.has(group_))
                    doReadRule(ruleJson(all, name, sequence, rule), rule);
            }
        }
    }

    void doReadRule(json wish, Acl::IpRuleConfig const& rule) {
        if (owner_.empty()) owner_ = "list " + wish.at("list").get<std::string>();
        Lox::IpAddr const source =
            rule.filter.source.mask() == 0 ? Lox::IpAddr() : rule.filter.source.address();
        bool const permitted = rule.action == Acl::Action::permit;
        wish["kind"] = "list";
        if (!permitted)
            obstacles_.push_back(fmt::format("{}, denied by list {} #{}", sourceText(source),
                                             wish.at("list").get<std::string>(),
                                             wish.at("sequence").get<std::uint32_t>()));
        doAdd(std::move(wish), source, permitted);
    }

    void doReadRoutes(InterfaceConfiguration const& configured) {
        RouteTable const* const routes = view_.vrfs.routes(configured.vrf);
        for (Lox::IpAddr const source : routeSources(view_, configured.vrf, group_)) {
            RouteEntry const* const route = routes ? routes->route({source, group_}) : nullptr;
            doAdd(routeJson(configured.vrf, route), source, true);
            if (!owner_.empty())
                obstacles_.push_back(fmt::format("route ({}, {}): {} has the group",
                                                 sourceText(source), group_.stringValue(), owner_));
            else if (!denyAll_.empty())
                obstacles_.push_back(fmt::format("route ({}, {}): {} denies everything",
                                                 sourceText(source), group_.stringValue(),
                                                 denyAll_));
        }
    }

    /// Those that the policy of the forwarding table does not let through.
    void doReadWithheldRoutes(InterfaceConfiguration const& configured) {
        RouteTable const* const routes = view_.vrfs.routes(configured.vrf);
        if (!routes) return;
        routes->forWithheld(group_, [&](Lox::IpAddr source, RouteEntry const& route,
                                        RouteTable::Withheld why) {
            std::string reason = "its incoming interface has gone";
            if (why == RouteTable::Withheld::noOutput)
                reason = "no output interface (require-output)";
            else if (why == RouteTable::Withheld::foreignIncoming)
                reason = fmt::format("comes in by {}, no interface of the configuration (incoming)",
                                     interfaceName(configured.vrf, route.incoming));
            obstacles_.push_back(fmt::format("route ({}, {}): {}", sourceText(source),
                                             group_.stringValue(), reason));
        });
    }
    /// Null for a route that the kernel has no longer, but whose end has not been followed yet.
    json routeJson(std::string const& vrf, RouteEntry const* route) const {
        json wish{{"kind", "route"},
                  {"incoming", interfaceName(vrf, route ? route->incoming : 0)},
                  {"outputs", json::array()},
                  {"furtherOutputs", 0},
                  {"since", route ? since1970(route->since) : json()}};
        if (!route) return wish;
        auto const& [first, count] = route->outputs;
        std::size_t const named = std::min<std::size_t>(first.size(), count);
        for (std::size_t i = 0; i < named; ++i)
            wish["outputs"].push_back(interfaceName(vrf, first[i]));
        wish["furtherOutputs"] = count - named;
        return wish;
    }
    std::string interfaceName(std::string const& vrf, int index) const {
        return printable(view_.vrfs.interfaceName(vrf, index));
    }

    AgentView const& view_;
    std::string const& interface_;
    Lox::IpAddr group_;
    HostEngine::GroupState state_;
    json wishes_ = json::array();
    json obstacles_ = json::array();
    std::string owner_;   ///< of the group, which the forwarding table therefore leaves alone
    std::string denyAll_; ///< the rule
    bool wanted_ = false;
};

} // namespace

json whyJson(AgentView const& view, std::string const& interface, Lox::IpAddr group) {
    return Inquiry(view, interface, group).answer();
}

} // namespace Agent
