// A set in the order of insertion, for work queues: no single change takes longer because the set
// is large. Nothing is moved but the keys of one bucket at a time (linear hashing), where a `Map`
// now and then moves all at once.
//
// What is inserted is put into the list at once and into its bucket later, a few keys together: a
// search in a large set waits for memory, and so they wait at the same time. Whoever looks before
// that has it done first, and sees nothing of it.
#pragma once

#include "Nex/Hash.h"
#include "Nex/Ptr.h"

#include <array>
#include <bit>
#include <memory>
#include <vector>

namespace Nex {

/// Has no walk: its user takes keys from the front. Keys are hashed as those of a `Map`, always
/// with the secret. A key takes one small object and about one pointer in a bucket, given back as
/// the keys go. Only `insert` needs memory. Nothing is locked, and reading counts as changing.
template <class Key>
class LinkedSet {
  public:
    LinkedSet() = default;
    LinkedSet(LinkedSet const&) = delete;
    LinkedSet& operator=(LinkedSet const&) = delete;
    ~LinkedSet() { clear(); }

    std::size_t size() const {
        settle();
        return count_;
    }
    bool empty() const { return !first_; }
    bool has(Key const& key) const { return find(key) != nullptr; }
    /// The key that is there for the longest time, or was put to the back before all others; valid
    /// until it is taken. Not to be called when there is none.
    Key const& front() const { return first_->key; }

    /// A key that is there already keeps its place. Throws std::bad_alloc, and std::runtime_error
    /// where the first key finds no secret; the set is then as it was.
    void insert(Key const& key) {
        if (fresh_ == freshNodes_.size()) settle();
        // A bucket for each, should none of them be there already.
        if (count_ + fresh_ >= buckets_) grow();
        Node* const node = new Node{key};
        append(node);
        freshNodes_[fresh_++] = node;
    }
    /// A key that is not there is no error. `key` may be the one that `front` shows.
    void take(Key const& key) {
        if (Node* const node = find(key)) erase(node);
    }
    /// Takes time for each key.
    void clear() {
        for (Node* node = first_; node;) delete std::exchange(node, node->after);
        first_ = last_ = nullptr;
        segments_.clear();
        buckets_ = count_ = fresh_ = 0;
    }
    /// Puts a key that is there behind all others. One that is not there is no error. `key` may be
    /// the one that `front` shows.
    void toBack(Key const& key) {
        Node* const node = find(key);
        if (!node) return;
        detach(node);
        append(node);
    }

  private:
    struct Node {
        Key key;
        Node* inBucket = nullptr; ///< the next one
        Node* before = nullptr;
        Node* after = nullptr;

        /// Among the counted objects, whose memory comes and goes in pieces of one size.
        static void* operator new(std::size_t bytes) { return PtrInterface::operator new(bytes); }
        static void operator delete(void* node, std::size_t bytes) {
            PtrInterface::operator delete(node, bytes);
        }
    };
    // Linear hashing (W. Litwin, "Linear Hashing: A New Tool for File and Table Addressing"): there
    // are as many buckets as keys, or up to twice as many, and eight at least. A key's bucket is
    // the low bits of its hash, one bit fewer where that bucket is yet to come. So one bucket more
    // means that the keys of a single one are dealt out anew, and one less that they go back.
    // Segments never move.

    /// How many keys may wait for their buckets.
    static constexpr std::size_t mostFresh = 16;
    /// Buckets of the first segment; every other segment has as many as all before it.
    static constexpr std::size_t fewest = 8;

    static std::size_t segmentOf(std::size_t bucket) {
        return std::size_t(std::bit_width(bucket / fewest));
    }
    static std::size_t firstOf(std::size_t segment) {
        return segment == 0 ? 0 : fewest << (segment - 1);
    }
    /// Of a bucket that is in use, or is just coming or going.
    Node*& head(std::size_t bucket) const {
        std::size_t const segment = segmentOf(bucket);
        return segments_[segment][bucket - firstOf(segment)];
    }
    /// The bucket that was split to make this one.
    static std::size_t parentOf(std::size_t bucket) { return bucket - std::bit_floor(bucket); }
    std::size_t bucketOf(Key const& key) const {
        std::size_t const hash = HashSecrets::inForce()(hashNumber(key));
        std::size_t const bucket = hash & (std::bit_ceil(buckets_) - 1);
        return bucket < buckets_ ? bucket : parentOf(bucket);
    }
    static Node* findIn(Node* bucket, Key const& key) {
        while (bucket && !(bucket->key == key)) bucket = bucket->inBucket;
        return bucket;
    }
    Node* find(Key const& key) const {
        settle();
        return buckets_ == 0 ? nullptr : findIn(head(bucketOf(key)), key);
    }
    /// Puts the fresh nodes into their buckets, those aside whose key is there already: these go
    /// again.
    void settle() const {
        if (fresh_ > 0) const_cast<LinkedSet*>(this)->doSettle();
    }
    [[gnu::noinline]] void doSettle() {
        std::array<Node**, mostFresh> heads;
        std::size_t const fresh = std::exchange(fresh_, 0);
        for (std::size_t at = 0; at < fresh; ++at) {
            heads[at] = &head(bucketOf(freshNodes_[at]->key));
            __builtin_prefetch(heads[at]);
        }
        for (std::size_t at = 0; at < fresh; ++at) __builtin_prefetch(*heads[at]);
        for (std::size_t at = 0; at < fresh; ++at) {
            Node* const node = freshNodes_[at];
            if (findIn(*heads[at], node->key)) {
                detach(node);
                delete node;
            } else {
                node->inBucket = std::exchange(*heads[at], node);
                ++count_;
            }
        }
    }

    void enchain(Node* node) {
        Node*& bucket = head(bucketOf(node->key));
        node->inBucket = bucket;
        bucket = node;
    }
    void append(Node* node) {
        node->before = last_;
        node->after = nullptr;
        (last_ ? last_->after : first_) = node;
        last_ = node;
    }
    void detach(Node* node) {
        (node->before ? node->before->after : first_) = node->after;
        (node->after ? node->after->before : last_) = node->before;
    }
    /// Throws nothing, and moves the keys of two buckets at most.
    void erase(Node* node) {
        Node** link = &head(bucketOf(node->key));
        while (*link != node) link = &(*link)->inBucket;
        *link = node->inBucket;
        detach(node);
        delete node;
        --count_;
        // Faster than the keys go, so that few keys never keep many buckets.
        for (int i = 0; i < 2 && buckets_ > fewest && buckets_ / 2 > count_; ++i) shrink();
    }

    /// One bucket more, or the first ones.
    void grow() {
        if (buckets_ == 0) {
            HashSecrets::need();
            segments_.push_back(std::make_unique<Node*[]>(fewest));
            buckets_ = fewest;
            return;
        }
        std::size_t const fresh = buckets_;
        // Not cleared: a bucket is when it comes into use.
        if (segmentOf(fresh) == segments_.size())
            segments_.push_back(std::make_unique_for_overwrite<Node*[]>(fresh));
        head(fresh) = nullptr;
        ++buckets_;
        rechain(parentOf(fresh));
    }
    /// One bucket less.
    void shrink() {
        std::size_t const stale = --buckets_;
        rechain(stale);
        if (stale == firstOf(segments_.size() - 1)) segments_.pop_back();
    }
    /// Puts the keys of a bucket where they belong by the number of buckets there is now.
    void rechain(std::size_t bucket) {
        Node* node = std::exchange(head(bucket), nullptr);
        while (node) enchain(std::exchange(node, node->inBucket));
    }

    std::vector<std::unique_ptr<Node*[]>> segments_;
    std::size_t buckets_ = 0;
    std::size_t count_ = 0; ///< keys in buckets
    Node* first_ = nullptr;
    Node* last_ = nullptr;
    std::array<Node*, mostFresh> freshNodes_; ///< the last ones of the list, in its order
    std::size_t fresh_ = 0;                   ///< of these
};

} // namespace Nex
