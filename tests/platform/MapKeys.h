// Keys and values for the tests of the collections.
#pragma once

#include "Lox/IpAddr.h"
#include "Nex/Ptr.h"
#include "TestRecords.h"

#include <cstdint>

namespace Nex {

/// Counts its living instances.
struct Counted : PtrInterface {
    explicit Counted(int number) : value(number) { ++alive; }
    ~Counted() override { --alive; }
    int value;
    static inline int alive = 0;
};

/// Keys and values by number. Kinds of keys: neighbours, multiples of powers of two, which meet in
/// an index of neighbours, scattered numbers, and texts, which are not moved by their bytes.
inline Lox::IpAddr neighbour(std::uint32_t n) {
    return Lox::IpAddr::fromHost(0xEFFFFFF0u + n);
} // wraps around
template <unsigned shift>
Lox::IpAddr stride(std::uint32_t n) {
    return Lox::IpAddr::fromHost(n << shift);
}
inline Lox::IpAddr scattered(std::uint32_t n) { return Lox::IpAddr::fromHost(n * 2654435761u); }
inline String text(std::uint32_t n) {
    return "a key that does not fit into the string " + textOf(n);
}

} // namespace Nex
