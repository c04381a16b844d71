// The trace ring: the last few thousand trace points that were passed, always on.
//
// A trace point is a static descriptor at its call site. Passing it stores the descriptor, a time
// stamp and the raw values in a fixed slot of 64 octets; no text is built and nothing is allocated.
// Text is made when somebody reads the ring. Names that are too long for the slot stand in a ring
// of their own, and are cut once that has gone round; values that do not fit are left out.
//
// One thread writes and reads: the one that runs the machines. Reading changes nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

namespace Lumen {

using Payload = std::array<std::byte, 48>;

/// What is known of a trace point before it is passed. `format` holds a '%' for each value. Static:
/// entries point at it as long as they stand in the ring, and `print` knows the types of the
/// values.
struct Point {
    char const* function; ///< full signature
    unsigned line;
    unsigned level;
    bool entry; ///< the text begins with the signature
    char const* format;
    void (*print)(Point const&, Payload const&, std::ostream&);
};

/// A passed trace point. A plain value: whoever wants to keep one copies it, and finds all of its
/// text but names that were too long for it.
struct Entry {
    Point const* point;
    std::uint64_t stamp; ///< in ticks, see `Ring::secondsOf`
    Payload payload;

    /// One line without its end. Throws std::bad_alloc.
    std::string text() const {
        std::ostringstream out;
        point->print(*point, payload, out);
        return out.str();
    }
};
static_assert(sizeof(Entry) == 64);

/// Names that did not fit into their entries, one behind the other in a circle. 64 KiB, of static
/// memory; what is added takes the place of the oldest.
class LongTexts {
  public:
    static constexpr std::size_t capacity = 64 * 1024; // octets

    /// Where the text stands, counted in octets that were ever written. Cut at the capacity.
    /// Allocates nothing, and takes time for each octet.
    std::uint64_t add(std::string_view text);
    /// Writes the text that was added there; "..." for what newer ones have taken the place of, be
    /// it in part.
    void print(std::uint64_t position, std::uint32_t length, std::ostream& out) const;

  private:
    std::uint64_t written_ = 0;
    std::array<char, capacity> octets_;
};
inline LongTexts longTexts;

/// Text is stored as a length octet and the characters, or as `longText` with position and length
/// among the long texts; everything else as its bytes. A text inside an entry is shorter than 48
/// octets, so the mark is no length.
inline constexpr std::byte longText{0xFF};
template <class T>
inline constexpr bool isText = std::is_convertible_v<T const&, std::string_view>;

/// Types with a text inside them, such as interface names, have `stringValue()` by reference.
template <class T>
inline constexpr bool isNamed = requires(T const& v) {
    { v.stringValue() } -> std::same_as<std::string const&>;
};

/// What a value takes of an entry, at most, in octets. A C text is not null.
template <class T>
std::size_t octetsOf(T const& value) {
    if constexpr (isText<T>)
        return 1 + std::string_view(value).size();
    else if constexpr (isNamed<T>)
        return 1 + value.stringValue().size();
    else
        return sizeof value;
}

/// Puts values behind each other without their types: a `Reader` that asks for the same types in
/// the same order finds them. A value that does not fit is left out with all that come behind it; a
/// text is cut first.
class Writer {
  public:
    /// `tight`: the values take more than the payload, so names that save room are put elsewhere.
    /// Not tight means that the caller has counted: texts are then copied unchecked.
    Writer(Payload& payload, bool tight)
        : at_(payload.data()), end_(at_ + payload.size()), tight_(tight) {}

    template <class T>
    void put(T const& value) {
        if constexpr (isText<T>) {
            putText(value);
        } else if constexpr (isNamed<T>) {
            putText(value.stringValue());
        } else {
            static_assert(std::is_trivially_copyable_v<T>, "give the trace a plain value");
            if (std::size_t(end_ - at_) < sizeof value) {
                at_ = end_;
                return;
            }
            std::memcpy(at_, &value, sizeof value);
            at_ += sizeof value;
        }
    }

  private:
    void putText(std::string_view text) {
        if (tight_) [[unlikely]]
            return putTightly(text);
        *at_++ = std::byte(text.size());
        std::memcpy(at_, text.data(), text.size());
        at_ += text.size();
    }
    void putTightly(std::string_view text);

    std::byte* at_;
    std::byte* end_;
    bool tight_;
};

/// Of an entry that a `Writer` filled with the same types. Prints nothing for what was left out.
class Reader {
  public:
    explicit Reader(Payload const& payload)
        : at_(payload.data()), end_(payload.data() + payload.size()) {}

    template <class T>
    void print(std::ostream& out) {
        if constexpr (isText<T> || isNamed<T>) {
            if (at_ == end_) return;
            if (*at_ == longText) return printLongText(out);
            auto const length = std::size_t(*at_++);
            out.write(reinterpret_cast<char const*>(at_), std::streamsize(length));
            at_ += length;
        } else if (std::size_t(end_ - at_) < sizeof(T)) {
            at_ = end_;
        } else {
            alignas(T) std::byte bytes[sizeof(T)];
            std::memcpy(bytes, at_, sizeof bytes);
            at_ += sizeof bytes;
            out << *std::launder(reinterpret_cast<T const*>(bytes));
        }
    }

  private:
    void printLongText(std::ostream& out);

    std::byte const* at_;
    std::byte const* end_;
};

/// Writes `format` up to its next '%' and returns what follows that; its end where there is none.
inline char const* printUpToValue(char const* format, std::ostream& out) {
    char const* at = format;
    while (*at != '\0' && *at != '%') ++at;
    out.write(format, at - format);
    return *at == '%' ? at + 1 : at;
}

/// What a trace point stores, by types: how its text is put together again. A value that was left
/// out leaves its place in the text empty.
template <class... Values>
struct Types {
    static void print(Point const& point, Payload const& payload, std::ostream& out) {
        if (point.entry) out << point.function;
        Reader reader(payload);
        char const* format = point.format;
        ((format = printUpToValue(format, out), reader.print<Values>(out)), ...);
        out << format;
    }
};
template <class... Values>
Types<std::decay_t<Values>...> typesOf(Values const&...);

// A trace point compares these two as it is compiled: a '%' too many would show nothing, and a
// value too many would have no place.

template <class... Values>
constexpr unsigned countOf(Types<Values...>) {
    return sizeof...(Values);
}
constexpr unsigned valuesIn(std::string_view format) {
    unsigned count = 0;
    for (char c : format) count += c == '%';
    return count;
}

/// 4096 entries, 256 KiB, part of the program's static memory. Threads other than the one that runs
/// the machines leave it alone.
class Ring {
  public:
    /// Entries are numbered from 0 as they are written; the last `capacity()` can be read. Who
    /// reads regularly keeps the number, and knows by the difference how many it has missed.
    static constexpr std::size_t capacity() { return capacity_; }
    std::uint64_t written() const { return written_; }
    /// `number` must be below `written()` and among the last `capacity()`. The reference shows
    /// another entry once that many more were written.
    Entry const& entry(std::uint64_t number) const { return entries_[number % capacity_]; }

    /// Within one callback, the outermost, all entries carry one time stamp, taken at the first of
    /// them. Constant time, no memory. The entry returned stands until the ring has gone round.
    template <class... Values>
    [[gnu::always_inline]] Entry const& record(Point const& point, Values const&... values) {
        Entry& entry = entries_[written_++ % capacity_];
        entry.point = &point;
        entry.stamp = stamp_ != 0 ? stamp_ : freshStamp();
        Writer writer(entry.payload,
                      (std::size_t(0) + ... + octetsOf(values)) > sizeof entry.payload);
        (writer.put(values), ...);
        return entry;
    }

    /// Marks the time that a callback is on the stack; callbacks nest. The dispatcher makes one for
    /// each notification; it costs a count, and saves reading the processor's counter at each trace
    /// point.
    class Callback {
      public:
        explicit Callback(Ring& ring) : ring_(ring) { ++ring_.depth_; }
        Callback(Callback const&) = delete;
        Callback& operator=(Callback const&) = delete;
        ~Callback() {
            if (--ring_.depth_ == 0) ring_.stamp_ = 0;
        }

      private:
        Ring& ring_;
    };

    /// Seconds on the steady clock at which an entry was stamped, to the accuracy of the
    /// processor's counter. The same scale as `Nex::System::currentTime()` without a source of its
    /// own; another source does not change it.
    double secondsOf(Entry const& entry) const;

  private:
    static constexpr std::size_t capacity_ = 4096;

    static std::uint64_t ticks() {
#if defined(__x86_64__)
        return __builtin_ia32_rdtsc(); // the header of its intrinsic takes long to compile
#else
        return std::uint64_t(nanoseconds());
#endif
    }
    /// On the steady clock.
    static std::int64_t nanoseconds();
    std::uint64_t freshStamp() {
        std::uint64_t const now = ticks();
        if (depth_ > 0) stamp_ = now;
        return now;
    }

    std::uint64_t written_ = 0;
    std::uint64_t stamp_ = 0; ///< of the callback under way; 0 until it is taken, and outside
    unsigned depth_ = 0;
    std::uint64_t firstTicks_ = ticks();
    std::int64_t firstNanoseconds_ = nanoseconds();
    std::array<Entry, capacity_> entries_;
};

/// The ring of this process.
inline Ring ring;

} // namespace Lumen
