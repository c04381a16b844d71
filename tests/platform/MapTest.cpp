// The collections against a plain model, at every size and with walks that are changed from inside;
// and what their hashes withstand.
#include "Nex/LinkedSet.h"
#include "TestRecords.h"

#include <gtest/gtest.h>
#include <list>
#include <map>
#include <random>

namespace Nex {
namespace {

using Lox::IpAddr;

/// Counts its living instances.
struct Counted : PtrInterface {
    explicit Counted(int number) : value(number) { ++alive; }
    ~Counted() override { --alive; }
    int value;
    static inline int alive = 0;
};

// Keys and values by number. Kinds of keys: neighbours, which wrap around; multiples of powers of
// two, which meet in an index of neighbours; runs that begin where the index begins anew; scattered
// numbers; and texts, which are not moved by their bytes.
IpAddr neighbour(std::uint32_t n) { return IpAddr::fromHost(0xEFFFFFF0u + n); }
IpAddr backwards(std::uint32_t n) { return neighbour(~n); }
template <unsigned shift>
IpAddr stride(std::uint32_t n) {
    return IpAddr::fromHost(n << shift);
}
IpAddr runs(std::uint32_t n) { return IpAddr::fromHost(n / 20 << 17 | n % 20); }
IpAddr scattered(std::uint32_t n) { return IpAddr::fromHost(n * 2654435761u); }
String text(std::uint32_t n) {
    return "a key that does not fit into the string " + std::to_string(n);
}
std::uint8_t octet(std::uint32_t n) { return std::uint8_t(n); }
Ptr<Counted> object(std::uint32_t n) { return newObject<Counted>(int(n)); }
Nothing nothing(std::uint32_t) { return {}; }

/// Whether a collection is walked in the order of its keys, newcomers included.
template <class Collection>
constexpr bool sorted = false;
template <class Key, class Value>
constexpr bool sorted<SortedMap<Key, Value>> = true;

template <class Collection_, auto keyOf_, auto valueOf_>
struct Kind {
    using Collection = Collection_;
    static auto key(std::uint32_t n) { return keyOf_(n); }
    static auto value(std::uint32_t n) { return valueOf_(n); }
};

/// The same operations on the collection and on a map that knows the order of insertion.
template <class K>
class Compared {
  public:
    explicit Compared(unsigned seed) : random_(seed) {}

    using Key = decltype(K::key(0));
    using Value = decltype(K::value(0));

    void insert(std::uint32_t key, std::uint32_t value) {
        auto const [slot, fresh] = collection_.findOrInsert(K::key(key));
        auto const [known, isNew] = model_.try_emplace(K::key(key));
        ASSERT_EQ(fresh, isNew);
        ASSERT_EQ(*slot, known->second.value);
        if (isNew) known->second.insertion = ++insertions_;
        *slot = known->second.value = K::value(value);
    }
    void take(std::uint32_t key) {
        auto const known = model_.extract(K::key(key));
        ASSERT_EQ(collection_.take(K::key(key)), known ? known.mapped().value : Value());
    }
    void look(std::uint32_t key) const {
        auto const known = model_.find(K::key(key));
        auto const* const found = collection_.find(K::key(key));
        ASSERT_EQ(bool(found), known != model_.end());
        ASSERT_EQ(collection_.has(K::key(key)), bool(found));
        if (found) {
            ASSERT_EQ(*found, known->second.value);
        }
        ASSERT_EQ(collection_.size(), model_.size());
        ASSERT_EQ(collection_.empty(), model_.empty());
    }
    /// Takes a walk, and calls `disturb` before it begins and at each entry, until it returns
    /// false. What stays throughout comes once and in order, with its present value; nothing else
    /// comes, unless it came meanwhile and the order is that of the keys.
    template <class Disturb>
    void walk(Disturb disturb) {
        constexpr bool byKey = sorted<typename K::Collection>;
        std::vector<std::pair<unsigned, Key>> before;
        for (auto const& [key, entry] : model_) before.emplace_back(entry.insertion, key);
        if (!byKey) std::sort(before.begin(), before.end());
        unsigned const insertionsBefore = insertions_;
        auto const keys = sortedKeys(collection_.walk());
        ASSERT_TRUE(std::is_sorted(keys.begin(), keys.end()));
        auto walk = collection_.walk();
        disturb();
        auto next = before.begin();
        auto const skipGone = [&] {
            auto const stayed = [&](auto const& entry) {
                auto const now = model_.find(entry.second);
                return now != model_.end() && now->second.insertion == entry.first;
            };
            while (next != before.end() && !stayed(*next)) ++next;
        };
        std::optional<Key> last;
        for (auto const& yielded : walk) {
            Key const key = keyOf(yielded);
            auto const now = model_.find(key);
            ASSERT_NE(now, model_.end());
            if constexpr (!std::is_same_v<Value, Nothing>) {
                ASSERT_EQ(yielded.value, now->second.value);
            }
            skipGone();
            if (next != before.end() && key == next->second)
                ++next;
            else
                ASSERT_TRUE(byKey && now->second.insertion > insertionsBefore);
            ASSERT_TRUE(!byKey || !last || *last < key);
            last = key;
            if (!disturb() || testing::Test::HasFailure()) return;
            ASSERT_EQ(keyOf(yielded), key) << "whatever has become of the entry";
        }
        skipGone();
        ASSERT_EQ(next, before.end());
    }

    /// Does anything with a key of so many.
    void disturb(std::uint32_t keys, int depth) {
        // A sorted walk goes on to what comes meanwhile: nested deeper, walks would hardly end.
        int const deepest = sorted<typename K::Collection> ? 0 : 2;
        std::uint32_t const key = draw(keys);
        std::uint32_t const what = draw(depth > deepest ? 8 : 10);
        if (what < 4) {
            insert(key, draw(256));
        } else if (what < 8) {
            take(key);
            if (what == 4) insert(key, 0);
        } else {
            walk([&] {
                for (std::uint32_t n = draw(4); n > 0; --n) disturb(keys, depth + 1);
                return draw(30) > 0;
            });
        }
        look(key);
    }

  private:
    std::uint32_t draw(std::uint32_t count) { return std::uint32_t(random_()) % count; }

    struct Entry {
        Value value{};
        unsigned insertion = 0;
    };
    typename K::Collection collection_;
    std::map<Key, Entry> model_;
    unsigned insertions_ = 0;
    std::mt19937 random_;
};

template <class>
using MapModelTest = testing::Test;
using Octets = Map<IpAddr, std::uint8_t>;
using Kinds =
    testing::Types<Kind<Octets, neighbour, octet>, Kind<Octets, backwards, octet>,
                   Kind<Octets, stride<8>, octet>, Kind<Octets, runs, octet>,
                   Kind<Map<IpAddr, Ptr<Counted>>, stride<16>, object>,
                   Kind<Map<String, Ptr<Counted>>, text, object>, Kind<Set<String>, text, nothing>,
                   Kind<SmallMap<IpAddr, std::uint8_t, 4>, stride<24>, octet>,
                   Kind<SmallSet<IpAddr>, neighbour, nothing>,
                   Kind<SortedMap<IpAddr, std::uint8_t>, neighbour, octet>,
                   Kind<SortedMap<IpAddr, std::uint8_t>, scattered, octet>>;
TYPED_TEST_SUITE(MapModelTest, Kinds);
static_assert(sizeof(SmallSet<IpAddr>) == 20, "few entries lie inside");

TYPED_TEST(MapModelTest, AgreesThroughEveryHistory) {
    for (unsigned seed = 0; seed < 50 && !this->HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        bool const isLarge = seed % 16 == 15; // fills, and drains from either side
        std::uint32_t const filled = isLarge ? 6000 : 0;
        std::uint32_t const keys = isLarge ? filled : std::array{3u, 7u, 12u, 60u}[seed % 4];
        Compared<TypeParam> compared(seed);
        for (std::uint32_t key = 0; key < filled; ++key) compared.insert(key, key);
        for (std::uint32_t changes = 3 * seed; changes > 0 && !this->HasFailure(); --changes)
            compared.disturb(keys, isLarge ? 2 : 0);
        compared.walk([] { return true; });
        for (std::uint32_t key = 0; key < filled; ++key) {
            compared.take(seed % 32 == 15 ? key : filled - key);
            compared.look(key);
            if (key % 1000 == 999) compared.walk([] { return true; });
        }
    }
    EXPECT_EQ(Counted::alive, 0);
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

using Numbers = std::vector<std::uint64_t>;
/// Steps for each key to insert the keys.
template <class Key>
std::uint64_t stepsPerKey(Numbers const& numbers) {
    Key::hashed = 0;
    Set<Key> keys;
    for (std::uint64_t const number : numbers) keys.findOrInsert({number});
    return Key::hashed / numbers.size();
}
std::uint64_t mostSteps(Numbers const& numbers) {
    return std::max(stepsPerKey<Chosen<true>>(numbers), stepsPerKey<Chosen<false>>(numbers));
}

TEST(HashSecretTest, NeitherRunsOfKeysNorThoseChosenForAnotherSecretTakeManySteps) {
    std::mt19937_64 random(1);
    std::uint64_t const group = std::uint64_t(1) << 32; // of a route
    for (int i = 0; i < 50; ++i) {
        HashSecrets::secretIs({random(), random(), random()});
        for (std::uint64_t const step : Numbers{1, 7, 1 << 16, group, group + 1}) {
            Numbers run{0xEF0000000A000000};
            while (run.size() < 1024) run.push_back(run.back() + step);
            ASSERT_LT(mostSteps(run), 16u) << i << ", " << step;
        }
    }
    HashSecret const known{0x9E3779B97F4A7C15, 0xC2B2AE3D27D4EB4F, 0x165667B19E3779F9};
    Numbers chosen; // by their numbers as by their hashes
    for (std::uint64_t number = 0; chosen.size() < 512; number += 1 << 16)
        if ((known(number) & 0xFFF) == 0) chosen.push_back(number);
    HashSecrets::secretIs(known);
    EXPECT_GT(mostSteps(chosen), 100u);
    HashSecrets::secretIs({known.high, known.low, known.sum});
    EXPECT_LT(mostSteps(chosen), 16u);
    HashSecrets::secretIs(HashSecret::drawn());
}

TEST(MapTest, ASmallOneKeepsItsEntriesAsItIsMoved) {
    SmallSet<IpAddr> from;
    from.findOrInsert(neighbour(1));
    SmallSet<IpAddr> const to(std::move(from));
    EXPECT_TRUE(to.has(neighbour(1)));
    EXPECT_EQ(to.size(), 1u);
}

TEST(LinkedSetTest, KeepsTheOrderOfInsertionAndNeverDoesMuchAtOnce) {
    using Key = Chosen<false>;
    LinkedSet<Key> set;
    std::list<std::uint32_t> model;
    std::mt19937 random;
    std::uint32_t next = 0; // was never in
    auto const step = [&](bool grows) {
        std::uint32_t const what = random() % 8;
        if (model.empty() || (grows ? what < 6 : what == 0)) {
            set.insert({next});
            model.push_back(next);
            set.insert({random() % 2 ? next : model.front()}); // there already
            next += 977;
        } else if (what == 6) {
            set.insert({model.front()}); // there already
            set.toBack(set.front());
            model.splice(model.end(), model, model.begin());
        } else { // the first, or one from the midst
            auto const at = std::next(model.begin(), what == 7 && model.size() > 1);
            ASSERT_EQ(set.front().number, model.front());
            set.take({*at});
            set.take({next});
            set.toBack({next});
            model.erase(at);
        }
        ASSERT_EQ(set.empty(), model.empty());
        if (random() % 8 == 0) {
            ASSERT_EQ(set.size(), model.size());
        }
    };
    for (std::uint32_t const most : {1u, 9u, 50000u, 3u, 1000u})
        for (bool const grows : {true, false}) {
            while ((grows ? model.size() < most : model.size() > most / 100) && !HasFailure()) {
                std::uint64_t const before = Key::hashed;
                step(grows);
                EXPECT_LT(Key::hashed - before, 100u) << set.size();
            }
            for (std::uint32_t const n : model) ASSERT_TRUE(set.has({n}));
        }
    set.insert({next});
    set.clear();
    EXPECT_TRUE(set.empty() && !set.has({next}));
    for (std::uint32_t n = 0; n < 100; ++n) set.insert({n});
    EXPECT_EQ(set.size(), 100u);
}

} // namespace
} // namespace Nex
