// Counted pointers and the life of what they count.
#include "TestRecords.h"

#include <atomic>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <map>
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
    std::atomic<int> ready = 0;
    auto const work = [&] {
        for (++ready; ready < 2;) continue;
        for (int i = 0; i < 100000; ++i) {
            Ptr<Exposed> const copy(shared);
            auto const own = newObject<Exposed>();
            ASSERT_NE(own, copy);
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(shared->nexReferences(), 1u);
    shared = nullptr;
    PtrInterface::threadSafeIs(false);
}

/// The allocator of all objects, which the address sanitizer never sees at work: each object is
/// filled with a number of its own.
class ArenaTest : public testing::TestWithParam<std::size_t> {
  protected:
    ~ArenaTest() override {
        giveBack([](std::size_t) { return true; });
        EXPECT_FALSE(trimmed());
        EXPECT_EQ(arena_.heldBytes(), 0u);
    }
    void take(std::size_t count) {
        for (std::size_t n = 0; n < count; ++n) {
            void* const object = arena_.take(bytes_);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(object) % Arena::granule, 0u);
            int const number = int(++taken_ % 251);
            std::memset(object, number, bytes_);
            ASSERT_TRUE(living_.emplace(object, number).second);
        }
    }
    /// Those that `goes` names by the order of their addresses. What stays is as it was.
    void giveBack(std::function<bool(std::size_t)> const& goes) {
        std::size_t at = 0;
        for (auto next = living_.begin(); next != living_.end(); ++at) {
            auto const [object, number] = *next;
            auto const* const octets = static_cast<unsigned char const*>(object);
            ASSERT_EQ(std::size_t(std::count(octets, octets + bytes_, number)), bytes_);
            if (!goes(at)) {
                ++next;
                continue;
            }
            arena_.giveBack(object, bytes_);
            next = living_.erase(next);
        }
    }
    /// Whether a trim finds no end. In steps, as whoever has other work does it.
    bool trimmed() {
        for (steps_ = 1; arena_.trim(100); ++steps_)
            if (steps_ > 100000) return true;
        return false;
    }
    std::size_t chunks() const { return arena_.heldBytes() / Arena::chunkBytes; }

    std::size_t const bytes_ = GetParam();
    Arena arena_;
    std::map<void*, int> living_; ///< with the number in each octet
    std::size_t taken_ = 0;
    int steps_ = 0;
};
INSTANTIATE_TEST_SUITE_P(Sizes, ArenaTest, testing::Values(16, 20, 56, 256));

TEST_P(ArenaTest, NoTwoLivingObjectsShareRoomAndWhatIsFreeIsGivenBack) {
    std::size_t const perChunk = Arena::chunkBytes / ((bytes_ + 7) / 8 * 8);
    take(perChunk);
    giveBack([](std::size_t at) { return at % 2 == 0; });
    take(perChunk / 2); // what went comes first
    EXPECT_EQ(chunks(), 1u);
    take(19 * perChunk);
    EXPECT_EQ(chunks(), 20u);
    giveBack([](std::size_t at) { return at % 3 == 0; });
    EXPECT_FALSE(trimmed());
    EXPECT_EQ(chunks(), 20u); // most of it lives
    take(10);
    giveBack([&](std::size_t at) { return at > 3 * perChunk; });
    EXPECT_FALSE(trimmed());
    EXPECT_GT(steps_, 20);
    std::size_t const left = chunks();
    EXPECT_LE(left, 6u); // a third of each chunk was free
    // What a trim found free comes before new chunks, and may go at the next trim.
    take(left * perChunk - living_.size());
    EXPECT_EQ(chunks(), left);
    take(perChunk + 1);
    EXPECT_EQ(chunks(), left + 2);
    giveBack([](std::size_t at) { return at % 100 != 0; });
    arena_.trim(50); // not to its end
    take(5 * perChunk / 2);
    giveBack([](std::size_t at) { return at % 7 != 0; });
    EXPECT_FALSE(trimmed());
    giveBack([](std::size_t) { return true; });
    take(perChunk + 1); // from the start again
    giveBack([](std::size_t) { return true; });
    EXPECT_FALSE(trimmed());
    take(1); // where nothing is left at all
}

} // namespace
} // namespace Nex
