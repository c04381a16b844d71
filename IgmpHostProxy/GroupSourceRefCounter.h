// How many configured and access-list references each (source, group) pair has. The key has no
// mode: include and exclude references count alike. Routes of the forwarding table are not counted.
//
// Two levels, group and then source, so that whether any pair of a group is counted is one lookup,
// and a group with a few counted sources costs no table of its own. Single operations take constant
// time. It tells nobody and calls nobody but `visit`.
#pragma once

#include "IgmpHostProxy/SourceGroup.h"
#include "Nex/Map.h"

namespace IgmpHostProxy {

class GroupSourceRefCounter {
  public:
    /// 0 for a pair without entry.
    std::uint32_t count(SourceGroup sg) const {
        Sources const* const sources = groups_.find(sg.groupAddr);
        std::uint32_t const* const found = sources ? sources->find(sg.sourceAddr) : nullptr;
        return found ? *found : 0;
    }
    /// Groups of which a pair has an entry.
    std::size_t groupCount() const { return groups_.size(); }
    /// Calls `visit(group)` for each of them, in the order in which they came; `visit` may change
    /// the counter.
    template <class Visit>
    void forGroups(Visit visit) const {
        for (Lox::IpAddr const group : groups_.walk<Nex::Nothing>()) visit(group);
    }
    /// Whether any pair of the group has an entry, be its count 0.
    bool groupHas(Lox::IpAddr group) const { return groups_.has(group); }
    /// Calls `visit(source)` for each pair of the group. `visit` must not change the counter.
    template <class Visit>
    void forSources(Lox::IpAddr group, Visit visit) const {
        if (Sources const* const sources = groups_.find(group))
            for (auto const& item : sources->walk()) visit(item.key);
    }

    // Those that create an entry throw std::bad_alloc, and nothing is changed. An entry with a
    // count of 0 is one, until it is deleted.

    /// Creates the entry with `count`, or overwrites its count; returns it.
    std::uint32_t is(SourceGroup sg, std::uint32_t count) { return entry(sg) = count; }
    /// Adds to the entry, created with 0 where there is none, and returns the new count.
    std::uint32_t inc(SourceGroup sg, std::uint32_t n) { return entry(sg) += n; }
    /// Subtracts likewise, unsigned and without a floor: callers look at the count first.
    std::uint32_t dec(SourceGroup sg, std::uint32_t n) { return entry(sg) -= n; }
    /// A pair without entry is no error.
    void del(SourceGroup sg) {
        Sources* const sources = groups_.find(sg.groupAddr);
        if (!sources) return;
        sources->take(sg.sourceAddr);
        if (sources->empty()) groups_.take(sg.groupAddr);
    }
    void delAll() {
        for (Lox::IpAddr const group : groups_.walk<Nex::Nothing>()) groups_.take(group);
    }

  private:
    using Sources = Nex::SmallMap<Lox::IpAddr, std::uint32_t, 4>;

    std::uint32_t& entry(SourceGroup sg) {
        return *groups_.findOrInsert(sg.groupAddr).first->findOrInsert(sg.sourceAddr).first;
    }

    Nex::Map<Lox::IpAddr, Sources> groups_;
};

} // namespace IgmpHostProxy
