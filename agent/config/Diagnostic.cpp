#include "agent/config/Diagnostic.h"

#include "agent/loop/Json.h"
#include "agent/loop/Printable.h"

#include <algorithm>
#include <fmt/core.h>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>

namespace Agent {

char const* nameOf(Diagnostic::Level level) {
    switch (level) {
    case Diagnostic::Level::info:
        return "info";
    case Diagnostic::Level::warning:
        return "warning";
    case Diagnostic::Level::error:
        return "error";
    }
    return "";
}

namespace {

/// Shown of one kind.
constexpr unsigned mostOfKind = 20;

std::string place(Diagnostic const& found) {
    if (found.position.line == 0) return found.file;
    return fmt::format("{}:{}:{}", found.file, found.position.line, found.position.column);
}

/// What the text says of any name in quotes and any number.
std::string kindOf(Diagnostic const& found) {
    std::string kind(1, char(found.level));
    bool quoted = false;
    for (char const c : found.text) {
        if (c == '"') quoted = !quoted;
        if (!quoted && !(c >= '0' && c <= '9')) kind += c;
    }
    return kind;
}

/// Keeps the first ones of each kind; the last of them tells how many more there are.
std::vector<Diagnostic> thinnedOut(std::vector<Diagnostic> found) {
    struct Kind {
        std::size_t count = 0;
        std::size_t last = 0; ///< where the last is that is shown
    };
    std::unordered_map<std::string, Kind> kinds;
    std::vector<Diagnostic> shown;
    for (Diagnostic& each : found) {
        Kind& kind = kinds[kindOf(each)];
        if (++kind.count == mostOfKind) kind.last = shown.size();
        if (kind.count <= mostOfKind) shown.push_back(std::move(each));
    }
    for (auto const& [name, kind] : kinds) {
        if (kind.count <= mostOfKind) continue;
        Diagnostic& last = shown[kind.last];
        last.more = kind.count - mostOfKind;
        last.text += fmt::format(" (and {} more like this)", last.more);
    }
    return shown;
}

} // namespace

std::string Diagnostic::stringValue() const {
    return fmt::format("{}: {}: {}", place(*this), nameOf(level), text);
}

std::string Diagnostic::textInFile() const { return fmt::format("{}: {}", place(*this), text); }

nlohmann::json toJson(std::vector<Diagnostic> const& diagnostics) {
    auto all = nlohmann::json::array();
    for (Diagnostic const& each : diagnostics)
        all.push_back({{"level", nameOf(each.level)},
                       {"file", each.file},
                       {"line", each.position.line},
                       {"column", each.position.column},
                       {"text", each.text}});
    return all;
}

std::string countText(std::uint64_t count, std::string const& what) {
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

void Diagnostics::add(Diagnostic::Level level, Position position, std::string const& text) {
    std::string const file = printable(position.file ? *position.file : file_);
    found_.push_back({level, file, std::move(position), printable(text)});
}

bool Diagnostics::before(Position const& a, Position const& b) const {
    auto const rank = [this](Position const& position) {
        bool const included = position.file && *position.file != file_;
        return std::tuple(included ? std::string_view(*position.file) : std::string_view(),
                          position.line, position.column);
    };
    return rank(a) < rank(b);
}

std::vector<Diagnostic> Diagnostics::take() {
    std::stable_sort(found_.begin(), found_.end(), [this](auto const& a, auto const& b) {
        bool const infos[] = {a.level == Diagnostic::Level::info,
                              b.level == Diagnostic::Level::info};
        return infos[0] != infos[1] ? infos[1] : before(a.position, b.position);
    });
    return thinnedOut(std::exchange(found_, {}));
}

} // namespace Agent
