#include "agent/ctl/Toml.h"

#include <algorithm>
#include <arpa/inet.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <tuple>
#include <vector>

namespace Ctl {

namespace {

using nlohmann::json;

constexpr char bareCharacters[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

std::string quoted(std::string const& text) {
    std::string quoted = json(text).dump();
    for (std::size_t at; (at = quoted.find('\x7f')) != std::string::npos;) // JSON lets it stand
        quoted.replace(at, 1, "\\u007f");
    return quoted;
}

std::string keyText(std::string const& key) {
    bool const bare = !key.empty() && key.find_first_not_of(bareCharacters) == std::string::npos;
    return bare ? key : quoted(key);
}

/// On one line.
std::string valueText(json const& value) {
    if (value.is_string()) return quoted(value);
    if (!value.is_structured()) return value.dump();
    std::string text;
    for (auto const& [key, each] : value.items()) {
        if (!text.empty()) text += ", ";
        if (value.is_object()) text += keyText(key) + " = ";
        text += valueText(each);
    }
    if (value.is_array()) return fmt::format("[{}]", text);
    return text.empty() ? "{}" : fmt::format("{{ {} }}", text);
}

void addSection(std::string& text, std::string const& header, json const& values) {
    text += fmt::format("{}{}\n", text.empty() ? "" : "\n", header);
    for (auto const& [key, value] : values.items())
        text += fmt::format("{} = {}\n", keyText(key), valueText(value));
}

/// The first address, and how few bits of it count.
std::tuple<std::uint32_t, int> orderOf(std::string const& groups) {
    auto const slash = groups.find('/');
    in_addr address{};
    inet_pton(AF_INET, groups.substr(0, slash).c_str(), &address);
    return {ntohl(address.s_addr),
            slash == std::string::npos ? 32 : std::stoi(groups.substr(slash + 1))};
}

void addGroups(std::string& text, std::string const& interface, json const& groups) {
    std::vector<std::string> names;
    for (auto const& [name, group] : groups.items()) names.push_back(name);
    std::ranges::sort(names, {}, orderOf);
    text += fmt::format("\n[interface.{}.group]\n", keyText(interface));
    for (std::string const& name : names)
        text += fmt::format("{} = {}\n", quoted(name), valueText(groups.at(name)));
}

void addInterface(std::string& text, std::string const& name, json settings) {
    json const groups = settings.value("group", json::object());
    settings.erase("group");
    addSection(text, fmt::format("[interface.{}]", keyText(name)), settings);
    if (!groups.empty()) addGroups(text, name, groups);
}

} // namespace

std::string tomlText(json const& answer) {
    std::string text;
    json const& configuration = answer.at("configuration");
    for (auto const& [key, value] : configuration.items())
        if (!value.is_object()) text += fmt::format("{} = {}\n", keyText(key), valueText(value));
    for (auto const& [key, value] : configuration.items()) {
        if (key == "interface" || !value.is_object()) continue;
        if (key != "access-list" && key != "vrf") {
            addSection(text, fmt::format("[{}]", key), value);
            continue;
        }
        for (auto const& [name, section] : value.items()) {
            std::string const path = fmt::format("{}.{}", key, keyText(name));
            if (section.is_object()) addSection(text, fmt::format("[{}]", path), section);
            if (section.is_array())
                for (json const& rule : section)
                    addSection(text, fmt::format("[[{}]]", path), rule);
        }
    }
    json const& interfaces = configuration.at("interface");
    auto const patterns = answer.at("patterns").get<std::vector<std::string>>();
    for (auto const& [name, settings] : interfaces.items())
        if (std::ranges::find(patterns, name) == patterns.end()) addInterface(text, name, settings);
    // The first that matches a name counts.
    for (std::string const& pattern : patterns) addInterface(text, pattern, interfaces.at(pattern));
    return text;
}

} // namespace Ctl
