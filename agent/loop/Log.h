// The agent's log: one line per event on standard error. Under systemd each line begins with its
// level as "<N>" (sd-daemon), which the journal reads and removes; elsewhere with the level's name.
#pragma once

#include <fmt/core.h>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

namespace Agent {

/// Numbered as syslog does: the smaller, the graver.
enum class LogLevel { error = 3, warning = 4, info = 6, debug = 7 };

/// Lines graver than or equal to `level` are written; info at the start.
void setLogLevel(LogLevel level);
bool logs(LogLevel level);
/// Writes one line of any level, with unprintable bytes escaped, and cut to what a pipe takes as a
/// whole. A line that standard error does not take at once is lost, and counted in a line of its
/// own before the next one that is taken: logging neither fails nor waits.
void logLine(LogLevel level, std::string_view text);

/// Writes up to PIPE_BUF octets in one call, or nothing where that would have to wait. Returns
/// whether they were taken.
bool writeAtOnce(int fd, std::string_view text);

/// Formats and writes; builds no text for a level that is not written.
template <typename... Args>
void log(LogLevel level, fmt::format_string<Args...> format, Args&&... args) {
    if (logs(level)) logLine(level, fmt::format(format, std::forward<Args>(args)...));
}

/// Thins out a warning that every packet could repeat. Told the time; one for each kind of warning.
class LogLimit {
  public:
    /// Admits one line each `interval` seconds.
    explicit LogLimit(double interval = 60) : interval_(interval) {}

    /// Whether to write now: the number of lines held back since the last one, or nothing.
    std::optional<unsigned> admitted(double now);

  private:
    double interval_;
    double nextAt_ = -std::numeric_limits<double>::infinity();
    unsigned heldBack_ = 0;
};

} // namespace Agent
