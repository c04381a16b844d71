// Counted pointers and the life of what they count.
#include "TestRecords.h"

#include <gtest/gtest.h>
#include <random>
#include <stdexcept>
#include <thread>

namespace Nex {
namespace {

/// Hands itself out while it is built.
struct Exposed : PtrInterface {
    explicit Exposed(bool fails = false) {
        for (int i = 0; i < 3; ++i) Ptr<Exposed const> const taken(this);
        if (fails) throw std::runtime_error("half-built");
    }
};

class PtrTest : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override { PtrInterface::threadSafeIs(GetParam()); }
    void TearDown() override { PtrInterface::threadSafeIs(false); }
};
INSTANTIATE_TEST_SUITE_P(ThreadSafe, PtrTest, testing::Bool());

TEST_P(PtrTest, NoPointerFreesAnObjectInsideItsOwnConstructor) {
    Destructions destructions;
    auto object = newObject<Exposed>();
    EXPECT_EQ(object->nexReferences(), 1u);
    EXPECT_THROW(newObject<Exposed>(true), std::runtime_error);
    EXPECT_EQ(destructions.size(), 0u);
    object = nullptr;
    EXPECT_EQ(destructions.size(), 1u);
}

TEST_P(PtrTest, ChainOfAMillionIsDroppedWithoutALongStack) {
    struct Link : PtrInterface {
        Ptr<Link> next;
    };
    Destructions destructions;
    Ptr<Link> first;
    Link const* held = nullptr;
    for (int n = 0; n < 1000000; ++n) {
        auto const link = newObject<Link>();
        link->next = std::exchange(first, link);
        if (n == 500000) held = link.get();
    }
    Ptr<Link const> const rest(held);
    first = nullptr;
    EXPECT_EQ(destructions.size(), 499999u);
    EXPECT_EQ(rest->nexReferences(), 1u);
}

TEST(PtrThreads, MayCopyDropAndCreateWhenSaidSo) {
    PtrInterface::threadSafeIs(true);
    auto shared = newObject<Exposed>();
    auto const work = [&] {
        for (int i = 0; i < 100000; ++i) {
            Ptr<Exposed> const copy(shared);
            auto const own = newObject<Exposed>();
            ASSERT_NE(own, copy);
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(shared->nexReferences(), 1u);
    shared = nullptr;
    PtrInterface::threadSafeIs(false);
}

/// The allocator of all objects, which the address sanitizer never sees at work: each object is
/// filled with a number of its own.
TEST(ArenaTest, NoTwoLivingObjectsShareRoomAndWhatIsFreeIsGivenBack) {
    std::mt19937 random;
    for (std::size_t const bytes : {16u, 20u, 56u, 256u}) {
        std::size_t const perChunk = Arena::chunkBytes / ((bytes + 7) / 8 * 8);
        std::size_t most = 10 * perChunk, stay = 4 * perChunk;
        Arena arena;
        auto const chunks = [&] { return arena.heldBytes() / Arena::chunkBytes; };
        std::vector<std::pair<unsigned char*, unsigned char>> living;
        for (int round = 0; round < 50; ++round) {
            while (living.size() < most) {
                living.emplace_back(static_cast<unsigned char*>(arena.take(bytes)),
                                    std::uint8_t(random()));
                std::fill_n(living.back().first, bytes, living.back().second);
            }
            ASSERT_LE(chunks(), 10u) << "what is free comes before new chunks";
            while (living.size() > stay) {
                if (round % 2 != 0) std::swap(living[random() % living.size()], living.back());
                auto const [object, number] = living.back();
                ASSERT_EQ(std::size_t(std::count(object, object + bytes, number)), bytes);
                arena.giveBack(object, bytes);
                living.pop_back();
            }
            int steps = round % 4 < 2 ? 10000 : int(random() % 20); // to its end, or not
            while (steps > 0 && arena.trim(100)) --steps;
            if (round % 4 < 2) {
                ASSERT_GT(steps, 0);
                ASSERT_LE(chunks(), round == 0 ? 8 : stay + 1) << "at worst, each keeps its own";
            }
            most = random() % (10 * perChunk);
            stay = round < 48 ? random() % 5 : 0;
        }
        EXPECT_EQ(arena.heldBytes(), 0u);
    }
}

} // namespace
} // namespace Nex
