// The floor of the benchmarks: what the library keeps for one interface, as plain maps and arrays
// written by hand, without records, reactors or reference counts. It keeps the same four entries
// per group and writes as many lines to the trace ring.
#pragma once

#include "Lumen/Ring.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>
#include <vector>

namespace Bench {

/// Open addressing with linear probing over an array of entries; neighbouring keys are neighbours.
template <class Value>
class FlatMap {
  public:
    Value* find(std::uint32_t key) {
        if (slots_.empty()) return nullptr;
        std::uint32_t const slot = slotOf(key);
        return slots_[slot] == 0 ? nullptr : &entries_[slots_[slot] - 1].second;
    }
    Value& operator[](std::uint32_t key) {
        if ((entries_.size() + 1) * 2 > slots_.size()) grow();
        std::uint32_t const slot = slotOf(key);
        if (slots_[slot] == 0) {
            entries_.emplace_back(key, Value());
            slots_[slot] = std::uint32_t(entries_.size());
        }
        return entries_[slots_[slot] - 1].second;
    }
    /// The last entry takes the place of the one that goes; its slot is not used again.
    void erase(std::uint32_t key) {
        std::uint32_t const slot = slotOf(key);
        if (slots_[slot] == 0) return;
        slots_[slotOf(entries_.back().first)] = slots_[slot];
        entries_[slots_[slot] - 1] = entries_.back();
        entries_.pop_back();
        slots_[slot] = gone;
    }
    std::size_t size() const { return entries_.size(); }

  private:
    static constexpr std::uint32_t gone = ~std::uint32_t(0);

    std::uint32_t mask() const { return std::uint32_t(slots_.size() - 1); }
    std::uint32_t slotOf(std::uint32_t key) const {
        std::uint32_t slot = key & mask();
        while (slots_[slot] != 0 &&
               (slots_[slot] == gone || entries_[slots_[slot] - 1].first != key))
            slot = (slot + 1) & mask();
        return slot;
    }
    void grow() {
        slots_.assign(slots_.empty() ? 8 : slots_.size() * 2, 0);
        for (std::uint32_t at = 0; at < entries_.size(); ++at)
            slots_[slotOf(entries_[at].first)] = at + 1;
    }

    std::vector<std::uint32_t> slots_; ///< positions + 1, 0 for free ones
    std::vector<std::pair<std::uint32_t, Value>> entries_;
};

/// The sources of a group, up to a number that the benchmark knows.
template <std::size_t capacity>
struct BoundedSourceList {
    std::uint32_t count = 0;
    std::uint32_t sources[capacity] = {};

    bool has(std::uint32_t source) const {
        for (std::uint32_t at = 0; at < count; ++at)
            if (sources[at] == source) return true;
        return false;
    }
    bool add(std::uint32_t source) {
        if (has(source)) return false;
        if (count == capacity) std::abort();
        sources[count++] = source;
        return true;
    }
    void del(std::uint32_t source) {
        auto* const end = std::remove(sources, sources + count, source);
        count = std::uint32_t(end - sources);
    }
};
using SourceList = BoundedSourceList<2>;
struct CountedPair {
    std::uint32_t source = 0;
    std::uint32_t count = 0;
};

template <std::size_t sourcesPerGroup>
struct BoundedFloorInterface {
    using Sources = BoundedSourceList<sourcesPerGroup>;
    struct GroupLists {
        Sources include, exclude;
    };
    struct HostRecord {
        std::uint32_t mode = 0;
        std::uint32_t version = 0;
        Sources sources;
    };

    FlatMap<GroupLists> configured, deleted, list, status;
    FlatMap<CountedPair> counts;
    FlatMap<HostRecord> host;

    /// A group gets its first source: the record is created, then refined.
    void announce(std::uint32_t source, std::uint32_t group) {
        if (!status[group].include.add(source)) return;
        HostRecord& record = host[group];
        record.mode = 2;
        ++record.version;
        record.sources.add(source);
        record.mode = 1;
        ++record.version;
    }
    void withdraw(std::uint32_t source, std::uint32_t group) {
        GroupLists* const entry = status.find(group);
        if (!entry) return;
        entry->include.del(source);
        HostRecord& record = host[group];
        record.sources.del(source);
        ++record.version;
        if (entry->include.count + entry->exclude.count != 0) return;
        status.erase(group);
        host.erase(group);
    }
    static void trace(unsigned lines, std::uint32_t source, std::uint32_t group) {
        using Types = Lumen::Types<std::uint32_t, std::uint32_t>;
        static constexpr Lumen::Point point{"floor", 0, 6, false, "% %", &Types::print};
        for (unsigned line = 0; line < lines; ++line) Lumen::ring.record(point, source, group);
    }
};
using FloorInterface = BoundedFloorInterface<2>;

} // namespace Bench
