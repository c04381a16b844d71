// The collections at every size, their walks, and what their hashes withstand.
#include "MapKeys.h"
#include "Nex/LinkedSet.h"

#include <gtest/gtest.h>
#include <list>
#include <random>
#include <unordered_map>

namespace Nex {
namespace {

using Lox::IpAddr;

template <class Collection, class KeyOf>
void fillChurnAndDrain(KeyOf keyOf, std::uint32_t count) {
    Collection map;
    std::unordered_map<std::uint32_t, std::uint32_t> model;
    auto const put = [&](std::uint32_t n, std::uint32_t value) {
        *map.findOrInsert(keyOf(n)).first = value;
        model[n] = value;
    };
    for (std::uint32_t n = 0; n < count; ++n) put(n, n);
    for (std::uint32_t n = 0; n < count; n += 3) { // delete and re-add
        EXPECT_EQ(map.take(keyOf(n)), n);
        if (n % 2 == 0) {
            put(n, n + 1);
        } else {
            model.erase(n);
        }
    }
    auto const agree = [&] {
        ASSERT_EQ(map.size(), model.size());
        for (std::uint32_t n = 0; n < count; ++n) {
            auto const* const found = map.find(keyOf(n));
            auto const expected = model.find(n);
            ASSERT_EQ(bool(found), expected != model.end()) << n;
            ASSERT_EQ(found ? *found : 0, found ? expected->second : 0) << n;
        }
        ASSERT_FALSE(map.has(keyOf(count + 7)));
    };
    agree();
    // From inside a walk: the front drains, the back grows past the room there is.
    std::uint32_t walked = 0, grown = count + 8;
    for (auto const& item : map.walk()) {
        ++walked;
        if (item.value % 8 != 0) map.take(item.key);
        if (item.value % 2 == 0) *map.findOrInsert(keyOf(grown++)).first = 8;
    }
    EXPECT_EQ(walked, model.size());
    std::erase_if(model, [](auto const& entry) { return entry.second % 8 != 0; });
    for (std::uint32_t n = count + 8; n < grown; ++n) {
        ASSERT_NE(map.find(keyOf(n)), nullptr) << n;
        EXPECT_EQ(map.take(keyOf(n)), 8u);
    }
    agree();
}

TEST(MapScale, OneToAHundredThousandEntriesOfEveryPattern) {
    using Numbers = Map<IpAddr, std::uint32_t>;
    for (std::uint32_t count : {1u, 4u, 8u, 9u, 16u, 17u, 1000u, 100000u}) {
        SCOPED_TRACE(count);
        fillChurnAndDrain<Numbers>(neighbour, count);
        fillChurnAndDrain<Numbers>([](std::uint32_t n) { return neighbour(~n); }, count);
        fillChurnAndDrain<Numbers>(stride<8>, count);
        fillChurnAndDrain<Numbers>(stride<14>, count);
        fillChurnAndDrain<Numbers>(scattered, count);
        // Runs that begin where the index begins anew.
        auto const runs = [](std::uint32_t n) { return IpAddr::fromHost(n / 20 << 17 | n % 20); };
        fillChurnAndDrain<Numbers>(runs, count);
    }
    fillChurnAndDrain<Map<String, std::uint32_t>>(text, 20000);
    fillChurnAndDrain<SmallMap<IpAddr, std::uint32_t, 4>>(stride<14>, 20000);
}

TEST(MapWalk, ThatIsLeftEarlyLeavesNothingBehind) {
    Map<int, Ptr<Counted>> map;
    for (int n = 0; n < 20; ++n) *map.findOrInsert(n).first = newObject<Counted>(n);
    for (auto const& item : map.walk())
        if (item.key == 3) break;
    try {
        for (auto const& item : map.walk())
            if (item.key == 4) throw 0;
    } catch (int) {
    }
    for (int n = 0; n < 19; ++n) map.take(n);
    EXPECT_EQ(Counted::alive, 1);
    std::vector<int> left;
    for (auto const& item : map.walk()) left.push_back(item.value->value);
    EXPECT_EQ(left, std::vector{19});
}

/// Cannot be hashed now and then.
struct Moody {
    std::uint64_t number;
    std::uint64_t nexHashNumber() const { return throws ? throw std::runtime_error("") : number; }
    friend bool operator==(Moody, Moody) = default;
    static inline bool throws = false;
};

TEST(MapWalk, ThatEndsWithAnErrorAmongTheKeysLeavesThemToBeFound) {
    Set<Moody> set;
    for (std::uint64_t n = 0; n < 64; ++n) set.findOrInsert({n});
    for (Moody const key : set.walk()) {
        if (key.number < 54) set.take(key);
        Moody::throws = key.number == 63; // as the holes are closed
    }
    Moody::throws = false;
    for (std::uint64_t n = 0; n < 64; ++n) EXPECT_EQ(set.has({n}), n >= 54);
    for (std::uint64_t n = 0; n < 64; ++n) set.findOrInsert({n});
    EXPECT_EQ(set.size(), 64u);
}

TEST(MapWalk, YieldsWhatACallbackMayTakeAway) {
    Map<String, Ptr<Counted>> map;
    for (int n = 0; n < 10; ++n)
        *map.findOrInsert("a key longer than a string holds inside " + textOf(n)).first =
            newObject<Counted>(n);
    int sum = 0;
    for (auto const& item : map.walk()) {
        for (auto const& other : map.walk()) map.take(other.key);
        for (int n = 0; n < 100; ++n) *map.findOrInsert(textOf(n)).first = nullptr;
        sum += item.value->value + int(item.key.size());
    }
    EXPECT_EQ(sum, 41);
    EXPECT_EQ(Counted::alive, 0);
}

TEST(SmallMapSize, HoldsFewEntriesInsideAndMovesWithThem) {
    static_assert(sizeof(SmallSet<IpAddr>) == 24);
    Map<IpAddr, SmallSet<IpAddr>> groups; // grows, and so moves its small sets about
    for (std::uint32_t group = 0; group < 300; ++group)
        for (std::uint32_t source = 0; source < group % 8; ++source)
            groups.findOrInsert(scattered(group)).first->findOrInsert(neighbour(source));
    for (std::uint32_t group = 1; group < 300; ++group) {
        auto const* const sources = groups.find(scattered(group));
        ASSERT_EQ(sources ? sources->size() : 0, group % 8);
        for (std::uint32_t source = 0; source < group % 8; ++source)
            EXPECT_TRUE(sources->has(neighbour(source)));
    }
}

/// Counts how often keys are hashed: the steps that a collection takes.
template <bool neighbours>
struct Chosen {
    std::uint64_t number;
    std::uint64_t host() const requires neighbours { return number; }
    std::uint64_t nexHashNumber() const {
        ++hashed;
        return number;
    }
    friend bool operator==(Chosen, Chosen) = default;
    static inline std::uint64_t hashed = 0;
};

class HashSecretTest : public testing::Test {
  protected:
    ~HashSecretTest() override { HashSecrets::secretIs(HashSecret::drawn()); }
    using Numbers = std::vector<std::uint64_t>;
    static Numbers run(std::uint64_t first, std::uint64_t step) {
        Numbers numbers(1024);
        for (auto& number : numbers) number = std::exchange(first, first + step);
        return numbers;
    }
    /// Steps for each key to insert the keys.
    template <class Key, class Collection>
    static std::uint64_t stepsPerKey(Numbers const& numbers) {
        std::uint64_t const start = Key::hashed;
        Collection collection;
        for (std::uint64_t const number : numbers) {
            if constexpr (requires { collection.insert({}); }) {
                collection.insert({number});
            } else {
                collection.findOrInsert({number});
            }
        }
        return (Key::hashed - start) / numbers.size();
    }
    /// In whichever collection takes the most.
    static std::uint64_t mostSteps(Numbers const& numbers) {
        return std::max({stepsPerKey<Chosen<true>, Set<Chosen<true>>>(numbers),
                         stepsPerKey<Chosen<false>, Set<Chosen<false>>>(numbers),
                         stepsPerKey<Chosen<false>, LinkedSet<Chosen<false>>>(numbers)});
    }
    static constexpr HashSecret known{0x9E3779B97F4A7C15, 0xC2B2AE3D27D4EB4F, 0x165667B19E3779F9};
};

TEST_F(HashSecretTest, NoneIsBadForRunsOfKeys) {
    std::mt19937_64 random(1);
    std::uint64_t const group = std::uint64_t(1) << 32; // of a route
    for (int i = 0; i < 200; ++i) {
        HashSecrets::secretIs({random(), random(), random()});
        for (std::uint64_t const step : Numbers{1, 7, 1 << 16, group, group + 1})
            ASSERT_LT(mostSteps(run(0xEF0000000A000000, step)), 16u) << i << ", " << step;
    }
}

TEST_F(HashSecretTest, KeysThatWereChosenForOneAreHarmlessUnderAnother) {
    Numbers chosen; // by their numbers as by their hashes
    for (std::uint64_t number = 0; chosen.size() < 512; number += 1 << 16)
        if ((known(number) & 0xFFF) == 0) chosen.push_back(number);
    HashSecrets::secretIs(known);
    EXPECT_GT(mostSteps(chosen), 100u);
    HashSecrets::secretIs({known.high, known.low, known.sum});
    EXPECT_LT(mostSteps(chosen), 16u);
}

// Entries that have moved on by one slot each are no pile, but move all at once.
TEST_F(HashSecretTest, ARunOfNeighboursIsNotPushedOnAgainAndAgain) {
    HashSecrets::secretIs(known);
    constexpr std::uint32_t run = 60000;
    Set<Chosen<true>> set;
    for (std::uint32_t n = 0; n < run; ++n) set.findOrInsert({n});
    std::uint64_t const start = Chosen<true>::hashed;
    for (std::uint32_t n = 1; n <= 100; ++n) {
        set.findOrInsert({n << 20});
        set.take({n << 20});
    }
    EXPECT_LT(Chosen<true>::hashed - start, 10 * run);
}

TEST(LinkedSetTest, KeepsTheOrderOfInsertionAndNeverDoesMuchAtOnce) {
    using Key = Chosen<false>;
    LinkedSet<Key> set;
    std::list<std::uint32_t> model;
    std::uint64_t before = 0;
    auto const changed = [&] {
        EXPECT_LT(Key::hashed - before, 100u) << set.size();
        before = Key::hashed;
    };
    std::uint32_t next = 0;
    for (std::uint32_t const most : {1u, 9u, 50000u, 3u, 1000u}) {
        before = Key::hashed;
        while (model.size() < most) {
            set.insert({next * 977});
            model.push_back(next++);
            changed();
            set.insert({model.front() * 977}); // there already
            changed();
            if (next % 5 == 0) {
                set.toBack({model.front() * 977});
                model.splice(model.end(), model, model.begin());
                changed();
            }
        }
        ASSERT_EQ(set.size(), model.size());
        for (std::uint32_t const n : model) ASSERT_TRUE(set.has({n * 977}));
        before = Key::hashed;
        while (model.size() > most / 100) {
            if (next++ % 7 == 0) { // one from the midst; `next` was never in
                auto const second = std::next(model.begin(), model.size() > 1);
                set.take({*second * 977});
                set.take({next * 977});
                model.erase(second);
            } else {
                ASSERT_EQ(set.front().number, model.front() * 977);
                set.take(set.front());
                model.pop_front();
            }
            changed();
        }
        EXPECT_EQ(set.empty(), model.empty());
    }
    set.clear();
    EXPECT_FALSE(set.has({(next - 1) * 977}));
    set.insert({1});
    EXPECT_EQ(set.size(), 1u);
}

} // namespace
} // namespace Nex
