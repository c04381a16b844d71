#include "agent/ports/Obstacles.h"

#include "agent/loop/Printable.h"

#include <algorithm>
#include <utility>

namespace Agent {

namespace {

/// Lines in one turn: a namespace may take thousands of interfaces with it.
constexpr unsigned mostTold = 20;

} // namespace

void Obstacles::report(std::string const& subject, std::string const& reason, LogLevel level) {
    std::string const name = printable(subject);
    auto const known = obstacles_.find(name);
    if (known == obstacles_.end() ? reason.empty() : known->second.reason == printable(reason))
        return;
    changed_ = true;
    if (reason.empty()) {
        if (++ended_ <= mostTold)
            logAbout(name, LogLevel::info, "can be used now (before: {})", known->second.reason);
        obstacles_.erase(known);
        return;
    }
    obstacles_[name] = {level, printable(reason)};
    if (++begun_ <= mostTold) logAbout(name, level, "{}", obstacles_[name].reason);
}

void Obstacles::clear(std::string const& subject) {
    if (obstacles_.erase(printable(subject)) != 0) changed_ = true;
}

bool Obstacles::handleTurn() {
    if (begun_ > mostTold)
        log(LogLevel::warning, "and {} more that cannot be used", begun_ - mostTold);
    if (ended_ > mostTold)
        log(LogLevel::info, "and {} more that can be used now", ended_ - mostTold);
    begun_ = ended_ = 0;
    return std::exchange(changed_, false);
}

std::string Obstacles::text() const {
    auto const gravest =
        std::min_element(obstacles_.begin(), obstacles_.end(), [](auto const& a, auto const& b) {
            return a.second.level < b.second.level;
        });
    if (gravest == obstacles_.end()) return {};
    std::string text = fmt::format("{}: {}", gravest->first, gravest->second.reason);
    if (obstacles_.size() > 1) text += fmt::format(" (and {} more)", obstacles_.size() - 1);
    return text;
}

} // namespace Agent
