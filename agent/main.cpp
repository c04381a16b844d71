// ihproxyd: announces multicast groups on upstream interfaces, as an IGMP host.
#include "agent/Check.h"
#include "agent/Daemon.h"
#include "agent/config/Configuration.h"
#include "agent/config/Keys.h"
#include "agent/loop/FileDescriptor.h"
#include "agent/loop/Log.h"
#include "agent/loop/ServiceManager.h"
#include "agent/loop/SystemError.h"
#include "agent/reload/Reloader.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <signal.h>
#include <string>
#include <utility>
#include <vector>

namespace {

/// The library's trace lines as lines of the log.
class TraceLog : public Nex::TraceSink {
  public:
    explicit TraceLog(unsigned level) {
        Nex::TraceHandle* const handle = Nex::TraceHandle::handle("IgmpHostProxySm");
        if (level == 0 || !handle) return;
        handle->levelIs(level);
        Nex::TraceHandle::sinkIs(this);
    }
    ~TraceLog() { Nex::TraceHandle::sinkIs(nullptr); }
    void onTrace(Nex::TraceHandle const& handle, unsigned level, std::string const& text) override {
        Agent::log(Agent::LogLevel::info, "{} {}: {}", handle.fileName(), level, text);
    }
};

/// Those that the agent takes. Pending until its loop does: they break off nothing that is still
/// starting, and count once it runs.
void holdSignals(bool held) {
    sigset_t taken;
    sigemptyset(&taken);
    for (int const signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) sigaddset(&taken, signal);
    sigprocmask(held ? SIG_BLOCK : SIG_UNBLOCK, &taken, nullptr);
    // Whoever reads the log may go away; the other one has no meaning here.
    for (int const signal : {SIGPIPE, SIGUSR2}) ::signal(signal, held ? SIG_IGN : SIG_DFL);
}

/// What an earlier run has announced; nothing, with a warning, where the file is of no use.
std::vector<Agent::InterfaceState> formerRead(std::string const& file) {
    try {
        if (!file.empty()) return Agent::stateRead(file);
    } catch (std::exception const& error) {
        Agent::log(Agent::LogLevel::warning, "{}: {}; groups of an earlier run are not left", file,
                   error.what());
    }
    return {};
}

int serve(Agent::Daemon::Options options) {
    Agent::descriptorLimitRaise();
    // First, so that a file that can be read now can be read again.
    Agent::capabilitiesLimit(true);
    Agent::ConfigurationReading reading = Agent::configurationRead(options.configurationFile);
    Agent::logDiagnostics(reading.diagnostics);
    if (!reading.valid()) return 1;
    auto const former = formerRead(options.stateFile);
    auto const& vrfs = reading.configuration.vrfs;
    bool const entersNone =
        std::all_of(former.begin(), former.end(),
                    [](auto const& interface) { return interface.namespaceName.empty(); }) &&
        std::all_of(vrfs.begin(), vrfs.end(),
                    [](auto const& vrf) { return vrf.second.namespaceName.empty(); });
    if (entersNone) Agent::capabilitiesLimit(false);
    Agent::Daemon daemon(std::move(options), std::move(reading.configuration), former);
    return daemon.run();
}

} // namespace

int main(int argc, char** argv) {
    holdSignals(true);
    Agent::standardDescriptorsReserve();
    try {
        CLI::App app("Announces multicast groups on upstream interfaces, as an IGMP host.");
        Agent::Daemon::Options options;
        Agent::Check check;
        unsigned traceLevel = 0;
        auto* const config =
            app.add_option("--config", options.configurationFile, "Run with this configuration");
        app.add_option(
               "--status", options.statusFile,
               "Write the agent's view here upon SIGUSR1, in a directory of the user who runs it")
            ->needs(config);
        app.add_option("--state", options.stateFile,
                       "Keep here what is announced; after an abrupt end the next run leaves what "
                       "is no longer wanted")
            ->needs(config);
        app.add_option("--control", options.controlPath,
                       "Answer ihproxyctl here; otherwise at the usual place, if it can be had")
            ->needs(config);
        app.add_option("--trace", traceLevel, "Log what the machines do, up to this level")
            ->check(CLI::Range(0, 8))
            ->needs(config);
        auto* const checkFile =
            app.add_option("--check", check.file, "Only check this configuration")
                ->excludes(config);
        app.add_flag("--live", check.live, "Also whether this machine has what it needs")
            ->needs(checkFile);
        app.add_flag("--json", check.json, "Say it as JSON, for programs")->needs(checkFile);
        bool keys = false;
        app.add_flag("--keys", keys, "Print the reference of the configuration's keys (Markdown)");
        app.set_version_flag("--version", "ihproxyd " IHP_VERSION);
        try {
            app.parse(argc, argv);
        } catch (CLI::ParseError const& error) {
            return app.exit(error) == 0 ? 0 : 1;
        }
        if (options.configurationFile.empty()) holdSignals(false);
        if (keys) return std::fputs(Agent::keyReference().c_str(), stdout) < 0;
        if (options.configurationFile.empty() && check.file.empty()) {
            std::fputs(app.help().c_str(), stderr);
            return 2;
        }
        if (!check.file.empty()) {
            Agent::CheckReport const report = checkReport(check);
            if (std::fputs(report.text.c_str(), stdout) < 0 || std::fflush(stdout) != 0)
                Agent::errnoThrow("standard output");
            return report.good ? 0 : 1;
        }
        TraceLog const traces(traceLevel);
        return serve(std::move(options));
    } catch (std::exception const& error) {
        std::fprintf(stderr, "ihproxyd: %s\n", error.what());
        return 1;
    }
}
