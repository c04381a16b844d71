#include "agent/ctl/Terminal.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fmt/chrono.h>
#include <fmt/color.h>
#include <fmt/format.h>
#include <memory>
#include <system_error>
#include <unistd.h>

namespace Ctl {

namespace {

constexpr char usualPager[] = "if command -v less >/dev/null; then exec less; fi; exec cat";

bool takesColours() {
    char const* const terminal = std::getenv("TERM");
    char const* const forbidden = std::getenv("NO_COLOR");
    return isatty(STDOUT_FILENO) && terminal && std::string_view(terminal) != "dumb" &&
           !(forbidden && *forbidden);
}

std::tm localTime(double seconds) {
    std::time_t const whole = std::time_t(std::floor(seconds));
    std::tm local{};
    localtime_r(&whole, &local);
    return local;
}

} // namespace

void page(std::string const& text) {
    char const* const wanted = std::getenv("PAGER");
    if (isatty(STDOUT_FILENO) && (!wanted || *wanted)) {
        // less ends at once where a screen holds it all (-F), and leaves it there (-X).
        setenv("LESS", "FRX", 0);
        std::unique_ptr<FILE, int (*)(FILE*)> const pager(popen(wanted ? wanted : usualPager, "w"),
                                                          pclose);
        if (pager && std::fputs(text.c_str(), pager.get()) >= 0) return;
    }
    show(text, false);
}

void show(std::string const& text, bool again) {
    if (again) std::fputs(isatty(STDOUT_FILENO) ? "\033[H\033[2J" : "\n", stdout);
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0)
        throw std::system_error(errno, std::generic_category(), "standard output");
}

std::string coloured(Mood mood, std::string text) {
    static bool const taken = takesColours();
    auto const colour = mood == Mood::good       ? fmt::terminal_color::green
                        : mood == Mood::doubtful ? fmt::terminal_color::yellow
                                                 : fmt::terminal_color::red;
    return taken ? fmt::format(fmt::fg(colour), "{}", text) : text;
}

std::size_t widthOf(std::string_view text) {
    std::size_t width = 0;
    for (std::size_t at = 0; at < text.size(); ++at)
        if (text[at] == '\033')
            at = std::min(text.find('m', at), text.size());
        else
            ++width;
    return width;
}

std::string timeText(double seconds) {
    std::tm const then = localTime(seconds);
    std::tm const now = localTime(double(std::time(nullptr)));
    bool const today = then.tm_year == now.tm_year && then.tm_yday == now.tm_yday;
    return today ? fmt::format("{:%H:%M:%S}", then) : fmt::format("{:%Y-%m-%d %H:%M:%S}", then);
}

std::string preciseTimeText(double seconds) {
    double const fraction = seconds - std::floor(seconds);
    return fmt::format("{}.{:03d}", timeText(seconds), int(fraction * 1000));
}

std::string durationText(double seconds) {
    long const whole = std::lround(seconds);
    if (whole < 60) return fmt::format("{} s", whole);
    if (whole < 3600) return fmt::format("{}:{:02d}", whole / 60, whole % 60);
    if (whole < 86400) return fmt::format("{} h {} min", whole / 3600, whole / 60 % 60);
    return fmt::format("{} d {} h", whole / 86400, whole / 3600 % 24);
}

} // namespace Ctl
