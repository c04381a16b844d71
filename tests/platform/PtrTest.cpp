// Counted pointers and the life of what they count.
#include "TestRecords.h"

#include <atomic>
#include <gtest/gtest.h>
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

TEST_P(PtrTest, EveryWayToCopyAndMoveCountsOnce) {
    struct Derived : Exposed {};
    auto derived = newObject<Derived>();
    Ptr<Exposed> base = derived;
    Ptr<Exposed const> readOnly(base);
    EXPECT_EQ(derived->nexReferences(), 3u);
    Ptr<Exposed> moved(std::move(derived));
    EXPECT_EQ(moved->nexReferences(), 3u);
    moved = *&moved; // itself
    base = std::move(moved);
    EXPECT_EQ(base->nexReferences(), 2u);
    EXPECT_EQ(base, Ptr<Exposed>(base.get()));
    readOnly = nullptr;
    auto const adopted = Ptr<Exposed>::adopt(base.release());
    EXPECT_FALSE(base);
    EXPECT_EQ(adopted->nexReferences(), 1u);
}

TEST_P(PtrTest, ObserverIsToldBeforeTheDestructorRuns) {
    struct Observer : DestructionObserver {
        void onDestruction(PtrInterface const& object) override {
            last = &object;
            endedBefore = Exposed::ended;
        }
        PtrInterface const* last = nullptr;
        bool endedBefore = true;
    } observer;
    PtrInterface::destructionObserverIs(&observer);
    auto object = newObject<Exposed>();
    PtrInterface const* const raw = object.get();
    object = nullptr;
    PtrInterface::destructionObserverIs(nullptr);
    EXPECT_EQ(observer.last, raw);
    EXPECT_FALSE(observer.endedBefore);
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

TEST(PtrStorage, NoTwoLivingObjectsShareRoomWhateverTheirSizes) {
    struct Small : PtrInterface {
        unsigned char fill[5];
    };
    struct Large : PtrInterface {
        unsigned char fill[229]; // the largest that comes from a slab
    };
    std::vector<Ptr<Small>> small;
    std::vector<Ptr<Large>> large;
    auto const make = [](auto& objects, std::size_t n) {
        objects.push_back(newObject<std::remove_reference_t<decltype(*objects[0])>>());
        auto& fill = objects.back()->fill;
        std::fill(std::begin(fill), std::end(fill), static_cast<unsigned char>(n));
    };
    auto const check = [](auto const& objects) {
        for (auto const& object : objects) {
            auto const& fill = object->fill;
            ASSERT_EQ(std::count(std::begin(fill), std::end(fill), fill[0]), std::ssize(fill));
        }
    };
    for (std::size_t n = 0; n < 2000; ++n) {
        make(small, n);
        make(large, n + 2);
        if (n % 3 == 0) small.erase(small.begin() + std::ptrdiff_t(small.size() / 2));
        if (n % 2 == 0) large.erase(large.begin());
    }
    check(small);
    check(large);
}

} // namespace
} // namespace Nex
