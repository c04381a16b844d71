// The collections of the framework.
//
// A walk over any of them is repeatable and tolerates every change, from the moment that it is
// taken: an entry that stays throughout is visited once and in order, one that is gone is not
// visited, and no key is visited twice. One that comes meanwhile, be it back, may be visited: here
// it never is, in a `SortedMap` where its place is still ahead. No collection may be destroyed
// while it is walked; a record is held by the walks over its collections.
//
// `Map` keeps its entries in one array in the order of insertion and finds them through an open
// addressing index of 32-bit positions beside it. A removal leaves a hole; holes are closed when
// nobody walks.
//
// `SmallMap` holds its first entries inside itself, in the same way, and becomes a `Map` beyond
// that; most groups have no more than a few sources.
//
// A `Set` of either kind is a map to `Nothing`.
//
// What a lookup returns is lent until the next change: whatever calls out between the two, by a
// notification or the end of an object, may make that change. What a walk yields is the walker's
// own copy. Nothing here is locked, and reading counts as changing: a walk keeps count of itself.
#pragma once

#include "Nex/Hash.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

namespace Nex {

template <class T>
class Ptr;

/// The value of a set's entries.
struct Nothing {
    friend constexpr bool operator==(Nothing, Nothing) = default;
};

/// Whether a value may be moved to another address by copying its bytes. A type that keeps no
/// address of itself anywhere says so by a specialisation. Such entries move by `realloc`; others
/// one by one, which must throw nothing.
template <class T>
inline constexpr bool isRelocatable = std::is_trivially_copyable_v<T>;
template <class T>
inline constexpr bool isRelocatable<Ptr<T>> = true;
template <class Key, class Value, std::size_t N>
class SmallMap;
template <class Key, class Value, std::size_t N>
inline constexpr bool isRelocatable<SmallMap<Key, Value, N>> = true;

/// Whether the low bits of a key's number make neighbours of neighbouring keys. Such a map starts
/// out with neighbours in neighbouring slots, which is what runs of addresses want, and hashes its
/// keys only once they pile up. A key type that is no address itself says so.
template <class Key>
inline constexpr bool hashKeepsNeighbours = requires(Key const& key) {
    key.host();
}
|| std::is_integral_v<Key> || requires { typename Key::NexNeighbours; };

template <class Key, class Value>
struct Item {
    Key key;
    [[no_unique_address]] Value value;
};

/// What a walk yields: an item, or a set's bare key. Copies, so nothing that a callback does can
/// take them away.
template <class Key, class Value>
using Yielded = std::conditional_t<std::is_same_v<Value, Nothing>, Key, Item<Key, Value>>;
template <class Key, class Value, class From>
Yielded<Key, Value> yield(From const& entry) {
    if constexpr (std::is_same_v<Value, Nothing>)
        return entry.key;
    else
        return {entry.key, entry.value};
}

/// A range over a cursor, an object with `std::optional<T> next()`. Walk it once: a second `begin`
/// goes on where the first one stopped. Walks are made by their collection and stay where they are;
/// a loop that is left early ends its walk. An iterator is good as long as its walk, and what it
/// shows until it moves on.
template <class Cursor>
class Walk {
  public:
    /// With the arguments of the cursor.
    template <class... Args>
    explicit Walk(Args&&... args) : cursor_(std::forward<Args>(args)...) {}

    class Iterator {
      public:
        using value_type = std::remove_cvref_t<decltype(*std::declval<Cursor&>().next())>;
        using difference_type = std::ptrdiff_t;

        explicit Iterator(Cursor* cursor) : cursor_(cursor), item_(cursor->next()) {}
        value_type const& operator*() const { return *item_; }
        Iterator& operator++() {
            item_ = cursor_->next();
            return *this;
        }
        void operator++(int) { ++*this; }
        friend bool operator==(Iterator const& i, std::default_sentinel_t) { return !i.item_; }

      private:
        Cursor* cursor_;
        std::optional<value_type> item_;
    };

    Iterator begin() { return Iterator(&cursor_); }
    std::default_sentinel_t end() const { return {}; }
    /// Of the collection as it is now, not of what is left to be walked.
    std::size_t size() const { return cursor_.size(); }
    bool empty() const { return size() == 0; }

  private:
    Cursor cursor_;
};

/// Neither copied nor moved. A key is hashed by `hashNumber` and compared by `==`; of an entry it
/// never changes. An entry takes its key, its value and a mark in an array that grows ahead of
/// them, beyond eight of them two more numbers of 32 bits for each place of the array.
///
/// As the map goes its values end in the order of insertion, and nobody may look at it meanwhile:
/// an owner whose values bring something about takes them out first.
template <class Key, class Value>
class Map {
  public:
    Map() = default;
    Map(Map const&) = delete;
    Map& operator=(Map const&) = delete;
    ~Map() {
        for (Position at = 0; at < used_; ++at)
            if (entries_[at].live) destroy(entries_[at]);
        std::free(entries_);
        std::free(index_);
    }

    /// Entries; holes do not count.
    std::size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    bool has(Key const& key) const { return positionOf(key) != none; }

    /// The value of `key`, or null. Valid until the map is changed or a walk over it ends.
    Value* find(Key const& key) {
        Position const at = positionOf(key);
        return at == none ? nullptr : &entries_[at].value;
    }
    Value const* find(Key const& key) const { return const_cast<Map*>(this)->find(key); }

    /// The value of `key`, made by default where there was none, and whether it was made. Valid
    /// until the map is changed or a walk over it ends. Throws std::bad_alloc, also beyond 2^31
    /// entries, and what hashing throws; the map then holds what it held. Constant time but for the
    /// insertions that need more room: those move all entries.
    std::pair<Value*, bool> findOrInsert(Key const& key) {
        Probe const probe = probeFor(key);
        if (probe.at != none) return {&entries_[probe.at].value, false};
        if (used_ == capacity_) [[unlikely]]
            return {&makeRoomAndAdd(key), true};
        return {&add(key, probe), true};
    }

    /// Removes `key` and returns its value, or a default value where there was none. Needs no
    /// memory. `key` may be the one in the entry. The map is whole by the time that the value ends,
    /// in the hand of the caller: that may run anything. Constant time but for the removals that
    /// leave the array three quarters empty: those move what is left.
    Value take(Key const& key) {
        Probe const probe = probeFor(key);
        if (probe.at == none) return Value();
        if (index_) removeFromIndex(probe.slot);
        Value value = std::move(entries_[probe.at].value);
        destroy(entries_[probe.at]);
        --count_;
        if (walkers_ == 0) closeHoles();
        return value;
    }

    /// Yields the entries, their values as `As`. While it is there, holes stay and so do positions:
    /// a map that is walked for long while entries come and go takes room for all of them. Whoever
    /// works on a map for longer than a moment takes keys off a `LinkedSet` instead.
    template <class As>
    class Cursor {
      public:
        explicit Cursor(Map const& map) : map_(&map), end_(map.used_) { ++map_->walkers_; }
        Cursor(Cursor const&) = delete;
        Cursor& operator=(Cursor const&) = delete;
        ~Cursor() { map_->endWalk(); }

        std::optional<Yielded<Key, As>> next() { return map_->template next<As>(at_, end_); }
        std::size_t size() const { return map_->size(); }

      private:
        Map const* map_;
        std::uint32_t at_ = 0;
        std::uint32_t end_;
    };
    /// All entries, in the order of insertion; `walk<Nothing>()` yields the keys alone and copies
    /// no value. The map outlives the walk.
    template <class As = Value>
    Walk<Cursor<As>> walk() const {
        return Walk<Cursor<As>>(*this);
    }

  private:
    template <class, class, std::size_t>
    friend class SmallMap;
    using Position = std::uint32_t;
    static constexpr Position none = ~Position(0);
    /// Up to here a look through the entries is as fast as an index.
    static constexpr Position unindexed = 8;
    /// From here on the array takes many pages.
    static constexpr Position manyPages = 4096;
    /// How far a neighbour-keeping index may push an entry from its slot before it is scattered,
    /// and how many entries one insertion may push.
    static constexpr std::uint32_t farthest = 16;
    static constexpr std::uint32_t mostPushed = 512;

    // What always holds:
    //
    //   - The entries are those of [0, used_) that are live, in the order of insertion, `count_` of
    //     them. The last one is live unless somebody walks.
    //   - While somebody walks, no entry changes its position, so a walk is a position and the end
    //     that the map had as it began. What is inserted stands behind that end.
    //   - The index, where there is one, has each live entry once, at or behind its home slot, with
    //     no free slot between, and entries in the order of their homes. It is at most half full.
    //     Without an index, be it that memory was refused, entries are looked through one by one.

    /// A hole has no key and no value, only the mark.
    struct Entry {
        Key key;
        bool live;
        [[no_unique_address]] Value value;
    };
    /// Leaves a hole.
    static void destroy(Entry& entry) {
        std::destroy_at(&entry.key);
        std::destroy_at(&entry.value);
        entry.live = false;
    }
    static constexpr bool relocatable = isRelocatable<Key> && isRelocatable<Value>;

    /// The next entry of a walk that stands at `at`.
    template <class As>
    std::optional<Yielded<Key, As>> next(Position& at, Position end) const {
        while (at < end) {
            Entry const& entry = entries_[at++];
            if (entry.live) return yield<Key, As>(entry);
        }
        return std::nullopt;
    }
    void endWalk() const {
        if (--walkers_ == 0) const_cast<Map*>(this)->closeHoles();
    }

    std::uint32_t homeOf(Key const& key) const {
        std::uint64_t const number = hashNumber(key);
        return (scattered_ ? HashSecrets::inForce()(number) : std::uint32_t(number)) & mask_;
    }
    /// How far the entry in `slot` lies behind its home slot.
    std::uint32_t distance(std::uint32_t slot) const {
        return (slot - homeOf(entries_[index_[slot] - 1].key)) & mask_;
    }

    // Most lookups and insertions end after a few instructions, which become part of whoever makes
    // them. The rest is kept out of line.

    /// Where the entry of a key is; if it is not, where its index entry belongs, and how far that
    /// is from home. Good until the next change: an insertion that needs no room takes it as it is,
    /// and looks once.
    struct Probe {
        Position at;
        std::uint32_t slot;
        std::uint32_t away;
    };
    [[gnu::always_inline]] Probe probeFor(Key const& key) const {
        if (!index_) return used_ == 0 ? Probe{none, 0, 0} : lookThrough(key);
        std::uint32_t const home = homeOf(key);
        // Most keys stand at home, and where others do not, nothing does.
        if (index_[home] == 0) return {none, home, 0};
        Position const at = index_[home] - 1;
        if (entries_[at].key == key) return {at, home, 0};
        return probeBehind(home, key);
    }
    [[gnu::noinline]] Probe lookThrough(Key const& key) const {
        for (Position at = 0; at < used_; ++at)
            if (entries_[at].live && entries_[at].key == key) return {at, 0, 0};
        return {none, 0, 0};
    }
    /// Another key stands at home.
    [[gnu::noinline]] Probe probeBehind(std::uint32_t home, Key const& key) const {
        std::uint32_t slot = home;
        for (std::uint32_t away = 1;; ++away) {
            slot = (slot + 1) & mask_;
            if (index_[slot] == 0) return {none, slot, away};
            Position const at = index_[slot] - 1;
            if (entries_[at].key == key) return {at, slot, away};
            // Entries lie in the order of their home slots; ours would stand here.
            if (distance(slot) < away) return {none, slot, away};
        }
    }
    Position positionOf(Key const& key) const { return probeFor(key).at; }
    /// There is room, and the key is not there. Throws what rebuilding the index throws; the entry
    /// is gone then.
    Value& add(Key const& key, Probe const& probe) {
        Position const at = used_;
        ::new (&entries_[at]) Entry{key, true, Value()};
        ++used_;
        ++count_;
        if (index_) {
            if (index_[probe.slot] == 0)
                index_[probe.slot] = at + 1;
            else
                pushIntoIndex(at, probe);
        }
        return entries_[at].value;
    }
    [[gnu::noinline]] Value& makeRoomAndAdd(Key const& key) {
        makeRoom();
        return add(key, probeFor(key));
    }
    /// For the last entry, which goes where that fails.
    [[gnu::noinline]] void pushIntoIndex(Position at, Probe const& probe) {
        if (addToIndex(at, probe.slot, probe.away)) return;
        try {
            scatter();
        } catch (...) { // the map is whole without an index, only slower
            destroy(entries_[at]);
            --used_;
            --count_;
            throw;
        }
    }
    /// As if an entry had come and gone, so that positions of a walk stay what they are.
    void addHole() {
        if (used_ == capacity_) makeRoom();
        entries_[used_++].live = false;
    }

    /// Robin Hood insertion, from `slot` on, which is `away` from home: whoever is farther from
    /// home gets the slot. False when the map should be scattered, for keys pile up.
    bool addToIndex(Position at, std::uint32_t slot, std::uint32_t away) {
        for (std::uint32_t pushed = 0; index_[slot] != 0; ++away, slot = (slot + 1) & mask_) {
            if (std::uint32_t const theirs = distance(slot); theirs < away) {
                at = std::exchange(index_[slot], at + 1) - 1;
                away = theirs;
                ++pushed;
            }
            if ((away > farthest || pushed > mostPushed) && !scattered_) return false;
        }
        index_[slot] = at + 1;
        return true;
    }
    /// Those behind, up to one that stands at home, move up by a slot: no marks of what was removed
    /// are left to be probed over.
    void removeFromIndex(std::uint32_t slot) {
        for (;;) {
            std::uint32_t const next = (slot + 1) & mask_;
            if (index_[next] == 0 || distance(next) == 0) break;
            index_[slot] = index_[next];
            slot = next;
        }
        index_[slot] = 0;
    }
    /// From the live entries, as wide as the room for them. A map that has become small loses it.
    /// Throws std::bad_alloc, and what drawing the secret throws; there is no index then.
    void rebuildIndex() {
        std::free(std::exchange(index_, nullptr));
        if (capacity_ <= unindexed) return;
        if (scattered_) HashSecrets::need();
        std::size_t const slots = std::size_t(capacity_) * 2;
        index_ = static_cast<std::uint32_t*>(std::calloc(slots, sizeof *index_));
        if (!index_) throw std::bad_alloc();
        mask_ = std::uint32_t(slots - 1);
        try {
            for (Position at = 0; at < used_; ++at)
                if (entries_[at].live && !addToIndex(at, homeOf(entries_[at].key), 0))
                    return scatter();
        } catch (...) { // rather none than one that lacks keys
            std::free(std::exchange(index_, nullptr));
            throw;
        }
    }
    /// For good: a map that has seen keys pile up is hashed from now on.
    void scatter() {
        scattered_ = true;
        rebuildIndex();
    }

    /// For one entry more: twice the room, and four times a large one, so that entries are seldom
    /// moved and indexed again. Pages of it that nothing has come to are not there yet; an index
    /// that is hashed would be all over them. Where more than a quarter of the places are holes,
    /// closing them makes it; a map whose entries come and go does not grow by that. Walks keep the
    /// holes, so then it does.
    void makeRoom() {
        bool const manyHoles = count_ < used_ - used_ / 4;
        if (manyHoles && walkers_ == 0) return reseat(capacity_);
        if (capacity_ > (none >> 1)) throw std::bad_alloc();
        bool const isWide = capacity_ >= manyPages && capacity_ <= (none >> 3) && !scattered_;
        reseat(capacity_ == 0 ? 4 : capacity_ * (isWide ? 4 : 2));
    }
    /// Nobody walks. Only those at the end go at once; the rest wait until three quarters are
    /// holes, so that a removal costs constant time in the long run.
    void closeHoles() {
        while (used_ > 0 && !entries_[used_ - 1].live) --used_;
        if (used_ <= unindexed || count_ >= used_ / 4) return;
        try {
            reseat(std::bit_ceil(std::max<Position>(count_ * 2, 4)));
        } catch (...) { // there is more room than needed, or no index: the walk's end is no failure
        }
    }
    /// Moves the entries into room for `capacity` of them; without walkers, holes go.
    void reseat(Position capacity) {
        if constexpr (relocatable) {
            if (walkers_ == 0) squeeze();
            auto* moved = static_cast<Entry*>(
                std::realloc(static_cast<void*>(entries_), capacity * sizeof(Entry)));
            if (!moved) {
                rebuildIndex(); // of those that were squeezed
                throw std::bad_alloc();
            }
            entries_ = moved;
        } else {
            static_assert(std::is_nothrow_move_constructible_v<Key> &&
                              std::is_nothrow_move_constructible_v<Value>,
                          "entries move half way or not at all");
            auto* moved = static_cast<Entry*>(std::malloc(capacity * sizeof(Entry)));
            if (!moved) throw std::bad_alloc();
            Position to = 0;
            for (Position at = 0; at < used_; ++at) {
                if (entries_[at].live) {
                    ::new (&moved[to++]) Entry(std::move(entries_[at]));
                    destroy(entries_[at]);
                } else if (walkers_ != 0) {
                    moved[to++].live = false;
                }
            }
            used_ = to;
            std::free(std::exchange(entries_, moved));
        }
        capacity_ = capacity;
        rebuildIndex();
    }
    /// Closes all holes, in place and in order. The index is wrong until it is rebuilt.
    void squeeze() {
        Position to = 0;
        for (Position at = 0; at < used_; ++at) {
            if (!entries_[at].live) continue;
            if (to != at)
                std::memcpy(static_cast<void*>(&entries_[to]),
                            static_cast<void const*>(&entries_[at]), sizeof(Entry));
            ++to;
        }
        used_ = to;
    }

    Entry* entries_ = nullptr;
    std::uint32_t* index_ = nullptr; ///< positions + 1, 0 for a free slot; null for small maps
    Position used_ = 0;              ///< entries and holes
    Position count_ = 0;             ///< entries
    Position capacity_ = 0;          ///< a power of two
    std::uint32_t mask_ = 0;
    mutable std::uint32_t walkers_ = 0;
    bool scattered_ = !hashKeepsNeighbours<Key>;
};

/// Like `Map`; the first `N` entries stand in the object itself. It is moved only while nobody
/// walks it, and grows into a `Map` once: it does not come back. Keys and values are plain bytes.
/// Up to `N` entries nothing is allocated and no insertion fails. Holes of a walk count as entries:
/// a small map that changes under a walk may grow before it has `N`.
template <class Key, class Value, std::size_t N>
class SmallMap {
    static_assert(std::is_trivially_copyable_v<Key> && std::is_trivially_copyable_v<Value>);
    static_assert(N <= 8, "one bit each");
    using Large = Map<Key, Value>;

  public:
    SmallMap() = default;
    /// Nobody walks `other`, which is empty afterwards. What was found in it stands elsewhere now,
    /// unless it was large.
    SmallMap(SmallMap&& other) noexcept
        : used_(std::exchange(other.used_, std::uint8_t(0))),
          live_(std::exchange(other.live_, std::uint8_t(0))) {
        std::memcpy(room_, other.room_, roomBytes);
    }
    SmallMap& operator=(SmallMap&&) = delete;
    ~SmallMap() {
        if (isLarge()) delete large();
    }

    std::size_t size() const {
        return isLarge() ? large()->size() : std::size_t(std::popcount(live_));
    }
    bool empty() const { return isLarge() ? large()->empty() : live_ == 0; }
    bool has(Key const& key) const { return find(key) != nullptr; }

    /// As of `Map`.
    Value* find(Key const& key) {
        if (isLarge()) return large()->find(key);
        unsigned const at = positionOf(key);
        return at == used_ ? nullptr : value(at);
    }
    Value const* find(Key const& key) const { return const_cast<SmallMap*>(this)->find(key); }

    /// As of `Map`.
    std::pair<Value*, bool> findOrInsert(Key const& key) {
        if (!isLarge()) {
            unsigned const at = positionOf(key);
            if (at < used_) return {value(at), false};
            if (at < N) {
                ++used_;
                keys()[at] = key;
                *value(at) = Value();
                live_ = std::uint8_t(live_ | 1u << at);
                return {value(at), true};
            }
            becomeLarge();
        }
        return large()->findOrInsert(key);
    }

    /// As of `Map`.
    Value take(Key const& key) {
        if (isLarge()) return large()->take(key);
        unsigned const at = positionOf(key);
        if (at == used_) return Value();
        Value const taken = *value(at);
        live_ = std::uint8_t(live_ & ~(1u << at));
        if (walkers_ == 0) closeHoles();
        return taken;
    }

    /// As of `Map`. Positions stay as they are also when the map becomes large meanwhile.
    class Cursor {
      public:
        explicit Cursor(SmallMap const& map)
            : map_(&map), end_(map.isLarge() ? map.large()->used_ : map.used_) {
            if (map.isLarge())
                ++map.large()->walkers_;
            else
                ++map.walkers_;
        }
        Cursor(Cursor const&) = delete;
        Cursor& operator=(Cursor const&) = delete;
        ~Cursor() { map_->endWalk(); }

        std::optional<Yielded<Key, Value>> next() {
            if (map_->isLarge()) [[unlikely]]
                return map_->large()->template next<Value>(at_, end_);
            while (at_ < end_) {
                std::uint32_t const at = at_++;
                if (map_->live(at))
                    return yield<Key, Value>(Item<Key, Value>{map_->keys()[at], *map_->value(at)});
            }
            return std::nullopt;
        }
        std::size_t size() const { return map_->size(); }

      private:
        SmallMap const* map_;
        std::uint32_t at_ = 0;
        std::uint32_t end_;
    };
    Walk<Cursor> walk() const { return Walk<Cursor>(*this); }

  private:
    static constexpr std::uint8_t largeMark = 0xFF;
    /// The room holds the keys and behind them the values, neither of which then pads the other, or
    /// the address of the large map. Octets keep the object free of a pointer's alignment.
    static constexpr std::size_t valueBytes = std::is_empty_v<Value> ? 0 : sizeof(Value);
    static constexpr std::size_t valuesAt = valueBytes == 0 ? 0 : N * sizeof(Key);
    static constexpr std::size_t roomBytes =
        std::max(N * (sizeof(Key) + valueBytes), sizeof(Large*));
    static_assert(alignof(Value) <= alignof(Key));

    bool isLarge() const { return used_ == largeMark; }
    bool live(unsigned at) const { return live_ >> at & 1; }
    Key* keys() { return reinterpret_cast<Key*>(room_); }
    Key const* keys() const { return reinterpret_cast<Key const*>(room_); }
    Value const* value(unsigned at) const {
        return reinterpret_cast<Value const*>(room_ + valuesAt + at * valueBytes);
    }
    Value* value(unsigned at) { return const_cast<Value*>(std::as_const(*this).value(at)); }
    Large* large() const {
        Large* map;
        std::memcpy(&map, room_, sizeof map);
        return map;
    }
    /// `used_` where the key is not.
    unsigned positionOf(Key const& key) const {
        unsigned at = 0;
        while (at < used_ && !(keys()[at] == key && live(at))) ++at;
        return at;
    }
    void endWalk() const {
        if (isLarge())
            large()->endWalk();
        else if (--walkers_ == 0)
            const_cast<SmallMap*>(this)->closeHoles();
    }
    void closeHoles() {
        unsigned to = 0;
        for (unsigned at = 0; at < used_; ++at) {
            if (!live(at)) continue;
            keys()[to] = keys()[at];
            *value(to++) = *value(at);
        }
        used_ = std::uint8_t(to);
        live_ = std::uint8_t((1u << to) - 1);
    }
    void becomeLarge() {
        auto map = std::make_unique<Large>();
        map->walkers_ = walkers_;
        for (unsigned at = 0; at < used_; ++at)
            if (live(at))
                *map->findOrInsert(keys()[at]).first = *value(at);
            else
                map->addHole();
        Large* const address = map.release();
        std::memcpy(room_, &address, sizeof address);
        used_ = largeMark;
    }

    std::uint8_t used_ = 0; ///< entries and holes in the room, or `largeMark`
    std::uint8_t live_ = 0; ///< a bit for each of them: whether it is an entry
    mutable std::uint16_t walkers_ = 0;
    alignas(Key) std::byte room_[roomBytes];
};

/// Walks of these yield bare keys. `findOrInsert(key).second` says whether the key is new.
template <class Key>
using Set = Map<Key, Nothing>;
template <class Key, std::size_t N = 4>
using SmallSet = SmallMap<Key, Nothing, N>;

/// The key of what a walk yields, valid as long as that.
auto const& keyOf(auto const& yielded) {
    if constexpr (requires { yielded.key; })
        return yielded.key;
    else
        return yielded;
}

/// The keys of a set or the keys of a map in ascending order, as they are now. For who must go by
/// that order, or wants a list that later changes leave alone; it costs a copy of all and the sort.
/// Throws std::bad_alloc.
template <class Cursor>
auto sortedKeys(Walk<Cursor>&& walk) {
    std::vector<std::remove_cvref_t<decltype(keyOf(*walk.begin()))>> keys;
    for (auto const& yielded : walk) keys.push_back(keyOf(yielded));
    std::sort(keys.begin(), keys.end());
    return keys;
}

} // namespace Nex
