#include "agent/loop/Log.h"

#include "agent/loop/Printable.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <fmt/format.h> // clang does not find vformat_to() in a library that g++ made
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

constexpr std::pair<LogLevel, char const*> levelNames[] = {{LogLevel::error, "error"},
                                                           {LogLevel::warning, "warning"},
                                                           {LogLevel::info, "info"},
                                                           {LogLevel::debug, "debug"}};

/// What is formatted without memory: that there is none may be what it says. Cut to mostOctets.
class Text {
  public:
    Text(fmt::string_view format, fmt::format_args arguments)
        : size_(std::min(mostOctets,
                         fmt::vformat_to_n(octets_.data(), mostOctets, format, arguments).size)) {}
    operator std::string_view() const { return {octets_.data(), size_}; }

  private:
    std::array<char, mostOctets> octets_;
    std::size_t size_;
};

template <typename... Args>
Text textOf(fmt::format_string<Args...> format, Args const&... args) {
    return {format, fmt::make_format_args(args...)};
}

/// JOURNAL_STREAM names the journal's socket by device and inode. A program may inherit it
/// with standard error redirected to elsewhere, and then must not write prefixes (systemd.exec(5)).
bool journalReads() {
    char const* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream && fstat(STDERR_FILENO, &status) == 0 &&
           stream == std::string_view(textOf("{}:{}", status.st_dev, status.st_ino));
}

/// Of the log, as standard error takes them: at once, two at most.
class Lines {
  public:
    void add(LogLevel level, std::string_view subject, std::string_view text) {
        end_ = size_ + mostOctets - 1;
        if (journalReads())
            doAdd(textOf("<{}>", int(level)));
        else if (level != LogLevel::info)
            doAdd(textOf("{}: ", nameOf(level)));
        doAdd(subject);
        if (!subject.empty()) doAdd(": ");
        doAdd(text);
        octets_[size_++] = '\n';
    }
    operator std::string_view() const { return {octets_.data(), size_}; }

  private:
    void doAdd(std::string_view text) {
        for (char const byte : text) {
            PrintableByte const shown(byte);
            if (size_ + shown.text().size() > end_) return;
            size_ += shown.text().copy(octets_.data() + size_, shown.text().size());
        }
    }

    std::array<char, 2 * mostOctets> octets_;
    std::size_t size_ = 0;
    std::size_t end_ = 0; ///< of the line, without what ends it
};

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

void logLine(LogLevel level, std::string_view subject, fmt::string_view format,
             fmt::format_args arguments) noexcept {
    Text const text(format, arguments);
    doKeep(level, subject, text);
    if (level > written) return;
    Lines lines;
    if (lost != 0) lines.add(LogLevel::warning, {}, textOf("{} lines of the log were lost", lost));
    lines.add(level, subject, text);
    lost = writeAtOnce(STDERR_FILENO, lines) ? 0 : lost + 1;
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
