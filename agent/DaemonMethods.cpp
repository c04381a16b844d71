// What can be asked of the agent over its control socket, by name. docs/control.md tells the
// parameters and the answers.
#include "Lumen/Ring.h"
#include "agent/Daemon.h"
#include "agent/answers/Events.h"
#include "agent/answers/Groups.h"
#include "agent/answers/Interfaces.h"
#include "agent/answers/Lists.h"
#include "agent/answers/Metrics.h"
#include "agent/answers/Trace.h"
#include "agent/answers/Why.h"
#include "agent/config/AddressText.h"
#include "agent/control/JsonRpc.h"
#include "agent/loop/Json.h"
#include "agent/loop/Log.h"
#include "agent/loop/Printable.h"
#include "agent/records/JsonStream.h"

#include <fmt/format.h>
#include <unistd.h>

namespace Agent {

namespace {

using nlohmann::json;

/// How long a configuration may wait to be confirmed, or a log level last, in seconds.
constexpr double longestWait = 86400;
constexpr std::uint64_t wholeRing = Lumen::Ring::capacity();

/// Throws an RpcError for a name that is not in the configuration. Empty for none.
std::string nameIn(json const& params, char const* parameter, auto const& known) {
    std::string name = params.value(parameter, "");
    if (!name.empty() && !known(name))
        throw RpcError(
            RpcError::invalidParams,
            fmt::format("there is no {} {} in the configuration", parameter, printable(name)));
    return name;
}

} // namespace

/// For so many seconds, or for good if that is 0.
void Daemon::doSetLogLevel(std::string const& name, double seconds) {
    auto const level = logLevelOf(name);
    if (!level)
        throw RpcError(RpcError::invalidParams,
                       fmt::format("level {} found, expected error, warning, info or debug", name));
    if (!(seconds >= 0 && seconds <= longestWait))
        throw RpcError(RpcError::invalidParams,
                       fmt::format("for is to be up to {} seconds", longestWait));
    if (seconds == 0)
        formerLevel_.disarm();
    else if (!formerLevel_.armed())
        levelBefore_ = logLevel();
    if (seconds > 0) formerLevel_.arm(seconds);
    setLogLevel(*level);
}

json Daemon::statusJson() const {
    json obstacles = json::array();
    for (auto const& [subject, obstacle] : obstacles_.obstacles())
        obstacles.push_back(
            {{"subject", subject}, {"level", nameOf(obstacle.level)}, {"reason", obstacle.reason}});
    return {{"program", "ihproxyd"},
            {"version", IHP_VERSION},
            {"pid", getpid()},
            {"uptime", EventLoop::now() - view_->startTime},
            {"state", ending_  ? "ending"
                      : ready_ ? "ready"
                               : "starting"},
            {"configuration", reloader_.statusJson()},
            {"interfaces",
             {{"total", writer_.configuration().interfaces.size()}, {"up", usableCount()}}},
            {"groups", ports_->memberCount()},
            {"logLevel", nameOf(logLevel())},
            {"obstacles", std::move(obstacles)}};
}

RpcMethods Daemon::methods() {
    auto const list = [](char const* name, std::unique_ptr<JsonElements> rows) {
        return std::make_unique<ListPart>(name, std::move(rows));
    };
    auto const interfaceOf = [this](json const& params) {
        return nameIn(params, "interface",
                      [this](std::string const& name) { return view_->configured(name); });
    };
    auto const vrfOf = [this](json const& params) {
        return nameIn(params, "vrf", [this](std::string const& name) {
            return name == defaultVrf || writer_.configuration().vrfs.contains(name);
        });
    };
    using enum RpcParameter::Kind;
    RpcMethods all;
    all["status"].call = [this](json const&, RpcReply const& reply) { reply.result(statusJson()); };
    all["interfaces"].call = [=, this](json const&, RpcReply const& reply) {
        reply.result(list("interfaces", interfacesAnswer(*view_)));
    };
    all["groups"].parameters = {
        {"interface", text}, {"vrf", text}, {"origin", text}, {"groups", text}};
    all["groups"].call = [=, this](json const& params, RpcReply const& reply) {
        interfaceOf(params);
        vrfOf(params);
        reply.result(list("groups", groupsAnswer(*view_, GroupFilter::fromJson(params))));
    };
    all["counters"].parameters = {{"interface", text}};
    all["counters"].call = [=, this](json const& params, RpcReply const& reply) {
        reply.result(list("counters", countersAnswer(*view_, interfaceOf(params))));
    };
    all["countersReset"] = {true,
                            [=, this](json const& params, RpcReply const& reply) {
                                ports_->doResetCounters(interfaceOf(params));
                                reply.result(json::object());
                            },
                            {{"interface", text}}};
    all["metrics"].call = [=, this](json const&, RpcReply const& reply) {
        reply.result(list("text", metricsAnswer(*view_)));
    };
    all["lists"].parameters = {{"list", text}};
    all["lists"].call = [=, this](json const& params, RpcReply const& reply) {
        auto const isThere = [this](std::string const& name) {
            return writer_.configuration().accessLists.contains(name);
        };
        reply.result(list("rules", listsAnswer(*view_, nameIn(params, "list", isThere))));
    };
    all["routes"].parameters = {{"vrf", text}};
    all["routes"].call = [=, this](json const& params, RpcReply const& reply) {
        reply.result(list("routes", routesAnswer(*view_, vrfOf(params))));
    };
    all["why"].parameters = {{"interface", text, true}, {"group", text, true}};
    all["why"].call = [this](json const& params, RpcReply const& reply) {
        std::string const wanted = params.at("group");
        auto const group = parseAddress(wanted);
        if (!group)
            throw RpcError(RpcError::invalidParams,
                           fmt::format("group {} found, expected an address", printable(wanted)));
        reply.result(whyAnswer(*view_, params.at("interface"), *group, options_.configurationFile));
    };
    all["trace"].parameters = {{"last", count}, {"all", truth}};
    all["trace"].call = [=](json const& params, RpcReply const& reply) {
        reply.result(list(
            "entries", traceAnswer(params.value("last", wholeRing), params.value("all", false))));
    };
    all["events"].parameters = {{"after", count}, {"last", count}};
    all["events"].call = [=](json const& params, RpcReply const& reply) {
        reply.result(list("events", eventsAnswer(params.value("after", std::uint64_t(0)),
                                                 params.value("last", std::uint64_t(mostEvents)))));
    };
    all["log"] = {true,
                  [this](json const& params, RpcReply const& reply) {
                      doSetLogLevel(params.at("level"), params.value("for", 0.0));
                      reply.result({{"level", nameOf(logLevel())}});
                  },
                  {{"level", text, true}, {"for", number}}};
    all["reload"] = {true,
                     [this](json const& params, RpcReply reply) {
                         double const undoAfter = params.value("undoAfter", 0.0);
                         if (!(undoAfter >= 0 && undoAfter <= longestWait))
                             throw RpcError(
                                 RpcError::invalidParams,
                                 fmt::format("undoAfter is to be up to {} seconds", longestWait));
                         doReload({std::move(reply), undoAfter, params.value("allowEmpty", false)});
                     },
                     {{"undoAfter", number}, {"allowEmpty", truth}}};
    all["diff"].call = [this](json const&, RpcReply reply) {
        differ_->ask(options_.configurationFile, std::move(reply));
    };
    all["config"].parameters = {{"running", truth}};
    all["config"].call = [this](json const& params, RpcReply const& reply) {
        std::string const& file = options_.configurationFile;
        if (!params.value("running", false)) return fileAnswers_.answer(file, reply);
        reply.result(configurationAnswer(
            file, [this]() -> Configuration const& { return writer_.configuration(); }));
    };
    // For whoever may read all that the agent may.
    all["diffFile"] = {true,
                       [this](json const& params, RpcReply reply) {
                           differ_->ask(params.at("file"), std::move(reply));
                       },
                       {{"file", text, true}}};
    all["undo"] = {true,
                   [this](json const&, RpcReply reply) { reloader_.undo({std::move(reply)}); }};
    all["confirm"] = {true, [this](json const&, RpcReply const& reply) {
                          reloader_.confirm();
                          reply.result(reloader_.statusJson());
                      }};
    all["stop"] = {true,
                   [this](json const& params, RpcReply reply) {
                       if (params.value("keepGroups", false) && options_.stateFile.empty())
                           throw RpcError(RpcError::refused, "--state names no file to keep the "
                                                             "groups in for the next run");
                       stopped_.push_back(std::move(reply));
                       doStop(params.value("keepGroups", writer_.configuration().keepGroups));
                   },
                   {{"keepGroups", truth}}};
    return all;
}

} // namespace Agent
