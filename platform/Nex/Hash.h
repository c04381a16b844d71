// Where the collections' indexes look for a key.
//
// Keys come from the network, too: routes have the sources that strangers chose. So a key's number
// is hashed with a secret that every process draws anew, and nobody without it can name keys that
// meet.
#pragma once

#include <cstdint>
#include <functional>

namespace Nex {

/// The number that stands for a key: equal keys have equal ones, and others should differ. A key
/// type gives it by a member of its own where the result of `std::hash`, which has 32 bits on some
/// machines, is too narrow.
template <class Key>
std::uint64_t hashNumber(Key const& key) {
    if constexpr (requires { key.nexHashNumber(); })
        return key.nexHashNumber();
    else
        return std::hash<Key>()(key);
}

/// Pair-multiply-shift (M. Thorup, "High Speed Hashing for Integers and Strings", 3.5), mixed once
/// more. Pair-multiply-shift alone makes any two keys meet in a table of n slots with a chance of
/// 1/n, but turns a run of keys, like neighbouring addresses, into another arithmetic progression.
/// Under one secret in fifty that one lies in heaps, which linear probing pays for with many times
/// the steps.
struct HashSecret {
    std::uint64_t low = 0;
    std::uint64_t high = 0;
    std::uint64_t sum = 0;

    /// All 32 bits are equally good.
    std::uint32_t operator()(std::uint64_t number) const {
        std::uint64_t p = (low + std::uint32_t(number)) * (high + (number >> 32)) + sum;
        p ^= p >> 32;
        p *= 0x9E3779B97F4A7C15; // odd, with no regular pattern of bits
        return std::uint32_t(p >> 32);
    }
    /// From the machine's source of randomness. Throws std::runtime_error where there is none.
    static HashSecret drawn();
};

/// The secret of this process, drawn as the first index is made. No collection walks in the order
/// of its hashes, so what a program does is the same under every secret.
class HashSecrets {
  public:
    static HashSecret const& inForce() { return secret_; }
    /// To be called before an index is made. Throws as `drawn`.
    static void need() {
        if (!needed_) secretIs(HashSecret::drawn());
    }
    /// For tests and for runs that are to be repeated to the instruction: no collection may have
    /// an index yet.
    static void secretIs(HashSecret const& secret) {
        secret_ = secret;
        needed_ = true;
    }

  private:
    static inline constinit HashSecret secret_;
    static inline constinit bool needed_ = false;
};

} // namespace Nex
