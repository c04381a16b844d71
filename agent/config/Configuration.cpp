#include "agent/config/Configuration.h"

#include "agent/config/AccessListReader.h"
#include "agent/config/AddressText.h"
#include "agent/config/FilesReader.h"
#include "agent/config/GroupReader.h"
#include "agent/config/TomlSection.h"

#include <algorithm>
#include <climits>
#include <fmt/format.h>
#include <fnmatch.h>
#include <optional>
#include <set>

namespace Agent {

namespace {

/// The library's names of namespaces hold 150, of which the agent's prefix takes three.
constexpr std::size_t longestVrfName = 147;

/// Whether `name` can stand in a directory, as interfaces do in /sys and namespaces in /run/netns.
bool isFileName(std::string_view name) {
    auto const forbidden = [](char c) { return c == '/' || std::uint8_t(c) < ' ' || c == '\x7f'; };
    return !name.empty() && name.size() <= 255 && name != "." && name != ".." &&
           std::none_of(name.begin(), name.end(), forbidden);
}

/// What no interface has in its name.
constexpr char notInInterfaces[] = ": ";

/// The names that Linux gives interfaces.
bool isInterfaceName(std::string_view name) {
    return isFileName(name) && name.size() <= 15 &&
           name.find_first_of(notInInterfaces) == std::string_view::npos;
}

/// Whether `name` matches any name that Linux gives.
bool isInterfacePattern(std::string_view name) {
    auto const open = name.rfind('[');
    return isFileName(name) && name.find_first_of(notInInterfaces) == std::string_view::npos &&
           (open == std::string_view::npos || name.find(']', open + 2) != std::string_view::npos);
}

/// A name as `ip netns` takes it, or a path.
bool isNamespaceName(std::string_view name) {
    if (name.find('/') == std::string_view::npos) return isFileName(name);
    return name.size() < PATH_MAX && name.find('\0') == std::string_view::npos;
}

/// Walks the tables of one file and fills a Configuration.
class ConfigurationReader {
  public:
    ConfigurationReader(Configuration& configuration, Diagnostics& diagnostics,
                        std::set<std::string> attachedLists)
        : configuration_(configuration),
          diagnostics_(diagnostics),
          attachedLists_(std::move(attachedLists)) {}

    void doRead(TomlSection const& root) {
        root.checkKeys();
        configuration_.allowEmpty = root.boolean("allow-empty");
        configuration_.keepGroups = root.boolean("keep-groups");
        if (auto const control = root.section("control", &controlKeys)) doReadControl(*control);
        if (auto const metrics = root.section("metrics", &metricsKeys)) doReadMetrics(*metrics);
        // First, for the interfaces name lists and VRFs.
        if (auto const lists = root.section("access-list")) doReadLists(*lists);
        if (auto const vrfs = root.section("vrf")) doReadVrfs(*vrfs);
        if (auto const table = root.section("forwarding-table", &forwardingTableKeys))
            doReadForwardingTable(*table);
        if (auto const interfaces = root.section("interface")) doReadInterfaces(*interfaces);
    }

  private:
    void doReadLists(TomlSection const& lists) {
        for (TomlText const& name : lists.keys()) {
            bool const attached = attachedLists_.contains(name.value);
            if (!attached)
                warnFound(name, "is attached to no interface: its rules select nothing",
                          diagnostics_);
            configuration_.accessLists[name.value] =
                readAccessList(lists.sections(name.value, &ruleKeys), attached, diagnostics_);
        }
    }

    void doReadVrfs(TomlSection const& vrfs) {
        for (TomlText const& name : vrfs.keys()) {
            if (!isFileName(name.value) || name.value.size() > longestVrfName ||
                name.value == defaultVrf)
                reportFound(name,
                            fmt::format("a VRF name other than default: 1 to {} bytes without '/' "
                                        "or control characters",
                                        longestVrfName),
                            diagnostics_);
            auto const section = vrfs.section(name.value, &vrfKeys);
            if (!section) continue;
            section->checkKeys(name.value);
            configuration_.vrfs[name.value] = readVrf(*section, name);
        }
    }

    VrfConfiguration readVrf(TomlSection const& section, TomlText const& name) {
        auto const device = section.text("device");
        if (!device) {
            auto const space = section.text("namespace").value_or(name);
            if (!isNamespaceName(space.value))
                reportFound(space, "the name of a namespace as in ip netns, or a path",
                            diagnostics_);
            return {space.value, {}};
        }
        if (!isInterfaceName(device->value))
            reportFound(*device, "the name of a VRF device", diagnostics_);
        if (section.has("namespace"))
            diagnostics_.addError(section.positionOf("device"),
                                  "device stands beside namespace, expected one of them");
        return {{}, device->value};
    }

    void doReadControl(TomlSection const& section) {
        section.checkKeys();
        auto const group = section.text("group");
        if (!group) return;
        configuration_.controlGroup = group->value;
        if (group->value.empty()) reportFound(*group, "the name of a group", diagnostics_);
    }

    void doReadMetrics(TomlSection const& section) {
        section.checkKeys();
        auto const listen = section.text("listen");
        if (!listen) return;
        if (parseSocketAddress(listen->value))
            configuration_.metricsListen = listen->value;
        else
            reportFound(*listen,
                        "an address and a port such as \"127.0.0.1:9643\" or \"[::1]:9643\"",
                        diagnostics_);
    }

    void doReadForwardingTable(TomlSection const& section) {
        ForwardingTableConfiguration& table = configuration_.forwardingTable;
        section.checkKeys();
        table.requireOutput = section.boolean("require-output");
        auto const incoming = section.text("incoming");
        if (!incoming || incoming->value == "proxy-interface") return;
        if (incoming->value == "any")
            table.incoming = ForwardingTableConfiguration::Incoming::any;
        else
            reportFound(*incoming, "\"proxy-interface\" or \"any\"", diagnostics_);
    }

    void doReadInterfaces(TomlSection const& interfaces) {
        std::vector<TomlText> patterns;
        for (TomlText const& name : interfaces.keys()) {
            if (isPattern(name.value)) {
                patterns.push_back(name);
                continue;
            }
            if (!isInterfaceName(name.value))
                reportFound(name,
                            "an interface name: 1 to 15 bytes without '/', ':', white space or "
                            "control characters",
                            diagnostics_);
            if (auto const section = interfaces.section(name.value, &interfaceKeys))
                doReadInterface(*section, name.value, configuration_.interfaces[name.value]);
        }
        std::ranges::sort(patterns, [this](TomlText const& a, TomlText const& b) {
            return diagnostics_.before(a.position, b.position);
        });
        for (TomlText const& name : patterns) {
            if (!isInterfacePattern(name.value))
                reportFound(name,
                            "a pattern of interface names, each '[' with its ']', and no '/', ':', "
                            "white space or control characters",
                            diagnostics_);
            auto const section = interfaces.section(name.value, &interfaceKeys);
            if (!section) continue;
            InterfaceConfiguration& interface = configuration_.patterns.emplace_back();
            interface.pattern = name.value;
            doReadInterface(*section, name.value, interface);
        }
    }

    void doReadInterface(TomlSection const& section, std::string const& name,
                         InterfaceConfiguration& interface) {
        section.checkKeys(name);
        doReadProtocol(section, interface);
        interface.largeRanges = section.boolean("large-ranges");
        readGroups(section, interface, diagnostics_);
        doReadAccessLists(section, interface);
        auto const vrf = section.text("vrf");
        if (!vrf || vrf->value == defaultVrf) return;
        interface.vrf = vrf->value;
        if (configuration_.vrfs.count(vrf->value) == 0)
            reportFound(*vrf, "\"default\" or a VRF of this file", diagnostics_);
    }

    void doReadProtocol(TomlSection const& section, InterfaceConfiguration& interface) {
        interface.igmpVersion = int(section.integer("igmp-version"));
        interface.unsolicitedReportInterval = section.number("unsolicited-report-interval");
        interface.robustness = unsigned(section.integer("robustness"));
        interface.packetsPer100ms = unsigned(section.integer("packets-per-100-ms"));
        interface.requireRouterAlert = section.boolean("require-router-alert");
        interface.ssmOnly = section.boolean("ssm-only");
        if (interface.ssmOnly && interface.igmpVersion < 3)
            diagnostics_.addWarning(section.positionOf("ssm-only"),
                                    "ssm-only has no effect, expected igmp-version = 3 with it");
    }

    void doReadAccessLists(TomlSection const& section, InterfaceConfiguration& interface) {
        std::uint64_t groups = 0;
        for (TomlText const& name : section.texts("access-lists")) {
            auto& names = interface.accessLists;
            if (std::find(names.begin(), names.end(), name.value) != names.end()) {
                reportFound(name, "each access list once", diagnostics_);
                continue;
            }
            names.push_back(name.value);
            AccessListConfiguration const* const list = configuration_.list(name.value);
            if (!list) {
                warnFound(name, "is not an access list of this file, expected one of them",
                          diagnostics_);
                continue;
            }
            for (auto const& [sequence, rule] : list->rules()) groups += groupCount(rule);
        }
        checkGroupCount(section, "access-lists", groups, interface, diagnostics_);
    }

    Configuration& configuration_;
    Diagnostics& diagnostics_;
    std::set<std::string> attachedLists_;
};

/// What the interfaces name, well or badly; their reader complains, but the lists come first.
std::set<std::string> attachedLists(toml::table const& root) {
    Diagnostics unheard("");
    std::set<std::string> names;
    auto const interfaces = TomlSection(root, unheard).section("interface");
    if (!interfaces) return names;
    for (TomlText const& key : interfaces->keys())
        if (auto const interface = interfaces->section(key.value))
            for (TomlText const& list : interface->texts("access-lists")) names.insert(list.value);
    return names;
}

ConfigurationReading readingOf(std::optional<toml::table> const& root, Diagnostics& diagnostics) {
    ConfigurationReading reading;
    if (root)
        ConfigurationReader(reading.configuration, diagnostics, attachedLists(*root))
            .doRead(TomlSection(*root, diagnostics, &fileKeys));
    reading.diagnostics = diagnostics.take();
    return reading;
}

} // namespace

std::uint64_t Configuration::selectedGroups() const {
    std::uint64_t groups = 0;
    for (auto const& item : interfaces) groups += selectedGroups(item.second);
    for (InterfaceConfiguration const& pattern : patterns) groups += selectedGroups(pattern);
    return groups;
}

std::uint64_t Configuration::selectedGroups(InterfaceConfiguration const& interface) const {
    std::uint64_t groups = interface.groups.size();
    for (std::string const& name : interface.accessLists)
        if (AccessListConfiguration const* const found = list(name)) groups += found->groups();
    return groups;
}

InterfaceConfiguration const* Configuration::entryFor(std::string const& name) const {
    auto const own = interfaces.find(name);
    if (own != interfaces.end() && own->second.pattern.empty()) return &own->second;
    auto const match = std::ranges::find_if(patterns, [&](auto const& entry) {
        return fnmatch(entry.pattern.c_str(), name.c_str(), FNM_NOESCAPE) == 0;
    });
    return match == patterns.end() ? nullptr : &*match;
}

std::size_t ConfigurationReading::count(Diagnostic::Level level) const {
    std::size_t count = 0;
    for (Diagnostic const& found : diagnostics)
        if (found.level == level) count += 1 + found.more;
    return count;
}

ConfigurationReading configurationParse(std::string_view text, std::string const& file) {
    Diagnostics diagnostics(file);
    return readingOf(tomlParse(text, file, diagnostics), diagnostics);
}

ConfigurationReading configurationRead(std::string const& file) {
    Diagnostics diagnostics(file);
    return readingOf(filesRead(file, diagnostics), diagnostics);
}

} // namespace Agent
