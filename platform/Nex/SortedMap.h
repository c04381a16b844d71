// A map that is walked in the order of its keys and still finds a key by one hash lookup: the
// entries of a `Map`, and the keys once more in their order.
#pragma once

#include "Nex/Map.h"
#include "Nex/SortedKeys.h"

namespace Nex {

/// Keys have an order beside their hash, and both agree on which keys are equal. A key that
/// comes or goes costs a binary search and moves some neighbours; a lookup costs what it costs a
/// `Map`. Each key stands in memory twice. Storing another value under a key that is there is no
/// change of the keys.
///
/// What is found is lent until the next change, as of `Map`; what a walk yields is a copy. Neither
/// copied nor moved.
template <class Key, class Value>
class SortedMap {
  public:
    std::size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }
    bool has(Key const& key) const { return entries_.has(key); }
    /// As of `Map`.
    Value* find(Key const& key) { return entries_.find(key); }
    Value const* find(Key const& key) const { return entries_.find(key); }
    /// As of `Map`; where memory is refused, neither part has the key.
    std::pair<Value*, bool> findOrInsert(Key const& key) {
        auto const found = entries_.findOrInsert(key);
        if (found.second) {
            try {
                order_.insert(key);
            } catch (...) {
                entries_.take(key);
                throw;
            }
            ++revision_;
        }
        return found;
    }
    /// As of `Map`.
    Value take(Key const& key) {
        if (order_.erase(key)) ++revision_;
        return entries_.take(key);
    }

    /// A place in the order of the keys, for walks that end and go on later. It finds its way on
    /// whatever is inserted and removed: the next key is the least one above the last. The key that
    /// it stands on may have gone meanwhile; the map may not. A step costs next to nothing as long
    /// as no key comes or goes, and a search once any has. Copies are positions of their own.
    class Position {
      public:
        /// Stands on the least key, or on the least that is not below `from`; at the end where
        /// there is none.
        explicit Position(SortedMap const& map)
            : map_(&map), at_(map.order_.begin()), revision_(map.revision_) {
            doKeep();
        }
        Position(SortedMap const& map, Key const& from)
            : map_(&map), at_(map.order_.lowerBound(from)), revision_(map.revision_) {
            doKeep();
        }
        /// A position that has come to the end stays there, whatever is inserted.
        bool atEnd() const { return !key_; }
        /// A copy of its own. Not to be called at the end.
        Key const& key() const { return *key_; }
        /// The next key, good until a key comes or goes; null at the last one, and where it is not
        /// known without a search. Not to be called at the end.
        Key const* ahead() const {
            if (revision_ != map_->revision_) return nullptr;
            auto const next = map_->order_.next(at_);
            return map_->order_.isEnd(next) ? nullptr : &map_->order_.key(next);
        }
        /// Not to be called at the end, either.
        void advance() {
            at_ = revision_ == map_->revision_ ? map_->order_.next(at_)
                                               : map_->order_.upperBound(*key_);
            revision_ = map_->revision_;
            doKeep();
        }

      private:
        void doKeep() {
            if (map_->order_.isEnd(at_))
                key_.reset();
            else
                key_ = map_->order_.key(at_);
        }

        SortedMap const* map_;
        typename SortedKeys<Key>::Place at_;
        std::uint64_t revision_; ///< of the map when `at_` was good
        std::optional<Key> key_;
    };

    /// A walk is a position. What comes ahead of it is visited, what comes behind it is not; it
    /// keeps no holes open, so a long one costs the map nothing.
    template <class As>
    class Cursor {
      public:
        explicit Cursor(SortedMap const& map) : map_(&map) {}
        std::optional<Yielded<Key, As>> next() {
            if (at_)
                at_->advance();
            else
                at_.emplace(*map_);
            if (at_->atEnd()) return std::nullopt;
            return yield<Key, As>(Item<Key, As>{at_->key(), *map_->find(at_->key())});
        }
        std::size_t size() const { return map_->size(); }

      private:
        SortedMap const* map_;
        std::optional<Position> at_; ///< none before the first step: all may change until then
    };
    /// In ascending order of the keys. The map outlives the walk.
    template <class As = Value>
    Walk<Cursor<As>> walk() const {
        return Walk<Cursor<As>>(*this);
    }

  private:
    Map<Key, Value> entries_;
    SortedKeys<Key> order_;
    std::uint64_t revision_ = 0; ///< of the keys
};

} // namespace Nex
