#include "agent/igmp/ReportBuilder.h"

#include "agent/igmp/IgmpPacket.h"

#include <algorithm>
#include <utility>

namespace Agent {

namespace {

constexpr std::size_t headOctets = ipHeaderOctets + messageOctets;

} // namespace

ReportBuilder::ReportBuilder(Lox::IpAddr source, std::size_t mtu, Sink sink)
    : source_(source), sink_(std::move(sink)), packet_(mtu), used_(headOctets) {}

void ReportBuilder::addRecords(RecordList const& records) {
    for (std::size_t i = 0; i < records.size(); ++i) doAdd(records.record(i));
}

void ReportBuilder::doAdd(GroupRecord const& record) {
    if (!fits(record.octets())) finish();
    std::size_t most =
        (packet_.size() - headOctets - GroupRecord::headerOctets) / GroupRecord::sourceOctets;
    bool exclude = record.type == RecordType::isEx || record.type == RecordType::toEx;
    auto rest = record.sources;
    for (; rest.size() > most && !exclude; rest = rest.subspan(most)) {
        doAppend({record.type, record.group, rest.first(most)});
        finish();
    }
    doAppend({record.type, record.group, rest.first(std::min(rest.size(), most))});
}

void ReportBuilder::doAppend(GroupRecord const& record) {
    encodeRecord(record, std::span(packet_).subspan(used_, record.octets()));
    used_ += record.octets();
    ++records_;
}

void ReportBuilder::finish() {
    if (records_ == 0) return;
    auto packet = std::span(packet_).first(used_);
    encodeReport(packet, source_, records_);
    used_ = headOctets;
    records_ = 0;
    sink_(packet);
}

} // namespace Agent
