#include "agent/igmp/HostGroup.h"

#include <algorithm>
#include <iterator>

namespace Agent {

bool HostGroup::setState(FilterMode mode, std::span<Lox::IpAddr const> sources,
                         unsigned robustness) {
    bool modeChanged = mode != mode_;
    bool changed = modeChanged;
    std::vector<Source> next;
    next.reserve(sources.size() + counted_);
    auto keep = [&](Source source, bool listed) {
        if (source.listed != listed) {
            source.listed = listed;
            source.repeats = std::uint8_t(robustness);
            changed = true;
        }
        if (source.listed || source.repeats > 0) next.push_back(source);
    };

    auto old = sources_.begin();
    for (Lox::IpAddr address : sources) {
        for (; old != sources_.end() && old->address < address; ++old) keep(*old, false);
        bool known = old != sources_.end() && old->address == address;
        keep(known ? *old++ : Source{address}, true);
    }
    for (; old != sources_.end(); ++old) keep(*old, false);

    sources_.swap(next);
    mode_ = mode;
    if (modeChanged) repeats_ = std::uint8_t(robustness);
    doRecount();
    return changed;
}

void HostGroup::announce(unsigned robustness) {
    auto const times = std::uint8_t(robustness);
    if (mode_ == FilterMode::exclude)
        repeats_ = std::max(repeats_, times);
    else
        for (Source& source : sources_)
            if (source.listed) source.repeats = std::max(source.repeats, times);
    doRecount();
}

bool HostGroup::setFormer(FilterMode mode, std::span<Lox::IpAddr const> sources,
                          unsigned robustness) {
    if (mode_ == FilterMode::exclude) return false; // its own TO_EX replaces all there was
    if (mode == FilterMode::exclude) {
        repeats_ = std::max(repeats_, std::uint8_t(robustness));
        return true;
    }
    auto less = [](Source const& a, Source const& b) { return a.address < b.address; };
    std::vector<Source> missing;
    for (Lox::IpAddr address : sources) {
        Source source{address, std::uint8_t(robustness)};
        if (!std::binary_search(sources_.begin(), sources_.end(), source, less))
            missing.push_back(source);
    }
    std::sort(missing.begin(), missing.end(), less);
    auto same = [](Source const& a, Source const& b) { return a.address == b.address; };
    missing.erase(std::unique(missing.begin(), missing.end(), same), missing.end());
    std::vector<Source> merged;
    merged.reserve(sources_.size() + missing.size());
    std::merge(sources_.begin(), sources_.end(), missing.begin(), missing.end(),
               std::back_inserter(merged), less);
    sources_.swap(merged);
    doRecount();
    return !missing.empty();
}

void HostGroup::addHeldRecord(RecordList& records) const {
    // A change of the mode that is owed still may find EXCLUDE at the routers.
    if (mode_ == FilterMode::exclude || repeats_ > 0)
        return records.addRecord(RecordType::isEx, group_);
    records.addRecord(RecordType::isIn, group_);
    for (Source const& source : sources_) records.addSource(source.address);
    records.dropEmptyRecord();
}

unsigned HostGroup::timesOwed() const {
    unsigned times = repeats_;
    for (Source const& source : sources_) times = std::max<unsigned>(times, source.repeats);
    return times;
}

void HostGroup::dropChange() { setRepeats(0); }

void HostGroup::setRepeats(unsigned repeats) {
    repeats_ = std::uint8_t(repeats);
    if (counted_ == 0) return;
    std::erase_if(sources_, [](Source const& source) { return !source.listed; });
    for (Source& source : sources_) source.repeats = 0;
    counted_ = 0;
}

void HostGroup::addChangeRecords(RecordList& records) const {
    if (repeats_ > 0) return addListRecord(records, RecordType::toIn, RecordType::toEx);
    addSourceRecord(records, RecordType::allow);
    addSourceRecord(records, RecordType::block);
}

bool HostGroup::changeSent() {
    if (repeats_ > 0) --repeats_;
    if (counted_ == 0) return false;
    for (Source& source : sources_)
        if (source.repeats > 0) --source.repeats;
    auto const ended = [](Source const& s) { return !s.listed && s.repeats == 0; };
    bool const erased = std::erase_if(sources_, ended) > 0;
    doRecount();
    return erased;
}

void HostGroup::addStateRecord(RecordList& records) const {
    addListRecord(records, RecordType::isIn, RecordType::isEx);
}

void HostGroup::addListRecord(RecordList& records, RecordType include, RecordType exclude) const {
    records.addRecord(mode_ == FilterMode::include ? include : exclude, group_);
    for (Source const& source : sources_)
        if (source.listed) records.addSource(source.address);
}

void HostGroup::addSourceRecord(RecordList& records, RecordType type) const {
    records.addRecord(type, group_);
    for (Source const& source : sources_)
        if (source.repeats > 0 && isWanted(source.listed) == (type == RecordType::allow))
            records.addSource(source.address);
    records.dropEmptyRecord();
}

void HostGroup::doRecount() {
    listed_ = counted_ = 0;
    for (Source const& source : sources_) {
        listed_ += source.listed;
        counted_ += source.repeats > 0;
    }
}

} // namespace Agent
