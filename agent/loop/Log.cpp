#include "agent/loop/Log.h"

#include "agent/loop/Printable.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <new>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace Agent {

namespace {

/// Of one line: a pipe takes two of them at once.
constexpr std::size_t mostOctets = PIPE_BUF / 2;

LogLevel written = LogLevel::info;
unsigned lost = 0; ///< lines since the last one that was taken
std::deque<Event> told;

/// JOURNAL_STREAM names the journal's socket by device and inode. A program may inherit it
/// with standard error redirected to elsewhere, and then must not write prefixes (systemd.exec(5)).
bool journalReads() {
    char const* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream && fstat(STDERR_FILENO, &status) == 0 &&
           stream == fmt::format("{}:{}", status.st_dev, status.st_ino);
}

constexpr std::pair<LogLevel, char const*> levelNames[] = {{LogLevel::error, "error"},
                                                           {LogLevel::warning, "warning"},
                                                           {LogLevel::info, "info"},
                                                           {LogLevel::debug, "debug"}};

std::string prefix(LogLevel level) {
    return level == LogLevel::info ? "" : fmt::format("{}: ", nameOf(level));
}

std::string lineOf(LogLevel level, std::string_view text) {
    std::string line =
        (journalReads() ? fmt::format("<{}>", int(level)) : prefix(level)) + printable(text);
    if (line.size() >= mostOctets) line.resize(mostOctets - 1);
    return line + '\n';
}

/// Without memory it is forgotten; what was to be told is more important.
void doKeep(LogLevel level, std::string_view subject, std::string_view text) noexcept {
    try {
        std::string kept = printable(text);
        if (kept.size() > mostOctets) kept.resize(mostOctets);
        told.push_back({told.empty() ? 1 : told.back().number + 1, secondsSince1970(), level,
                        printable(subject), std::move(kept)});
        if (told.size() > mostEvents) told.pop_front();
    } catch (std::bad_alloc const&) {
    }
}

} // namespace

void setLogLevel(LogLevel level) { written = level; }

LogLevel logLevel() { return written; }

char const* nameOf(LogLevel level) {
    return std::find_if(std::begin(levelNames), std::end(levelNames),
                        [&](auto const& each) { return each.first == level; })
        ->second;
}

std::optional<LogLevel> logLevelOf(std::string_view name) {
    for (auto const& [level, known] : levelNames)
        if (known == name) return level;
    return std::nullopt;
}

double secondsSince1970() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::deque<Event> const& events() { return told; }

void logLine(LogLevel level, std::string_view subject, std::string_view text) {
    doKeep(level, subject, text);
    if (level > written) return;
    std::string line =
        lineOf(level, subject.empty() ? std::string(text) : fmt::format("{}: {}", subject, text));
    if (lost != 0)
        line = lineOf(LogLevel::warning, fmt::format("{} lines of the log were lost", lost)) + line;
    lost = writeAtOnce(STDERR_FILENO, line) ? 0 : lost + 1;
}

bool writeAtOnce(int fd, std::string_view text) {
    pollfd room{fd, POLLOUT, 0};
    if (poll(&room, 1, 0) != 1 || !(room.revents & POLLOUT)) return false;
    // In one call, so that lines of several programs do not mix.
    return write(fd, text.data(), text.size()) == ssize_t(text.size());
}

std::optional<unsigned> LogLimit::admitted(double now) {
    if (now < nextAt_) {
        ++heldBack_;
        return std::nullopt;
    }
    nextAt_ = now + interval_;
    return std::exchange(heldBack_, 0);
}

} // namespace Agent
