// The agent's log: one line per event on standard error. Under systemd each line begins with its
// level as "<N>" (sd-daemon), which the journal reads and removes; elsewhere with the level's name.
// The last of them stay in memory, for those who ask later what has happened.
#pragma once

#include <cstdint>
#include <deque>
#include <fmt/core.h>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace Agent {

/// Numbered as syslog does: the smaller, the graver.
enum class LogLevel { error = 3, warning = 4, info = 6, debug = 7 };

/// Lines graver than or equal to `level` are written; info at the start.
void setLogLevel(LogLevel level);
LogLevel logLevel();
/// "error", "warning", "info" or "debug".
char const* nameOf(LogLevel level);
/// Nothing for other names.
std::optional<LogLevel> logLevelOf(std::string_view name);
double secondsSince1970();

/// One line, as it was told.
struct Event {
    std::uint64_t number; ///< from 1 on
    double time;          ///< seconds since 1970
    LogLevel level;
    std::string subject; ///< empty for the agent as a whole
    std::string text;    ///< printable ASCII
};
/// The last ones of any level, also where they were not written: the oldest in front, mostEvents
/// of them.
std::deque<Event> const& events();
inline constexpr std::size_t mostEvents = 1000;
/// Writes one line of any level, with unprintable bytes escaped, and cut to what a pipe takes as a
/// whole, behind the subject, such as an interface, if there is one. A line that standard error
/// does not take at once is lost, and counted in a line of its own before the next one that is
/// taken: logging neither fails nor waits, nor takes it memory to be written.
void logLine(LogLevel level, std::string_view subject, fmt::string_view format,
             fmt::format_args arguments) noexcept;

/// Writes up to PIPE_BUF octets in one call, or nothing where that would have to wait. Returns
/// whether they were taken.
bool writeAtOnce(int fd, std::string_view text);

/// Formats and writes.
template <typename... Args>
void log(LogLevel level, fmt::format_string<Args...> format, Args&&... args) {
    logLine(level, {}, format, fmt::make_format_args(args...));
}

/// The same about an interface, or whatever else there are several of.
template <typename... Args>
void logAbout(std::string_view subject, LogLevel level, fmt::format_string<Args...> format,
              Args&&... args) {
    logLine(level, subject, format, fmt::make_format_args(args...));
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
