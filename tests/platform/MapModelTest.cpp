// The collections against a naive model, with walks that are changed from inside.
#include "MapKeys.h"

#include <gtest/gtest.h>
#include <list>
#include <rapidcheck/gtest.h>

namespace Nex {
namespace {

using Lox::IpAddr;

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
            auto const place = std::find_if(model_.begin(), model_.end(), [&](Entry const& e) {
                return sorted<typename K::Collection> && key < e.key;
            });
            model_.insert(place, {key, value, ++insertions_});
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
    /// Takes a walk, and calls `disturb` before it begins and at each entry. What stays throughout
    /// comes once and in order, with its present value; nothing else comes, unless it came
    /// meanwhile and the order is that of the keys.
    template <class Disturb>
    void walk(Disturb disturb) {
        auto const before = model_;
        unsigned const insertionsBefore = insertions_;
        auto walk = collection_.walk();
        disturb();
        auto next = before.begin();
        auto const skipGone = [&] {
            auto const stayed = [&](Entry const& e) {
                Entry const* const now = entry(e.key);
                return now && now->insertion == e.insertion;
            };
            while (next != before.end() && !stayed(*next)) ++next;
        };
        std::optional<Key> last;
        for (auto const& yielded : walk) {
            Key const key = keyOf(yielded);
            Entry const* const now = entry(key);
            RC_ASSERT(now);
            if constexpr (!std::is_same_v<Value, Nothing>) RC_ASSERT(yielded.value == now->value);
            skipGone();
            if (next != before.end() && key == next->key) {
                ++next;
            } else {
                RC_ASSERT(sorted<typename K::Collection> && now->insertion > insertionsBefore);
            }
            if (sorted<typename K::Collection>) RC_ASSERT(!last || *last < key);
            last = key;
            disturb();
            RC_ASSERT(keyOf(yielded) == key); // whatever has become of the entry
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
};

template <class K>
class MapTest : public testing::Test {};
using Kinds =
    testing::Types<Kind<Map<IpAddr, std::uint8_t>, neighbour, octet>,
                   Kind<Map<IpAddr, Ptr<Counted>>, stride<16>, object>,
                   Kind<Map<String, Ptr<Counted>>, text, object>, Kind<Set<String>, text, nothing>,
                   Kind<SmallMap<IpAddr, std::uint8_t, 4>, stride<24>, octet>,
                   Kind<SmallSet<IpAddr>, neighbour, nothing>,
                   Kind<SortedMap<IpAddr, std::uint8_t>, scattered, octet>>;
TYPED_TEST_SUITE(MapTest, Kinds);

template <class K>
void disturb(Compared<K>& compared, std::uint32_t keys, int depth) {
    // A sorted walk goes on to what comes meanwhile: nested deeper, walks would hardly end.
    int const deepest = sorted<typename K::Collection> ? 0 : 2;
    int const what = *rc::gen::inRange(0, depth > deepest ? 8 : 10);
    auto const key = K::key(*rc::gen::inRange(0u, keys));
    if (what < 4) {
        compared.insert(key, K::value(*rc::gen::inRange(0u, 256u)));
    } else if (what < 8) {
        compared.take(key);
        if (what == 4) compared.insert(key, K::value(0));
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

} // namespace
} // namespace Nex
