#include "agent/answers/Why.h"

#include "IgmpHostProxy/IgmpHostProxySm.h"
#include "agent/answers/Groups.h"
#include "agent/answers/Lists.h"
#include "agent/loop/Json.h"
#include "agent/loop/Printable.h"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <optional>
#include <vector>

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

/// The next of a set in its order; nothing at the end.
std::optional<Lox::IpAddr> nextOf(GroupConfiguration::Sources const& sources,
                                  std::optional<Lox::IpAddr> after) {
    auto const at = after ? std::ranges::upper_bound(sources, *after) : sources.begin();
    return at == sources.end() ? std::nullopt : std::optional(*at);
}

/// The wishes for a group and what is in their way, one after the other: there may be ten thousand
/// sources, rules and routes, and any of them may go between two steps.
class WishWalk {
  public:
    struct Step {
        json wish;                 ///< null for none
        Lox::IpAddr source;        ///< of that
        bool included = true;      ///< likewise
        std::string obstacle = {}; ///< empty for none
    };
    WishWalk(AgentView const& view, std::string const& interface, Lox::IpAddr group)
        : view_(view), interface_(interface), group_(group) {}

    /// Nothing at the end.
    std::optional<Step> next() {
        InterfaceConfiguration const* const configured = view_.configured(interface_);
        if (!configured) return std::nullopt;
        for (; stage_ != Stage::end; doEnterNextStage())
            if (auto step = stepOf(*configured)) return step;
        return std::nullopt;
    }

  private:
    enum class Stage { include, exclude, lists, routes, withheld, end };

    void doEnterNextStage() {
        stage_ = Stage(int(stage_) + 1);
        source_.reset();
    }
    std::optional<Step> stepOf(InterfaceConfiguration const& configured) {
        switch (stage_) {
        case Stage::include:
            return stepOfGroup(configured, &GroupConfiguration::include);
        case Stage::exclude:
            return stepOfGroup(configured, &GroupConfiguration::exclude);
        case Stage::lists:
            return stepOfLists(configured);
        case Stage::routes:
            return stepOfRoutes(configured.vrf);
        default:
            return stepOfWithheld(configured.vrf);
        }
    }

    std::optional<Step> stepOfGroup(InterfaceConfiguration const& configured,
                                    GroupConfiguration::Sources GroupConfiguration::*sources) {
        GroupConfiguration const* const found = configured.groups.find(group_);
        if (!found) return std::nullopt;
        source_ = nextOf(found->*sources, source_);
        if (!source_) return std::nullopt;
        Step step{json({{"kind", "configuration"}}), *source_};
        addPlace(step.wish, found->entry.line);
        // From any source but none.
        step.included = sources == &GroupConfiguration::include || source_->isZero();
        return step;
    }

    std::optional<Step> stepOfLists(InterfaceConfiguration const& configured) {
        Configuration const& all = view_.writer.configuration();
        for (; list_ < configured.accessLists.size(); ++list_, sequence_.reset()) {
            std::string const& name = configured.accessLists[list_];
            AccessListConfiguration const* const list = all.list(name);
            if (!list) {
                ++list_;
                return Step{{}, {}, true, fmt::format("there is no list {}", printable(name))};
            }
            while (auto const* const found = list->ruleAbout(group_, sequence_)) {
                auto const& [sequence, rule] = *found;
                sequence_ = sequence;
                if (groupCount(rule) > 0) return stepOfRule(name, sequence, rule);
                denyAll_ = fmt::format("list {} #{}", printable(name), sequence);
            }
        }
        return std::nullopt;
    }

    Step stepOfRule(std::string const& list, std::uint32_t sequence, AccessListRule const& rule) {
        Step step{ruleJson(list, sequence, rule), {}};
        if (rule.filter.source.mask() != 0) step.source = rule.filter.source.address();
        step.wish["kind"] = "list";
        step.included = rule.action == Acl::Action::permit;
        if (!step.included)
            step.obstacle = fmt::format("{}, denied by list {} #{}", sourceText(step.source),
                                        printable(list), sequence);
        return step;
    }

    std::optional<Step> stepOfRoutes(std::string const& vrf) {
        source_ = nextRouteSource(view_, vrf, group_, source_);
        if (!source_) return std::nullopt;
        RouteTable const* const routes = view_.vrfs.routes(vrf);
        RouteEntry const* const route = routes ? routes->route({*source_, group_}) : nullptr;
        Step step{routeJson(vrf, route), *source_};
        // The forwarding table leaves alone what has another owner.
        std::string const owner = originText(view_.writer.configuration(), interface_, group_);
        if (owner != originNames.back())
            step.obstacle =
                routeText(*source_, fmt::format("{}{} has the group",
                                                owner == originNames.front() ? "the " : "",
                                                printable(owner)));
        else if (!denyAll_.empty())
            step.obstacle = routeText(*source_, denyAll_ + " denies everything");
        return step;
    }

    /// Those that the policy of the forwarding table does not let through.
    std::optional<Step> stepOfWithheld(std::string const& vrf) {
        RouteTable const* const routes = view_.vrfs.routes(vrf);
        auto const route = routes ? routes->nextWithheld(group_, source_) : std::nullopt;
        if (!route) return std::nullopt;
        source_ = route->source;
        std::string reason = "its incoming interface has gone";
        if (route->why == RouteTable::Withheld::noOutput)
            reason = "no output interface (require-output)";
        else if (route->why == RouteTable::Withheld::foreignIncoming)
            reason = fmt::format("comes in by {}, no interface of the configuration (incoming)",
                                 interfaceName(vrf, route->incoming));
        return Step{{}, {}, true, routeText(route->source, reason)};
    }

    std::string routeText(Lox::IpAddr source, std::string const& what) const {
        return fmt::format("route ({}, {}): {}", sourceText(source), group_.stringValue(), what);
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
    Stage stage_ = Stage::include;
    std::optional<Lox::IpAddr> source_; ///< the last one of this stage
    std::size_t list_ = 0;
    std::optional<std::uint32_t> sequence_; ///< the last one of this list
    std::string denyAll_;                   ///< the rule
};

/// Adds elements while `next` does.
class Elements : public JsonElements {
  public:
    using Next = std::function<bool(JsonStream&)>;
    explicit Elements(Next next) : next_(std::move(next)) {}
    bool next(JsonStream& stream) override { return next_(stream); }

  private:
    Next next_;
};

class Inquiry : public JsonPart {
  public:
    Inquiry(AgentView const& view, std::string interface, Lox::IpAddr group, std::string file)
        : view_(view), interface_(std::move(interface)), group_(group), file_(std::move(file)) {
        walk_.emplace(view_, interface_, group_);
    }

    bool next(JsonStream& stream) override {
        switch (member_++) {
        case 0:
            doTellGroup(stream);
            return true;
        case 1:
            return doOpen(stream, "wishes", [this](JsonStream& to) { return doTellWish(to); });
        case 2:
            walk_.emplace(view_, interface_, group_);
            return doOpen(stream, "obstacles",
                          [this](JsonStream& to) { return doTellObstacle(to); });
        default:
            return false;
        }
    }

  private:
    static bool doOpen(JsonStream& stream, char const* name, Elements::Next next) {
        stream.openArray(name, std::make_unique<Elements>(std::move(next)));
        return true;
    }

    void doTellGroup(JsonStream& stream) {
        stream.add("file", file_);
        stream.add("interface", interface_);
        stream.add("group", group_.stringValue());
        InterfaceConfiguration const* const configured = view_.configured(interface_);
        IgmpHostPort const* const port = configured ? view_.ports.port(interface_) : nullptr;
        if (port) state_ = port->engine().state(group_);
        HostEngine::GroupTimes const times =
            port ? port->engine().times(group_) : HostEngine::GroupTimes();
        std::string const obstacle =
            configured ? view_.vrfs.obstacle(interface_).value_or("is not known yet") : "";
        if (!configured)
            first_.emplace_back("the interface is not in the configuration");
        else if (!obstacle.empty())
            first_.push_back(fmt::format("{} {}", printable(interface_), printable(obstacle)));
        if (configured) stream.add("vrf", configured->vrf);
        stream.add("announced", state_.member() && obstacle.empty());
        stream.add("told", since1970(times.told));
        stream.add("answered", since1970(times.answered));
        if (!configured) return;
        stream.add("mode", state_.mode == FilterMode::include ? "include" : "exclude");
        doOpen(stream, "sources", [this, at = std::size_t(0)](JsonStream& to) mutable {
            if (at == state_.sources.size()) return false;
            to.addElement(state_.sources[at++].stringValue());
            return true;
        });
    }

    bool doTellWish(JsonStream& stream) {
        auto step = walk_->next();
        if (!step) return false;
        obstructed_ |= !step->obstacle.empty();
        if (step->wish.is_null()) return true;
        wished_ = true;
        wanted_ |= step->included;
        step->wish["source"] = sourceText(step->source);
        step->wish["mode"] = step->included ? "include" : "exclude";
        step->wish["counts"] = counts(step->source, step->included);
        stream.addElement(step->wish);
        return true;
    }

    /// First what is in the way of all, last what a group is not announced for at all.
    bool doTellObstacle(JsonStream& stream) {
        if (told_ < first_.size()) {
            stream.addElement(first_[told_++]);
            return true;
        }
        if (auto const step = walk_->next()) {
            if (!step->obstacle.empty()) stream.addElement(step->obstacle);
            return true;
        }
        if (std::string const last = std::exchange(lastTold_, true) ? "" : lastObstacle();
            !last.empty()) {
            stream.addElement(last);
            return true;
        }
        return false;
    }
    std::string lastObstacle() const {
        if (group_ == Lox::IpAddr::fromHost(0xE0000001))
            return "every host is a member of 224.0.0.1, and no host says so";
        if (!group_.isMulticast()) return "it is no multicast address";
        if (!state_.member() && wanted_ && group_.isSourceSpecific())
            return "a source-specific group is announced with its sources only";
        if (wished_ || obstructed_ || !first_.empty()) return "";
        return "nobody asks for it: no group of the interface, no rule of its lists, no announced "
               "route";
    }

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

    AgentView const& view_;
    std::string interface_;
    Lox::IpAddr group_;
    std::string file_;
    int member_ = 0; ///< to go on with
    HostEngine::GroupState state_;
    std::optional<WishWalk> walk_;
    bool wished_ = false;
    bool wanted_ = false;     ///< from any source
    bool obstructed_ = false; ///< any of the wishes, or what would be one
    std::vector<std::string> first_;
    std::size_t told_ = 0; ///< of these
    bool lastTold_ = false;
};

} // namespace

std::unique_ptr<JsonPart> whyAnswer(AgentView const& view, std::string interface, Lox::IpAddr group,
                                    std::string file) {
    return std::make_unique<Inquiry>(view, std::move(interface), group, std::move(file));
}

} // namespace Agent
