// Standard output as people meet it: through a pager if it is a terminal and there is much to say,
// and times and durations in words.
#pragma once

#include <string>

namespace Ctl {

/// Prints a whole text: through $PAGER, or less, on a terminal.
void page(std::string const& text);
/// Prints a text at once; `again` replaces what stands on a terminal.
void show(std::string const& text, bool again);

/// Local time of day; with the date if that is not today. `seconds` since 1970.
std::string timeText(double seconds);
/// The same with milliseconds.
std::string preciseTimeText(double seconds);
/// "12 s", "4:10", "3 h 20 min", "3 d 4 h".
std::string durationText(double seconds);

} // namespace Ctl
