// Packs group records into version 3 reports no larger than the interface's MTU.
#pragma once

#include "Lox/IpAddr.h"
#include "agent/igmp/GroupRecord.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace Agent {

class ReportBuilder {
  public:
    /// Takes each finished packet, a whole IPv4 packet that lasts for the call.
    using Sink = std::function<void(std::span<std::uint8_t const>)>;

    /// `mtu` in octets, at least 68 (what every IPv4 link carries, RFC 791) and at most 65535.
    ReportBuilder(Lox::IpAddr source, std::size_t mtu, Sink sink);

    /// Whether `octets` of records go into the report at hand. A new report takes any number:
    /// what exceeds it goes into more reports.
    bool fits(std::size_t octets) const { return records_ == 0 || octets <= room(); }
    /// Adds all records of the list. A record that is too big for one report is split over
    /// several, but for IS_EX and TO_EX: their lists cannot be split without changing what they
    /// say, so they name the lowest addresses that fit (RFC 9776, 4.2.17).
    void addRecords(RecordList const& records);
    /// Hands over what is packed, if anything. To be called at the end.
    void finish();

  private:
    void doAdd(GroupRecord const& record);
    void doAppend(GroupRecord const& record);
    std::size_t room() const { return packet_.size() - used_; }

    Lox::IpAddr source_;
    Sink sink_;
    std::vector<std::uint8_t> packet_;
    std::size_t used_;
    unsigned records_ = 0;
};

} // namespace Agent
