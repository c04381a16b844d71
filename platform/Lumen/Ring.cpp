#include "Lumen/Ring.h"

#include <algorithm>
#include <chrono>

namespace Lumen {

std::uint64_t LongTexts::add(std::string_view text) {
    std::uint64_t const position = written_;
    for (char const c : text.substr(0, capacity)) octets_[written_++ % capacity] = c;
    return position;
}

void LongTexts::print(std::uint64_t position, std::uint32_t length, std::ostream& out) const {
    if (written_ - position > capacity) {
        out << "...";
        return;
    }
    std::size_t const first = position % capacity;
    std::size_t const unbroken = std::min<std::size_t>(length, capacity - first);
    out.write(&octets_[first], std::streamsize(unbroken));
    out.write(&octets_[0], std::streamsize(length - unbroken));
}

void Writer::putTightly(std::string_view text) {
    if (at_ == end_) return;
    std::size_t const room = std::size_t(end_ - at_ - 1);
    auto const longLength = std::uint32_t(std::min(text.size(), LongTexts::capacity));
    std::size_t const reference = sizeof(std::uint64_t) + sizeof longLength;
    if (text.size() > reference && room >= reference) {
        *at_++ = longText;
        put(longTexts.add(text));
        put(longLength);
        return;
    }
    // Behind so many values that even this is too much, the end is cut.
    std::size_t const length = std::min(text.size(), room);
    *at_++ = std::byte(length);
    std::memcpy(at_, text.data(), length);
    at_ += length;
}

void Reader::printLongText(std::ostream& out) {
    std::uint64_t position;
    std::uint32_t length;
    std::memcpy(&position, at_ + 1, sizeof position);
    std::memcpy(&length, at_ + 1 + sizeof position, sizeof length);
    at_ += 1 + sizeof position + sizeof length;
    longTexts.print(position, length, out);
}

double Ring::secondsOf(Entry const& entry) const {
    double const elapsed = double(nanoseconds() - firstNanoseconds_);
    double const ticksElapsed = double(ticks() - firstTicks_);
    double const ticksToEntry = double(std::int64_t(entry.stamp - firstTicks_));
    return 1e-9 * (double(firstNanoseconds_) +
                   (ticksElapsed > 0 ? elapsed * ticksToEntry / ticksElapsed : 0));
}

std::int64_t Ring::nanoseconds() {
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace Lumen
