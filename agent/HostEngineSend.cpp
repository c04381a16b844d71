// What leaves, and at which pace: changes told for the first time, changes told again, answers to
// specific queries and the answer to a general query take turns, a packet each (a single group that
// needs several sends them all). None starves another, and a fresh change waits for one turn of
// each other at most, however much they have to tell.
#include "HostEngine.h"

#include <algorithm>
#include <utility>

namespace Agent {

void HostEngine::doSend(double now) {
    while (linkUp_ && budget_.has(now)) {
        if (!late_.empty()) {
            LatePacket packet = std::move(late_.front());
            late_.pop_front();
            doTransmit(packet.counter, packet.bytes);
            continue;
        }
        unsigned turn = 1;
        while (turn <= jobCount && jobDue(Job((lastJob_ + turn) % jobCount)) > now) ++turn;
        if (turn > jobCount) return;
        lastJob_ = (lastJob_ + turn) % jobCount;
        doJob(now, Job(lastJob_));
    }
}

double HostEngine::jobDue(Job job) const {
    switch (job) {
    case freshChanges:
        return fresh_.nextExpiry();
    case repeatedChanges:
        return repeats_.nextExpiry();
    case specificAnswers:
        return answers_.nextExpiry();
    default:
        return walkDue_;
    }
}

void HostEngine::doJob(double now, Job job) {
    if (job == generalAnswer) return doSendWalk(now);
    GroupQueue& queue = job == freshChanges ? fresh_ : job == repeatedChanges ? repeats_ : answers_;
    if (version_ < 3)
        doSendOlderReport(now, queue);
    else if (job == specificAnswers)
        doSendAnswers(now);
    else
        doSendChanges(now, queue);
}

/// Packs one report, or more if a single group exceeds it, from the groups that `first` yields
/// until they end or do not fit. `taken` takes a group off, which may delete it. The number of
/// groups.
template <class First, class Records, class Taken>
std::size_t HostEngine::doFillReport(Counter counter, First first, Records recordsAdd,
                                     Taken taken) {
    ReportBuilder report(settings_.address, settings_.mtu,
                         [&](auto packet) { doTransmit(counter, packet); });
    std::size_t groups = 0;
    while (GroupEntry* entry = first()) {
        records_.clear();
        recordsAdd(entry->group);
        if (!report.fits(records_.octets())) break;
        report.recordsAdd(records_);
        taken(*entry);
        ++groups;
    }
    report.finish();
    return groups;
}

void HostEngine::doSendChanges(double now, GroupQueue& queue) {
    // The groups of one packet share the random delay of the repeat, so that they stay together.
    double again = now + randomDelay(reportIntervalSeconds());
    doFillReport(
        &HostCounters::v3StateChangeReportSent, [&] { return queue.first(now); },
        [&](HostGroup const& group) { group.changeRecordsAdd(records_); },
        [&](GroupEntry& entry) {
            GroupQueue::del(entry.change);
            entry.group.changeSent();
            if (entry.group.hasChange()) repeats_.add(entry.change, now, again);
            doRelease(entry);
        });
}

void HostEngine::doSendAnswers(double now) {
    doFillReport(
        &HostCounters::v3CurrentStateReportSent, [&] { return answers_.first(now); },
        [&](HostGroup const& group) { group.answerRecordsAdd(records_); },
        [&](GroupEntry& entry) {
            entry.answerDel();
            doRelease(entry);
        });
}

/// One packet of the answer to a general query; the rest follows in even steps that end before the
/// response time does.
void HostEngine::doSendWalk(double now) {
    std::size_t named = doFillReport(
        &HostCounters::v3CurrentStateReportSent, [&] { return walking_.first(); },
        [&](HostGroup const& group) { group.stateRecordAdd(records_); },
        [&](GroupEntry& entry) {
            settled_.add(entry.walk);
            if (entry.generalServes) entry.answerDel();
        });
    walkLeft_ -= std::min(named, walkLeft_);
    walkDue_ = never;
    if (walking_.isEmpty()) {
        walkDeadline_ = never;
        return;
    }
    double left = std::max(walkDeadline_ - now, 0.0);
    walkDue_ = now + left * double(named) / double(named + walkLeft_);
}

void HostEngine::doSendOlderReport(double now, GroupQueue& queue) {
    GroupEntry& entry = *queue.first(now);
    HostGroup& group = entry.group;
    entry.answerDel();
    GroupQueue::del(entry.change);
    if (group.hasState()) {
        settled_.add(entry.walk);
        bool v2 = version_ == 2;
        doTransmit(v2 ? &HostCounters::v2ReportsSent : &HostCounters::v1ReportsSent,
                   encodeMessage(v2 ? IgmpType::v2Report : IgmpType::v1Report, settings_.address,
                                 group.group()));
        entry.lastReporter = true;
        group.changeSent();
        if (group.hasChange())
            repeats_.add(entry.change, now, now + randomDelay(reportIntervalSeconds()));
        return;
    }
    // Whoever reported the group after us answers for it; version 1 knows no leave.
    if (entry.lastReporter && version_ == 2)
        doTransmit(&HostCounters::v2LeavesSent,
                   encodeMessage(IgmpType::v2Leave, settings_.address, group.group()));
    entry.lastReporter = false;
    group.changeDel();
    doRelease(entry);
}

/// Sends, or keeps the packet until the budget allows it; only the reports of one group, or the end
/// of one report, are ever kept.
void HostEngine::doTransmit(Counter counter, std::span<std::uint8_t const> packet) {
    if (!budget_.has()) {
        late_.push_back({counter, {packet.begin(), packet.end()}});
        return;
    }
    budget_.packetInc();
    ++(counters_.*counter);
    output_.send(packet);
}

} // namespace Agent
