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
    std::vector<Lox::IpAddr> all;
    for (AddressRangeIterator at(address, mask); !at.done(); ++at) all.push_back(*at);
    RC_ASSERT(all.size() == std::size_t(1) << std::popcount(~mask));
    for (auto const& found : all) RC_ASSERT((found.host() & mask) == (address & mask));
    RC_ASSERT(std::adjacent_find(all.begin(), all.end(), std::greater_equal<>()) == all.end());
}

} // namespace
} // namespace IgmpHostProxy
