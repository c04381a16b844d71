#include "agent/answers/Interfaces.h"

#include "agent/loop/Json.h"
#include "agent/loop/Printable.h"

#include <algorithm>
#include <functional>
#include <optional>

namespace Agent {

namespace {

using nlohmann::json;

json secondsUntil(double time, double now) {
    return time == Nex::never ? json() : json(std::max(0.0, time - now));
}

/// A row for each interface of the configuration, or for some, then for patterns without a match.
class InterfaceRows : public JsonElements {
  public:
    using Row =
        std::function<std::optional<json>(std::string const&, InterfaceConfiguration const&)>;
    InterfaceRows(AgentView const& view, Row row) : view_(view), row_(std::move(row)) {}
    bool next(JsonStream& stream) override {
        if (auto const* const found = view_.nextInterface(last_)) {
            last_ = found->first;
            doShow(stream, found->first, found->second);
            return true;
        }
        Configuration const& configuration = view_.writer.configuration();
        if (pattern_ >= configuration.patterns.size()) return false;
        InterfaceConfiguration const& entry = configuration.patterns[pattern_++];
        if (std::ranges::none_of(configuration.interfaces, [&](auto const& item) {
                return item.second.pattern == entry.pattern;
            }))
            doShow(stream, entry.pattern, entry);
        return true;
    }

  private:
    void doShow(JsonStream& stream, std::string const& name,
                InterfaceConfiguration const& configured) {
        if (auto const row = row_(name, configured)) stream.addElement(*row);
    }

    AgentView const& view_;
    Row row_;
    std::optional<std::string> last_;
    std::size_t pattern_ = 0; ///< to go on with
};

} // namespace

json interfaceJson(AgentView const& view, std::string const& name,
                   InterfaceConfiguration const& configured) {
    double const now = EventLoop::now();
    std::string const space = view.vrfs.namespaceName(configured.vrf);
    Device const device = view.vrfs.whereabouts(name, space).device;
    std::string const obstacle = name == configured.pattern
                                     ? noSuchInterface
                                     : view.vrfs.obstacle(name).value_or("is not known yet");
    IgmpHostPort const* const port = view.ports.port(name);
    json row{{"name", name},
             {"vrf", configured.vrf},
             {"pattern", configured.pattern.empty() ? json() : json(configured.pattern)},
             {"state", obstacle.empty() ? "up"
                       : device.kernel  ? "down"
                                        : "waiting"},
             {"address", nullptr},
             {"version", {{"configured", configured.igmpVersion}, {"spoken", nullptr}}},
             {"querier", nullptr},
             {"groups", 0},
             {"configuredGroups", view.writer.configuration().selectedGroups(configured)},
             {"why", printable(obstacle)}};
    if (Lox::IpAddr const address = view.vrfs.address(name); !address.isZero())
        row["address"] = address.stringValue();
    if (!port) return row;
    HostEngine const& engine = port->engine();
    row["groups"] = engine.memberCount();
    row["version"]["spoken"] = engine.version();
    row["version"]["newerIn"] = secondsUntil(engine.versionExpiry(), now);
    if (HostEngine::Querier const& querier = engine.querier(); querier.version != 0)
        row["querier"] = {{"address", querier.address.stringValue()},
                          {"version", querier.version},
                          {"heardAgo", now - querier.heard}};
    return row;
}

std::unique_ptr<JsonElements> interfacesAnswer(AgentView const& view) {
    return std::make_unique<InterfaceRows>(view, [&view](auto const& name, auto const& configured) {
        return interfaceJson(view, name, configured);
    });
}

std::unique_ptr<JsonElements> countersAnswer(AgentView const& view, std::string const& interface) {
    return std::make_unique<InterfaceRows>(
        view, [&view, interface](auto const& name, auto const&) -> std::optional<json> {
            IgmpHostPort const* const port = view.ports.port(name);
            if (!port || !(interface.empty() || interface == name)) return {};
            json row = port->statusJson();
            row["interface"] = name;
            return row;
        });
}

} // namespace Agent
