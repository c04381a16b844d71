// ihproxyctl: asks a running ihproxyd what it does and why, and has it do something else.
//
// Exit status: 0 done, 1 refused, for the reason on standard error, 2 no agent reached.
#include "agent/control/UnixSocket.h"
#include "agent/ctl/Client.h"
#include "agent/ctl/Terminal.h"
#include "agent/ctl/Toml.h"
#include "agent/ctl/Views.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fmt/format.h>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

using nlohmann::json;

/// What all commands have in common.
struct Options {
    std::string control = Agent::defaultControlPath;
    bool json = false;
    double watchSeconds = 0;
};

/// "60", "60s", "5m" or "2h" as seconds.
CLI::AsNumberWithUnit seconds() {
    return CLI::AsNumberWithUnit(std::map<std::string, double>{{"s", 1}, {"m", 60}, {"h", 3600}},
                                 CLI::AsNumberWithUnit::DEFAULT, "TIME");
}

/// A command that asks one question, again and again if wanted.
class Question {
  public:
    using Text = std::function<std::string(json)>;
    Question(CLI::App& app, Options& options, std::string method, std::string const& help,
             Text text)
        : command_(app.add_subcommand(method, help)),
          options_(options),
          method_(std::move(method)),
          text_(std::move(text)) {
        command_->add_flag("--json", options_.json, "As JSON, for programs");
        command_->callback([this] { run(); });
    }

    CLI::App* operator->() const { return command_; }
    /// An option whose value is a parameter of the question, if it is given.
    template <class Value>
    CLI::Option* parameter(std::string const& option, std::string const& name,
                           std::string const& help) {
        return command_->add_option_function<Value>(
            option, [this, name](Value const& value) { params_[name] = value; }, help);
    }
    void flag(std::string const& option, std::string const& name, std::string const& help) {
        command_->add_flag_callback(
            option, [this, name] { params_[name] = true; }, help);
    }
    void addWatch() {
        command_->add_option("--watch", options_.watchSeconds, "Show it again every SECONDS")
            ->check(CLI::PositiveNumber)
            ->type_name("SECONDS");
    }

    json const& params() const { return params_; }
    void set(std::string const& name, json value) { params_[name] = std::move(value); }
    /// Asks by another name from now on.
    void ask(std::string method) { method_ = std::move(method); }
    void run() const {
        Ctl::Client client(options_.control);
        for (bool again = false;; again = true) {
            json const answer = client.call(method_, params_);
            std::string const text = options_.json ? answer.dump(2) + '\n' : text_(answer);
            if (options_.watchSeconds == 0)
                return options_.json ? Ctl::show(text, false) : Ctl::page(text);
            Ctl::show(text, again);
            std::this_thread::sleep_for(std::chrono::duration<double>(options_.watchSeconds));
        }
    }

  private:
    CLI::App* command_;
    Options& options_;
    std::string method_;
    json params_ = json::object();
    Text text_;
};

/// Follows the log for as long as the agent runs.
void followEvents(Options const& options, json params) {
    Ctl::Client client(options.control);
    for (;;) {
        json const answer = client.call("events", params);
        json const& events = answer.at("events");
        if (options.json)
            for (json const& each : events) Ctl::show(each.dump() + '\n', false);
        else
            Ctl::show(Ctl::eventsText(answer), false);
        if (!events.empty()) params = {{"after", events.back().at("number")}};
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
}

/// Returns once the agent has gone.
void stop(Options const& options, json const& params) {
    Ctl::Client client(options.control);
    json const answer = client.call("stop", params);
    client.awaitEnd();
    Ctl::show(options.json ? answer.dump(2) + '\n' : Ctl::stopText(answer), false);
}

/// What `wait` waits for, and for how long at most.
struct Awaited {
    bool ready = false;
    std::vector<std::string> group; ///< interface and group
    double seconds = 60;
};

bool holds(Awaited const& awaited, Ctl::Client& client) {
    if (awaited.ready && client.call("status").at("state") != "ready") return false;
    return awaited.group.empty() ||
           client.call("why", {{"interface", awaited.group[0]}, {"group", awaited.group[1]}})
               .at("announced");
}

/// Throws NoAgent or Refused if it has not come true by then.
void await(Options const& options, Awaited const& awaited) {
    auto const end =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(awaited.seconds);
    for (;;) {
        bool const late = std::chrono::steady_clock::now() >= end;
        try {
            Ctl::Client client(options.control);
            if (holds(awaited, client)) return;
            if (late) throw Ctl::Refused("it has not come true", {});
        } catch (Ctl::NoAgent const&) { // it may be about to start
            if (late) throw;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

int run(int argc, char** argv) {
    CLI::App app("Asks a running ihproxyd what it does and why, and has it do something else.");
    Options options;
    app.add_option("--control", options.control, "The agent's control socket")
        ->capture_default_str()
        ->type_name("PATH");
    app.set_help_all_flag("--help-all", "Print this with the options of all commands");
    app.set_version_flag("--version", "ihproxyctl " IHP_VERSION);
    app.require_subcommand(1);
    app.fallthrough();

    Question status(app, options, "status", "The agent in a line, and what is in its way",
                    Ctl::statusText);
    status.addWatch();
    Question interfaces(app, options, "interfaces", "The upstream interfaces, and how they fare",
                        Ctl::interfacesText);
    interfaces.addWatch();
    Question groups(app, options, "groups", "What is announced, and who wants it", Ctl::groupsText);
    groups.addWatch();
    groups.parameter<std::string>("-i,--interface", "interface", "Of this interface only");
    groups.parameter<std::string>("--vrf", "vrf", "Of interfaces in this VRF only");
    groups.parameter<std::string>("--origin", "origin", "Wanted by configuration, list or route");
    groups.parameter<std::string>("groups", "groups", "A group, or a prefix such as 239.1.0.0/16");
    Question counters(app, options, "counters", "Packets sent and received, by interface",
                      Ctl::countersText);
    counters.addWatch();
    counters.parameter<std::string>("-i,--interface", "interface", "Of this interface only");
    CLI::App* const reset = counters->add_subcommand("reset", "Count from 0 again");
    reset->callback([&] { counters.ask("countersReset"); });
    Question metrics(app, options, "metrics",
                     "Figures for monitoring, in the OpenMetrics text form", Ctl::metricsText);
    Question events(app, options, "events", "What has happened", Ctl::eventsText);
    bool follow = false;
    events->add_flag("--follow,-f", follow, "And what happens from now on");
    events->callback([&] { follow ? followEvents(options, events.params()) : events.run(); });
    events.parameter<std::uint64_t>("--last", "last", "So many at most");
    events.parameter<std::uint64_t>("--after", "after", "Those behind this number only");
    Question lists(app, options, "lists", "The access lists, rule by rule", Ctl::listsText);
    lists.parameter<std::string>("list", "list", "The rules of this list only");
    Question routes(app, options, "routes", "The routes of the forwarding table that are announced",
                    Ctl::routesText);
    routes.addWatch();
    routes.parameter<std::string>("--vrf", "vrf", "Of this VRF only");
    Question why(app, options, "why", "Why a group is announced, or why not", Ctl::whyText);
    why.addWatch();
    why.parameter<std::string>("interface", "interface", "On this interface")->required();
    why.parameter<std::string>("group", "group", "The group")->required();
    Question trace(app, options, "trace", "What the machines have done lately", Ctl::traceText);
    trace.parameter<std::uint64_t>("--last", "last", "So many entries at most");
    trace.flag("--all", "all", "Those that only repeat the one before, too");
    Question log(app, options, "log", "Which lines are written to the log", [](json const& answer) {
        return "log level " + answer.at("level").get<std::string>() + '\n';
    });
    log.parameter<double>("--for", "for", "For so long, and then as it is now")
        ->transform(seconds());
    log.parameter<std::string>("level", "level", "error, warning, info or debug")->required();
    Question reload(app, options, "reload", "Have the configuration file read again",
                    Ctl::reloadText);

    reload
        .parameter<double>("--undo-after", "undoAfter",
                           "Return to what is in force now unless `confirm` follows in time")
        ->transform(seconds());
    reload.flag("--allow-empty", "allowEmpty", "Even if it has every group left");
    Question config(app, options, "config",
                    "The configuration file, as the agent would read it now", Ctl::tomlText);
    config.flag("--running", "running", "What is in force, in its place");
    Question diff(app, options, "diff", "What a reload would change", Ctl::diffText);
    diff->add_option_function<std::string>(
        "file",
        [&diff](std::string const& file) {
            diff.set("file", std::filesystem::absolute(file).string());
            diff.ask("diffFile");
        },
        "Of this file, in place of the agent's");
    Question undo(app, options, "undo", "Return to the configuration before", Ctl::reloadText);
    Question confirm(
        app, options, "confirm", "Keep what a reload was to undo", [](json const& answer) {
            return fmt::format("#{} stays in force\n", answer.at("number").get<unsigned>());
        });

    Question end(app, options, "stop", "End the agent", Ctl::stopText);
    end->callback([&] { stop(options, end.params()); });
    end.flag("--keep-groups", "keepGroups",
             "Leave no group: the agent that starts next takes them over");

    Awaited awaited;
    CLI::App* const wait = app.add_subcommand("wait", "Wait until something is true");
    auto* const ready = wait->add_flag("--ready", awaited.ready, "The agent is ready");
    auto* const group =
        wait->add_option("--group", awaited.group, "A group is announced on an interface")
            ->expected(2)
            ->type_name("INTERFACE GROUP");
    wait->add_option("--for", awaited.seconds, "For so long at most; exit status 1 or 2 then")
        ->transform(seconds());
    wait->add_flag("--json", options.json, "As JSON, for programs");
    wait->callback([&] {
        if (!*ready && !*group) throw CLI::RequiredError("--ready or --group");
        await(options, awaited);
        if (options.json) Ctl::show("{}\n", false);
    });

    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& error) {
        return app.exit(error) == 0 ? 0 : 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    Agent::standardDescriptorsReserve();
    try {
        return run(argc, argv);
    } catch (Ctl::NoAgent const& error) {
        std::fprintf(stderr, "ihproxyctl: %s\n", error.what());
        return 2;
    } catch (Ctl::Refused const& error) {
        if (error.data().contains("diagnostics"))
            std::fputs(Ctl::diagnosticsText(error.data().at("diagnostics")).c_str(), stderr);
        std::fprintf(stderr, "ihproxyctl: %s\n", error.what());
        return 1;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "ihproxyctl: %s\n", error.what());
        return 1;
    }
}
