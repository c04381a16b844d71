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

/// Hands itself out while it is built and while it goes.
struct Exposed : PtrInterface {
    explicit Exposed(bool fails = false) {
        for (int i = 0; i < 3; ++i) Ptr<Exposed const> const taken(this);
        if (fails) throw std::runtime_error("half-built");
    }
    ~Exposed() override { ended = true; }
    static inline bool ended = false;
};

class PtrTest : public testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        PtrInterface::threadSafeIs(GetParam());
        Exposed::ended = false;
    }
    void TearDown() override { PtrInterface::threadSafeIs(false); }
};
INSTANTIATE_TEST_SUITE_P(ThreadSafe, PtrTest, testing::Bool());

TEST_P(PtrTest, NoPointerFreesAnObjectInsideItsOwnConstructor) {
    Destructions destructions;
    auto object = newObject<Exposed>();
    EXPECT_FALSE(Exposed::ended);
    EXPECT_EQ(object->nexReferences(), 1u);
    EXPECT_THROW(newObject<Exposed>(true), std::runtime_error);
    EXPECT_EQ(destructions.size(), 0u);
    object = nullptr;
    EXPECT_TRUE(Exposed::ended);
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

// Of the allocator that all objects share.
TEST(SlabsTest, TakeBackWhatObjectsLeave) {
    std::size_t const before = Slab::of(sizeof(Exposed)).heldBytes();
    for (int n = 0; n < 100000; ++n) newObject<Exposed>();
    EXPECT_LE(Slab::of(sizeof(Exposed)).heldBytes(), before + Slab::chunkBytes);
}

TEST(SlabsTest, AreTrimmedInSteps) {
    Slab& slab = Slab::of(200);
    std::vector<void*> objects(3000);
    std::size_t const before = slab.heldBytes();
    for (void*& object : objects) object = slab.take(200);
    for (std::size_t at = 1; at < objects.size(); ++at) slab.giveBack(objects[at]);
    int calls = 1;
    while (Slab::trim(100)) ++calls;
    EXPECT_GT(calls, 20);
    EXPECT_LE(slab.heldBytes(), before + 2 * Slab::chunkBytes);
    slab.giveBack(objects[0]);
}

/// The allocator itself, which the address sanitizer never sees at work: objects of one size, each
/// filled with a number of its own.
class SlabTest : public testing::TestWithParam<std::size_t> {
  protected:
    ~SlabTest() override {
        for (auto const& [object, number] : living_) slab_.giveBack(object);
        EXPECT_FALSE(trimmed());
        EXPECT_EQ(slab_.heldBytes(), 0u);
    }
    void take(std::size_t count) {
        for (std::size_t n = 0; n < count; ++n) {
            void* const object = slab_.take(bytes_);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(object) % Slab::granule, 0u);
            std::memset(object, int(++taken_ % 251), bytes_);
            ASSERT_TRUE(living_.emplace(object, taken_ % 251).second);
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
            slab_.giveBack(object);
            next = living_.erase(next);
        }
    }
    bool trimmed() {
        for (int calls = 0; slab_.trim(bytes_, 100); ++calls)
            if (calls > 100000) return true;
        return false;
    }
    std::size_t chunks() const { return slab_.heldBytes() / Slab::chunkBytes; }

    std::size_t const bytes_ = GetParam();
    std::size_t const perChunk_ = Slab::chunkBytes / ((bytes_ + 7) / 8 * 8);
    Slab slab_;
    std::map<void*, std::size_t> living_;
    std::size_t taken_ = 0;
};
INSTANTIATE_TEST_SUITE_P(Sizes, SlabTest, testing::Values(8, 20, 56, 256));

TEST_P(SlabTest, NoTwoLivingObjectsShareRoomAndWhatIsFreeIsGivenBack) {
    take(perChunk_);
    giveBack([](std::size_t at) { return at % 2 == 0; });
    take(perChunk_ / 2); // what went comes first
    EXPECT_EQ(chunks(), 1u);
    take(19 * perChunk_);
    EXPECT_EQ(chunks(), 20u);
    giveBack([](std::size_t at) { return at % 3 == 0; });
    EXPECT_FALSE(trimmed());
    EXPECT_EQ(chunks(), 20u); // most of it lives
    take(10);
    giveBack([&](std::size_t at) { return at > 3 * perChunk_; });
    EXPECT_FALSE(trimmed());
    std::size_t const left = chunks();
    EXPECT_LE(left, 6u); // a third of each chunk was free
    // What a trim found free comes before new chunks, and may go at the next trim.
    take(left * perChunk_ - living_.size());
    EXPECT_EQ(chunks(), left);
    take(perChunk_ + 1);
    EXPECT_EQ(chunks(), left + 2);
    giveBack([](std::size_t at) { return at % 100 != 0; });
    slab_.trim(bytes_, 50); // not to its end
    take(5 * perChunk_ / 2);
    giveBack([](std::size_t at) { return at % 7 != 0; });
    EXPECT_FALSE(trimmed());
    giveBack([](std::size_t) { return true; });
    take(perChunk_ + 1); // from the start again
}

} // namespace
} // namespace Nex
