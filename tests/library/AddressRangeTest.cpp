// The addresses that an access list's destination stands for.
#include "IgmpHostProxy/AddressRangeIterator.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>
#include <vector>

namespace IgmpHostProxy {
namespace {

using Addresses = std::vector<Lox::IpAddr>;

Addresses addressesOf(std::uint32_t address, std::uint32_t mask) {
    Addresses addresses;
    for (AddressRangeIterator at(address, mask); !at.done(); ++at) addresses.push_back(*at);
    return addresses;
}
Addresses addresses(std::initializer_list<char const*> dotted) {
    Addresses result;
    for (auto const* const address : dotted) result.emplace_back(address);
    return result;
}

TEST(AddressRange, EveryCombinationOfTheFreeBitsInAscendingOrder) {
    EXPECT_EQ(addressesOf(0xEF010100, 0xFFFFFFFC),
              addresses({"239.1.1.0", "239.1.1.1", "239.1.1.2", "239.1.1.3"}));
    // The address is masked first.
    EXPECT_EQ(addressesOf(0xEF0101FF, 0xFFFFFFFE), addresses({"239.1.1.254", "239.1.1.255"}));
    EXPECT_EQ(addressesOf(0xEF010105, ~0u), addresses({"239.1.1.5"}));
    EXPECT_EQ(addressesOf(~0u, ~0u), addresses({"255.255.255.255"}));
    EXPECT_EQ(addressesOf(0xEF010100, 0xFFFEFFFE),
              addresses({"239.0.1.0", "239.0.1.1", "239.1.1.0", "239.1.1.1"}));
    // The highest bit is free: the carry must not be lost with it.
    EXPECT_EQ(
        addressesOf(0x7FFFFFFF, 0x7FFFFFFE),
        addresses({"127.255.255.254", "127.255.255.255", "255.255.255.254", "255.255.255.255"}));
}

TEST(AddressRange, AMaskWithAHoleYieldsAllGroupsBetweenItsFixedOctets) {
    Addresses const all = addressesOf(0xEF000000, 0xFF0000FF);
    ASSERT_EQ(all.size(), 65536u);
    EXPECT_EQ(all.front(), Lox::IpAddr("239.0.0.0"));
    EXPECT_EQ(all[1], Lox::IpAddr("239.0.1.0"));
    EXPECT_EQ(all[256], Lox::IpAddr("239.1.0.0"));
    EXPECT_EQ(all.back(), Lox::IpAddr("239.255.255.0"));
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end()));
}

TEST(AddressRange, WithoutAMaskItGoesOnThroughTheWholeSpace) {
    AddressRangeIterator at(0xEF010101, 0);
    for (std::uint32_t n = 0; n < 100000; ++n, ++at) ASSERT_EQ((*at).host(), n);
    EXPECT_FALSE(at.done());
}

TEST(AddressRange, TheEndStaysTheEnd) {
    AddressRangeIterator at(0xEF010100, 0xFFFFFFFE);
    for (int steps = 0; steps < 5; ++steps, ++at) EXPECT_EQ(at.done(), steps >= 2);
}

RC_GTEST_PROP(AddressRange, ExactlyTheMatchingAddressesForAnyMask, (std::uint32_t address)) {
    // At most twelve free bits, anywhere.
    auto const bits = *rc::gen::container<std::vector<int>>(rc::gen::inRange(0, 32));
    std::uint32_t mask = ~0u;
    for (int const bit : bits)
        if (std::popcount(~mask) < 12) mask &= ~(1u << bit);
    Addresses const all = addressesOf(address, mask);
    RC_ASSERT(all.size() == std::size_t(1) << std::popcount(~mask));
    for (auto const& found : all) RC_ASSERT((found.host() & mask) == (address & mask));
    RC_ASSERT(std::adjacent_find(all.begin(), all.end(), std::greater_equal<>()) == all.end());
}

} // namespace
} // namespace IgmpHostProxy
