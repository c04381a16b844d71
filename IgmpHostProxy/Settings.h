// The interface settings that pass from the configuration through the status to the host entity.
// The machines hand them on and decide nothing by them.
#pragma once

#include <charconv>
#include <cstdint>
#include <ostream>

namespace IgmpHostProxy {

/// Values beyond the named ones may occur; they are programmed as version 3. So is 0, which stands
/// in a configuration whose version nobody wrote.
enum class IgmpVersion : std::uint8_t { v1 = 1, v2 = 2, v3 = 3 };

inline std::ostream& operator<<(std::ostream& out, IgmpVersion version) {
    return out << unsigned(version);
}

/// How far apart a host repeats a report that nobody asked for (RFC 3376, 8.11). In seconds, passed
/// on as it was configured; nothing here checks it, and 0 is what nobody wrote.
class UnsolicitedReportInterval {
  public:
    constexpr UnsolicitedReportInterval() = default;
    explicit constexpr UnsolicitedReportInterval(double seconds) : seconds_(seconds) {}

    constexpr double seconds() const { return seconds_; }
    friend constexpr bool operator==(UnsolicitedReportInterval,
                                     UnsolicitedReportInterval) = default;

  private:
    double seconds_ = 0;
};

/// The seconds as a decimal number, without an exponent.
inline std::ostream& operator<<(std::ostream& out, UnsolicitedReportInterval interval) {
    // Plain decimals, as many as the value needs.
    char text[400];
    auto const end =
        std::to_chars(text, text + sizeof text, interval.seconds(), std::chars_format::fixed);
    return out.write(text, end.ptr - text);
}

} // namespace IgmpHostProxy
