// What can be asked of the agent over its control socket, by name. docs/control.md tells the
// parameters and the answers.
#include "agent/Daemon.h"

#include "agent/answers/Events.h"
#include "agent/answers/Groups.h"
#include "agent/answers/Interfaces.h"
#include "agent/answers/Lists.h"
#include "agent/answers/Metrics.h"
#include "agent/answers/Trace.h"
#include "agent/answers/Why.h"
#include "agent/config/AddressText.h"
#include "agent/loop/Log.h"
#include "agent/records/JsonStream.h"

#include "Lumen/Ring.h"

#include <fmt/format.h>
#include <unistd.h>

namespace Agent {

namespace {

using nlohmann::json;

/// How long a configuration may wait to be confirmed, or a log level last, in seconds.
constexpr double longestWait = 86400;
constexpr std::uint64_t wholeRing = Lumen::Ring::capacity();

/// A parameter that counts something; `standard` where it is not given. A number beyond all counts
/// would come out as any.
std::uint64_t countOf(json const& params, char const* name, std::uint64_t standard) {
    auto const found = params.find(name);
    if (found == params.end()) return standard;
    if (!found->is_number_unsigned())
        throw RpcError(RpcError::invalidParams, fmt::format("{} is to be a whole number", name));
    return *found;
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
            {"groups", hosts_->memberCount()},
            {"logLevel", nameOf(logLevel())},
            {"obstacles", std::move(obstacles)}};
}

RpcMethods Daemon::methods() {
    auto const list = [](char const* name, std::unique_ptr<JsonElements> rows) {
        return std::make_unique<ListPart>(name, std::move(rows));
    };
    RpcMethods all;
    all["status"].call = [this](json const&, RpcReply const& reply) { reply.result(statusJson()); };
    all["interfaces"].call = [=, this](json const&, RpcReply const& reply) {
        reply.result(list("interfaces", interfacesAnswer(*view_)));
    };
    all["groups"].call = [=, this](json const& params, RpcReply const& reply) {
        reply.result(list("groups", groupsAnswer(*view_, GroupFilter::fromJson(params))));
    };
    all["counters"].call = [=, this](json const& params, RpcReply const& reply) {
        reply.result(list("counters", countersAnswer(*view_, params.value("interface", ""))));
    };
    all["countersReset"] = {true, [this](json const& params, RpcReply const& reply) {
                                hosts_->doResetCounters(params.value("interface", ""));
                                reply.result(json::object());
                            }};
    all["metrics"].call = [=, this](json const&, RpcReply const& reply) {
        reply.result(list("text", metricsAnswer(*view_)));
    };
    all["lists"].call = [=, this](json const& params, RpcReply const& reply) {
        reply.result(list("rules", listsAnswer(*view_, params.value("list", ""))));
    };
    all["routes"].call = [=, this](json const& params, RpcReply const& reply) {
        reply.result(list("routes", routesAnswer(*view_, params.value("vrf", ""))));
    };
    all["why"].call = [this](json const& params, RpcReply const& reply) {
        std::string const text = params.at("group");
        auto const group = parseAddress(text);
        if (!group)
            throw RpcError(RpcError::invalidParams,
                           fmt::format("group {} found, expected an address", text));
        json answer = whyJson(*view_, params.at("interface"), *group);
        answer["file"] = options_.configurationFile;
        reply.result(answer);
    };
    all["trace"].call = [=](json const& params, RpcReply const& reply) {
        reply.result(list("entries", traceAnswer(countOf(params, "last", wholeRing))));
    };
    all["events"].call = [=](json const& params, RpcReply const& reply) {
        reply.result(list("events", eventsAnswer(countOf(params, "after", 0),
                                                 countOf(params, "last", mostEvents))));
    };
    all["log"] = {true, [this](json const& params, RpcReply const& reply) {
                      doSetLogLevel(params.at("level"), params.value("for", 0.0));
                      reply.result({{"level", nameOf(logLevel())}});
                  }};
    all["reload"] = {true, [this](json const& params, RpcReply reply) {
                         double const undoAfter = params.value("undoAfter", 0.0);
                         if (!(undoAfter >= 0 && undoAfter <= longestWait))
                             throw RpcError(
                                 RpcError::invalidParams,
                                 fmt::format("undoAfter is to be up to {} seconds", longestWait));
                         doReload({std::move(reply), undoAfter, params.value("allowEmpty", false)});
                     }};
    all["diff"].call = [this](json const&, RpcReply reply) {
        differ_->ask(options_.configurationFile, std::move(reply));
    };
    all["config"].call = [this](json const& params, RpcReply const& reply) {
        std::string const& file = options_.configurationFile;
        if (!params.value("running", false)) return fileAnswers_.answer(file, reply);
        reply.result(configurationAnswer(
            file, [this]() -> Configuration const& { return writer_.configuration(); }));
    };
    // For whoever may read all that the agent may.
    all["diffFile"] = {true, [this](json const& params, RpcReply reply) {
                           differ_->ask(params.at("file"), std::move(reply));
                       }};
    all["undo"] = {true,
                   [this](json const&, RpcReply reply) { reloader_.undo({std::move(reply)}); }};
    all["confirm"] = {true, [this](json const&, RpcReply const& reply) {
                          reloader_.confirm();
                          reply.result(reloader_.statusJson());
                      }};
    all["stop"] = {true, [this](json const& params, RpcReply reply) {
                       if (params.value("keepGroups", false) && options_.stateFile.empty())
                           throw RpcError(RpcError::refused, "--state names no file to keep the "
                                                             "groups in for the next run");
                       stopped_.push_back(std::move(reply));
                       doStop(params.value("keepGroups", writer_.configuration().keepGroups));
                   }};
    return all;
}

} // namespace Agent
