// The group records of an IGMPv3 report (RFC 9776, 4.2.5 to 4.2.13) as plain values.
#pragma once

#include "Lox/IpAddr.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Agent {

/// RFC 9776, 4.2.13: current state, change of the filter mode, change of the source list.
enum class RecordType : std::uint8_t {
    isIn = 1,
    isEx,
    toIn,
    toEx,
    allow,
    block,
    member, ///< in no report: membership as a version 2 report tells it
};

/// One record; the sources belong to whoever made it and are in ascending order.
struct GroupRecord {
    static constexpr std::size_t headerOctets = 8;
    static constexpr std::size_t sourceOctets = 4;

    RecordType type;
    Lox::IpAddr group;
    std::span<Lox::IpAddr const> sources;

    std::size_t octets() const { return headerOctets + sourceOctets * sources.size(); }
};

/// The few records of one group, with their sources. Meant to be cleared and used again, so that
/// packing many groups does not allocate for each.
class RecordList {
  public:
    void clear() {
        records_.clear();
        sources_.clear();
    }
    /// Opens a record; the sources added from now on are its own.
    void addRecord(RecordType type, Lox::IpAddr group) {
        records_.push_back({type, group, sources_.size()});
    }
    void addSource(Lox::IpAddr source) { sources_.push_back(source); }
    /// Adds a copy of a record of another list.
    void addRecord(GroupRecord const& record) {
        addRecord(record.type, record.group);
        sources_.insert(sources_.end(), record.sources.begin(), record.sources.end());
    }
    /// Takes the record opened last back if it has no source.
    void dropEmptyRecord() {
        if (records_.back().firstSource == sources_.size()) records_.pop_back();
    }

    std::size_t size() const { return records_.size(); }
    /// The view lasts until the next change of the list.
    GroupRecord record(std::size_t i) const;
    /// What all records take in a report.
    std::size_t octets() const {
        return GroupRecord::headerOctets * records_.size() +
               GroupRecord::sourceOctets * sources_.size();
    }

  private:
    struct Item {
        RecordType type;
        Lox::IpAddr group;
        std::size_t firstSource;
    };

    std::vector<Item> records_;
    std::vector<Lox::IpAddr> sources_;
};

inline GroupRecord RecordList::record(std::size_t i) const {
    std::size_t end = i + 1 < records_.size() ? records_[i + 1].firstSource : sources_.size();
    Item const& item = records_[i];
    return {item.type, item.group, {sources_.data() + item.firstSource, end - item.firstSource}};
}

} // namespace Agent
