// The host engine's groups, and the lists and time-ordered queues that they stand in. A group
// carries the links itself, so entering and leaving a list neither allocates nor searches.
#pragma once

#include "agent/igmp/HostGroup.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>

namespace Agent {

/// Never, as an absolute time.
inline constexpr double never = std::numeric_limits<double>::infinity();

struct GroupEntry;
class GroupQueue;

/// A place in one list at a time. Stays where it is in memory.
struct GroupLink {
    explicit GroupLink(GroupEntry* owner) : entry(owner) {}
    GroupLink(GroupLink const&) = delete;
    GroupLink& operator=(GroupLink const&) = delete;
    /// Leaves the list, if in one.
    void unlink();
    bool isLinked() const { return next != this; }

    GroupEntry* entry; ///< null at the head of a list
    GroupLink* previous = this;
    GroupLink* next = this;
};

/// A list that owns nothing. It outlives the links in it, or is not used any more.
class GroupList {
  public:
    bool isEmpty() const { return head_.next == &head_; }
    /// Null if empty.
    GroupEntry* first() const { return head_.next->entry; }
    /// At the end; leaves the list it was in.
    void add(GroupLink& link);
    /// Moves all of `other` to the end, at once.
    void addAll(GroupList& other);

  private:
    GroupLink head_{nullptr};
};

/// A place in one queue at a time.
struct TimedLink : GroupLink {
    using GroupLink::GroupLink;

    GroupQueue* queue = nullptr; ///< null: in none
    double due = never;          ///< absolute seconds
};

/// Groups ordered by the time when they are due; of equal times, the first to enter comes first.
/// Times that nearly coincide count as equal, so that such groups share a packet and the queue
/// keeps few times.
class GroupQueue {
  public:
    /// Has memory for one more time, so that entering the queue with it cannot fail. Throws
    /// std::bad_alloc.
    void prepare();
    /// Enters the queue, leaving the one it was in. `due` and `now` are absolute seconds; a later
    /// time than now is brought forward by less than 1/128 s, but not to now or before. Throws
    /// std::bad_alloc, with nothing done, unless prepared.
    void add(TimedLink& link, double now, double due);
    /// Leaves the queue it is in, if any.
    static void del(TimedLink& link) noexcept;
    /// The first group if it is due by `now`, else null.
    GroupEntry* first(double now = never) const;
    /// `never` if empty.
    double nextExpiry() const { return lists_.empty() ? never : lists_.begin()->first; }

  private:
    using Lists = std::map<double, GroupList>;

    Lists lists_; // none is empty
    Lists::node_type spare_;
};

/// A group and the engine's bookkeeping for it.
struct GroupEntry {
    static constexpr std::uint32_t noWish = ~std::uint32_t(0);

    explicit GroupEntry(Lox::IpAddr address) : group(address) {}
    /// Nothing is owed about it any more: no change, or no answer.
    void dropChange();
    void dropAnswer();

    HostGroup group;
    TimedLink change{this};      ///< next report of a change; before version 3, of any but `answer`
    TimedLink answer{this};      ///< the answer to a specific query
    GroupLink walk{this};        ///< the walk over all groups with state, or over those leaving
    std::uint32_t wish = noWish; ///< index of what this turn wants of it
    // When it was named last, by the whole seconds of the engine's time; 0 for never.
    std::uint32_t told = 0;     ///< for a change
    std::uint32_t answered = 0; ///< in an answer to a query
    bool lastReporter = false;  ///< nobody reported it in version 2 after us (RFC 2236, 6)
    bool formerV3 = false;      ///< before version 3: routers may know it from that all the same
    /// All that is asked is told by the general answer, too, if that comes sooner.
    bool generalServes = false;
};

} // namespace Agent
