// The collections against a naive model, with walks that are changed from inside.
#include "Lox/IpAddr.h"
#include "TestRecords.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>
#include <unordered_map>

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

/// Keys and values by number. Kinds of keys: neighbours, multiples of powers of two, which meet in
/// an index of neighbours, scattered numbers, and texts, which are not moved by their bytes.
IpAddr neighbour(std::uint32_t n) { return IpAddr::fromHost(0xEFFFFFF0u + n); } // wraps around
template <unsigned shift>
IpAddr stride(std::uint32_t n) {
    return IpAddr::fromHost(n << shift);
}
IpAddr scattered(std::uint32_t n) { return IpAddr::fromHost(n * 2654435761u); }
String text(std::uint32_t n) { return "a key that does not fit into the string " + textOf(n); }
std::uint8_t octet(std::uint32_t n) { return std::uint8_t(n); }
Ptr<Counted> object(std::uint32_t n) { return newObject<Counted>(int(n)); }
Nothing nothing(std::uint32_t) { return {}; }

/// How many entries a collection holds inside itself.
template <class Collection>
constexpr std::size_t inlineEntries = 0;
template <class Key, class Value, std::size_t N>
constexpr std::size_t inlineEntries<SmallMap<Key, Value, N>> = N;

template <class Collection_, auto keyOf_, auto valueOf_>
struct Kind {
    using Collection = Collection_;
    static auto key(std::uint32_t n) { return keyOf_(n); }
    static auto value(std::uint32_t n) { return valueOf_(n); }
    using Key = decltype(key(0));
    using Value = decltype(value(0));
};

/// The same operations on the collection and on a list in the order of insertion.
template <class K>
class Compared {
  public:
    using Key = typename K::Key;
    using Value = typename K::Value;

    void insert(Key const& key, Value const& value) {
        auto const [slot, fresh] = collection_.findOrInsert(key);
        auto* const known = entry(key);
        RC_ASSERT(fresh == !known);
        if (!known) {
            RC_ASSERT(*slot == Value());
            model_.push_back({key, value, ++insertions_});
            most_ = std::max(most_, model_.size());
        } else {
            RC_ASSERT(*slot == known->value);
            known->value = value;
        }
        *slot = value;
    }
    void take(Key const& key) {
        auto* const known = entry(key);
        RC_ASSERT(collection_.take(key) == (known ? known->value : Value()));
        std::erase_if(model_, [&](Entry const& e) { return e.key == key; });
    }
    void look(Key const& key) const {
        auto const* const known = const_cast<Compared*>(this)->entry(key);
        auto const* const found = collection_.find(key);
        RC_ASSERT(collection_.has(key) == bool(known));
        RC_ASSERT(bool(found) == bool(known));
        if (found) RC_ASSERT(*found == known->value);
        RC_ASSERT(collection_.size() == model_.size());
        RC_ASSERT(collection_.empty() == model_.empty());
    }
    /// Walks, and calls `disturb` at each entry: what stayed throughout comes once and in order
    /// with its present value; what went, or came meanwhile, does not. A small collection takes a
    /// key that went and came back for one that stayed.
    template <class Disturb>
    void walk(Disturb disturb) {
        bool const small = most_ <= inlineEntries<typename K::Collection>;
        auto const before = model_;
        auto next = before.begin();
        auto const skipGone = [&] {
            auto const stayed = [&](Entry const& e) {
                Entry const* const now = entry(e.key);
                return now && (small || now->insertion == e.insertion);
            };
            while (next != before.end() && !stayed(*next)) ++next;
        };
        for (auto const& yielded : collection_.walk()) {
            skipGone();
            RC_ASSERT(next != before.end());
            if constexpr (std::is_same_v<Value, Nothing>) {
                RC_ASSERT(yielded == next->key);
            } else {
                RC_ASSERT(yielded.key == next->key);
                RC_ASSERT(yielded.value == entry(next->key)->value);
            }
            ++next;
            disturb();
        }
        skipGone();
        RC_ASSERT(next == before.end());
    }

  private:
    struct Entry {
        Key key;
        Value value;
        unsigned insertion;
    };
    Entry* entry(Key const& key) {
        auto const at = std::find_if(model_.begin(), model_.end(),
                                     [&](Entry const& e) { return e.key == key; });
        return at == model_.end() ? nullptr : &*at;
    }

    typename K::Collection collection_;
    std::vector<Entry> model_;
    unsigned insertions_ = 0;
    std::size_t most_ = 1;
};

template <class K>
class MapTest : public testing::Test {};
using Kinds =
    testing::Types<Kind<Map<IpAddr, std::uint8_t>, neighbour, octet>,
                   Kind<Map<IpAddr, Ptr<Counted>>, stride<16>, object>,
                   Kind<Map<String, Ptr<Counted>>, text, object>, Kind<Set<String>, text, nothing>,
                   Kind<SmallMap<IpAddr, std::uint8_t, 4>, stride<24>, octet>,
                   Kind<SmallSet<IpAddr>, neighbour, nothing>>;
TYPED_TEST_SUITE(MapTest, Kinds);

template <class K>
void disturb(Compared<K>& compared, std::uint32_t keys, int depth) {
    int const what = *rc::gen::inRange(0, depth > 2 ? 8 : 10);
    auto const key = K::key(*rc::gen::inRange(0u, keys));
    if (what < 4) {
        compared.insert(key, K::value(*rc::gen::inRange(0u, 256u)));
    } else if (what < 8) {
        compared.take(key);
    } else {
        compared.walk([&] {
            for (int i = *rc::gen::inRange(0, 4); i > 0; --i) disturb(compared, keys, depth + 1);
        });
    }
    compared.look(key);
}

TYPED_TEST(MapTest, AgreesWithAListThroughEveryChange) {
    EXPECT_TRUE(rc::check("random changes, also from inside walks", [] {
        {
            Compared<TypeParam> compared;
            std::uint32_t const keys = *rc::gen::element(3u, 7u, 12u, 60u);
            int const changes = *rc::gen::inRange(0, 200);
            for (int i = 0; i < changes; ++i) disturb(compared, keys, 0);
            compared.walk([] {});
        }
        RC_ASSERT(Counted::alive == 0);
    }));
}

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

} // namespace
} // namespace Nex
