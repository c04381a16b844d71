// Enumerates the addresses that match an address and a mask, in ascending order. The mask may have
// holes: a bit that is 0 is free, and every combination of the free bits is produced. Constant time
// for each, whatever the mask; how many there will be is `Lox::IpAddrWithFullMask::size`.
#pragma once

#include "Lox/IpAddr.h"

#include <cstdint>

namespace IgmpHostProxy {

class AddressRangeIterator {
  public:
    /// Address and mask in host order. Starts at the lowest address; never done at first.
    constexpr AddressRangeIterator(std::uint32_t address, std::uint32_t mask)
        : fixed_(address & mask), mask_(mask) {}

    constexpr Lox::IpAddr operator*() const { return Lox::IpAddr::fromHost(fixed_ | free_); }
    constexpr AddressRangeIterator& operator++() {
        // With the fixed bits all ones, a carry runs through them to the next free bit.
        free_ = ((free_ | mask_) + 1) & ~mask_;
        done_ |= free_ == 0;
        return *this;
    }
    /// After the highest address. What follows begins anew at the lowest, still done.
    constexpr bool done() const { return done_; }

  private:
    std::uint32_t fixed_;
    std::uint32_t mask_;
    std::uint32_t free_ = 0;
    bool done_ = false;
};

} // namespace IgmpHostProxy
