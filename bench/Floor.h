// The floor of the benchmarks: what the library keeps for one interface, as plain maps and arrays
// written by hand, without records, reactors or reference counts. It keeps the same four entries
// per group and writes as many lines to the trace ring.
#pragma once

#include "Lumen/Ring.h"

#include <cstdint>
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
    /// The last entry takes the place of the one that goes.
    void erase(std::uint32_t key) {
        std::uint32_t slot = slotOf(key);
        std::uint32_t const at = slots_[slot];
        if (at == 0) return;
        slots_[slotOf(entries_.back().first)] = at;
        entries_[at - 1] = entries_.back();
        entries_.pop_back();
        slots_[slot] = 0;
        for (std::uint32_t next = (slot + 1) & mask(); slots_[next] != 0;
             next = (next + 1) & mask()) {
            std::uint32_t const home = entries_[slots_[next] - 1].first & mask();
            if (((next - home) & mask()) < ((next - slot) & mask())) continue;
            slots_[slot] = std::exchange(slots_[next], 0);
            slot = next;
        }
    }
    std::size_t size() const { return entries_.size(); }

  private:
    std::uint32_t mask() const { return std::uint32_t(slots_.size() - 1); }
    std::uint32_t slotOf(std::uint32_t key) const {
        std::uint32_t slot = key & mask();
        while (slots_[slot] != 0 && entries_[slots_[slot] - 1].first != key)
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

/// One or two sources of a group; the benchmarks ask for no more.
struct SourceList {
    std::uint32_t count = 0;
    std::uint32_t sources[2] = {};

    bool has(std::uint32_t source) const {
        for (std::uint32_t at = 0; at < count; ++at)
            if (sources[at] == source) return true;
        return false;
    }
    bool add(std::uint32_t source) {
        if (has(source)) return false;
        sources[count++] = source;
        return true;
    }
    void del(std::uint32_t source) {
        if (!has(source)) return;
        if (sources[0] == source) sources[0] = sources[1];
        --count;
    }
};
struct GroupLists {
    SourceList include, exclude;
};
struct CountedPair {
    std::uint32_t source = 0;
    std::uint32_t count = 0;
};
struct HostRecord {
    std::uint32_t mode = 0;
    std::uint32_t version = 0;
    SourceList sources;
};

struct FloorInterface {
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

} // namespace Bench
