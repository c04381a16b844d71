// Standard output as people meet it: through a pager if it is a terminal and there is much to say,
// times and durations in words, and what matters in colour.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Ctl {

/// Prints a whole text: on a terminal through $PAGER unless that is empty, or through less where
/// there is one.
void page(std::string const& text);
/// Prints a text at once, or throws std::system_error; `again` replaces what stands on a terminal.
void show(std::string const& text, bool again);

enum class Mood { good, doubtful, bad };
/// In green, yellow or red on a terminal that can, unless $NO_COLOR forbids it; as it is elsewhere.
std::string coloured(Mood mood, std::string text);
/// In how many columns a text stands: what colours it takes none.
std::size_t widthOf(std::string_view text);

/// Local time of day; with the date if that is not today. `seconds` since 1970.
std::string timeText(double seconds);
/// The same with milliseconds.
std::string preciseTimeText(double seconds);
/// "12 s", "4:10", "3 h 20 min", "3 d 4 h".
std::string durationText(double seconds);

} // namespace Ctl
