#include "agent/Log.h"

#include "agent/Printable.h"

#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace Agent {

namespace {

LogLevel written = LogLevel::info;

/// JOURNAL_STREAM names the journal's socket by device and inode. A program may inherit it with
/// standard error redirected to elsewhere, and then must not write prefixes (systemd.exec(5)).
bool journalReads() {
    char const* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream && fstat(STDERR_FILENO, &status) == 0 &&
           stream == fmt::format("{}:{}", status.st_dev, status.st_ino);
}

char const* prefix(LogLevel level) {
    switch (level) {
    case LogLevel::error:
        return "error: ";
    case LogLevel::warning:
        return "warning: ";
    case LogLevel::info:
        return "";
    case LogLevel::debug:
        return "debug: ";
    }
    return "";
}

} // namespace

void logLevelIs(LogLevel level) { written = level; }

bool logs(LogLevel level) { return level <= written; }

void logLine(LogLevel level, std::string_view text) {
    std::string const line =
        (journalReads() ? fmt::format("<{}>", int(level)) : prefix(level)) + printable(text) + '\n';
    // In one call, so that lines of several programs do not mix.
    [[maybe_unused]] auto const taken = write(STDERR_FILENO, line.data(), line.size());
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
