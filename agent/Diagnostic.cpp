#include "agent/Diagnostic.h"

#include "agent/Printable.h"

#include <algorithm>
#include <fmt/core.h>
#include <tuple>
#include <utility>

namespace Agent {

namespace {

char const* levelName(Diagnostic::Level level) {
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

} // namespace

std::string Diagnostic::stringValue() const {
    if (position.line == 0) return fmt::format("{}: {}: {}", file, levelName(level), text);
    return fmt::format("{}:{}:{}: {}: {}", file, position.line, position.column, levelName(level),
                       text);
}

void Diagnostics::add(Diagnostic::Level level, Position position, std::string const& text) {
    found_.push_back({level, file_, position, printable(text)});
}

std::vector<Diagnostic> Diagnostics::take() {
    std::stable_sort(found_.begin(), found_.end(), [](Diagnostic const& a, Diagnostic const& b) {
        return std::tie(a.position.line, a.position.column) <
               std::tie(b.position.line, b.position.column);
    });
    return std::exchange(found_, {});
}

} // namespace Agent
