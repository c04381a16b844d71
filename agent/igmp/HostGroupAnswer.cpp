// The answer to queries of one group: which sources they have asked for, and what is said of those
// (RFC 9776, 5.2).
#include "agent/igmp/HostGroup.h"

#include <algorithm>

namespace Agent {

void HostGroup::noteAsked(std::span<Lox::IpAddr const> sources, bool pending) {
    if (sources.empty()) return forgetAsked();
    if (pending && asked_.empty()) return;
    for (Lox::IpAddr source : sources) {
        auto at = std::lower_bound(asked_.begin(), asked_.end(), source);
        if (at != asked_.end() && *at == source) continue;
        if (asked_.size() == maxAsked) return forgetAsked();
        asked_.insert(at, source);
    }
}

void HostGroup::addAnswerRecords(RecordList& records) const {
    if (!hasState()) return;
    if (asked_.empty()) return addStateRecord(records);
    records.addRecord(RecordType::isIn, group_);
    auto at = sources_.begin();
    for (Lox::IpAddr address : asked_) {
        while (at != sources_.end() && at->address < address) ++at;
        bool listed = at != sources_.end() && at->address == address && at->listed;
        if (isWanted(listed)) records.addSource(address);
    }
    records.dropEmptyRecord();
}

} // namespace Agent
