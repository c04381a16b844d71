#include "agent/Check.h"

#include "agent/config/Configuration.h"
#include "agent/kernel/KernelInterfaces.h"
#include "agent/kernel/NamespaceWatch.h"
#include "agent/loop/Json.h"
#include "agent/loop/Printable.h"
#include "agent/loop/ServiceManager.h"
#include "agent/loop/SystemError.h"
#include "agent/ports/Obstacles.h"

#include <cerrno>
#include <fmt/format.h>
#include <linux/capability.h>
#include <optional>
#include <poll.h>
#include <set>
#include <utility>
#include <vector>

namespace Agent {

namespace {

using nlohmann::json;

struct Lack {
    std::string subject;
    std::string reason;
};

void doRead(KernelInterfaces& kernel) {
    while (!kernel.synchronized()) {
        pollfd waiting{kernel.fd(), POLLIN, 0};
        if (poll(&waiting, 1, -1) < 0 && errno != EINTR) errnoThrow("poll");
        kernel.receive();
    }
}

/// What the interfaces of one VRF lack.
void addLacks(std::vector<Lack>& lacks, Configuration const& configuration, std::string const& vrf,
              int namespaceFd, std::string const& vrfDevice = {}) {
    KernelInterfaces kernel([](int) {}, namespaceFd);
    doRead(kernel);
    int const master = kernel.table().device(vrfDevice).ifindex;
    if (!vrfDevice.empty() && master == 0)
        lacks.push_back({"VRF " + vrf, vrfDevice + " " + noSuchInterface});
    auto const look = [&](std::string const& name) {
        KernelInterface const* const found = kernel.table().device(name).kernel;
        std::string reason = obstacleOf(found);
        if (reason.empty() && !vrfDevice.empty() && found->master != master)
            reason = noPortOf(vrfDevice);
        if (!reason.empty()) lacks.push_back({name, reason});
    };
    for (auto const& [name, interface] : configuration.interfaces)
        if (interface.vrf == vrf) look(name);
    std::set<std::string> matched;
    for (auto const& [ifindex, interface] : kernel.table().interfaces()) {
        InterfaceConfiguration const* const entry = configuration.entryFor(interface.name);
        if (!entry || entry->pattern.empty() || entry->vrf != vrf) continue;
        matched.insert(entry->pattern);
        look(interface.name);
    }
    for (InterfaceConfiguration const& entry : configuration.patterns)
        if (entry.vrf == vrf && !matched.contains(entry.pattern))
            lacks.push_back({entry.pattern, noSuchInterface});
}

std::vector<Lack> lacksOf(Configuration const& configuration) {
    std::vector<Lack> lacks;
    if (!hasCapability(CAP_NET_RAW)) lacks.push_back({"this process", noRawSockets});
    addLacks(lacks, configuration, defaultVrf, -1);
    EventLoop loop;
    for (auto const& [name, where] : configuration.vrfs) {
        if (!where.device.empty()) {
            addLacks(lacks, configuration, name, -1, where.device);
            continue;
        }
        NamespaceWatch const found(loop, where.namespaceName, [] {});
        if (found.namespaceFd() >= 0)
            addLacks(lacks, configuration, name, found.namespaceFd());
        else
            lacks.push_back({"VRF " + name, found.obstacle()});
    }
    for (Lack& lack : lacks) lack = {printable(lack.subject), printable(lack.reason)};
    return lacks;
}

/// "2 errors, 1 warning: not good".
std::string totalText(json const& totals) {
    std::string text;
    for (char const* const what : {"interface", "pattern", "group", "error", "warning", "obstacle"})
        if (auto const count = totals.find(std::string(what) + "s"); count != totals.end())
            text += (text.empty() ? "" : ", ") + countText(*count, what);
    return text + (totals.at("good").get<bool>() ? ": good" : ": not good");
}

} // namespace

CheckReport checkReport(Check const& check) {
    ConfigurationReading const reading = configurationRead(check.file);
    Configuration const& configuration = reading.configuration;
    std::vector<Lack> lacks;
    if (check.live && reading.valid()) lacks = lacksOf(configuration);
    CheckReport report{{}, reading.valid() && lacks.empty()};
    json totals{{"good", report.good}};
    auto const count = [&](char const* what, std::size_t number, bool always) {
        if (always || number > 0) totals[what] = number;
    };
    count("errors", reading.count(Diagnostic::Level::error), check.json);
    count("warnings", reading.count(Diagnostic::Level::warning), check.json);
    if (reading.valid()) {
        totals["interfaces"] = configuration.interfaces.size();
        count("patterns", configuration.patterns.size(), check.json);
        totals["groups"] = configuration.selectedGroups();
    }
    if (check.json) {
        totals["diagnostics"] = toJson(reading.diagnostics);
        if (check.live) {
            totals["obstacles"] = json::array();
            for (Lack const& lack : lacks)
                totals["obstacles"].push_back({{"subject", lack.subject}, {"reason", lack.reason}});
        }
        report.text = totals.dump(2) + '\n';
        return report;
    }
    bool faults = false;
    for (Diagnostic const& diagnostic : reading.diagnostics) {
        bool const info = diagnostic.level == Diagnostic::Level::info;
        if (info && std::exchange(faults, false)) report.text += '\n';
        faults |= !info;
        report.text += diagnostic.stringValue() + '\n';
    }
    for (Lack const& lack : lacks)
        report.text += fmt::format("{}: {}\n", lack.subject, lack.reason);
    count("obstacles", lacks.size(), false);
    report.text += totalText(totals) + '\n';
    return report;
}

} // namespace Agent
