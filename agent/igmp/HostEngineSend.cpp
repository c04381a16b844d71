// What is sent, and at which pace: changes told for the first time, changes told again, answers to
// specific queries and the answer to a general query take turns, a packet each (a single group that
// needs several sends them all). None starves another, and a fresh change waits for one turn of
// each other at most, however much they have to tell. Leaving altogether has a pace of its own.
#include "agent/igmp/HostEngine.h"

#include <algorithm>
#include <new>
#include <utility>

namespace Agent {

namespace {

/// The delay before a version 2 leave is told again: routers act on one within seconds, so the 10 s
/// of reports would be too late (RFC 2236, 8.8: they ask once more after 1 s).
constexpr double leaveRepeatSeconds = 1;
/// Packets, so that whoever takes them keeps up. A tick of nextExpiry() each is enough for 65,536
/// version 2 leaves, told twice.
constexpr unsigned mostLeavesAtOnce = 2048;

} // namespace

void HostEngine::doSend(double now) {
    if (linkUp_ && leaveDue_ <= now) doSendLeaves(now);
    while (linkUp_ && budget_.has(now)) {
        if (!late_.empty()) {
            doSendLate();
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
/// until they end or do not fit. `taken` takes a group off, which may delete it, or throws before.
/// The number of groups.
template <class First, class Records, class Taken>
std::size_t HostEngine::doFillReport(Counter counter, First first, Records addRecords,
                                     Taken taken) {
    ReportBuilder report(settings_.address, settings_.mtu,
                         [&](auto packet) { doTransmit(counter, packet); });
    std::size_t groups = 0;
    try {
        while (GroupEntry* entry = first()) {
            records_.clear();
            addRecords(entry->group);
            if (!report.fits(records_.octets())) break;
            report.addRecords(records_);
            taken(*entry);
            ++groups;
        }
    } catch (std::bad_alloc const&) { // what has been taken off before leaves all the same
        if (groups == 0) throw;
    }
    report.finish();
    return groups;
}

void HostEngine::doSendChanges(double now, GroupQueue& queue) {
    // The groups of one packet share the random delay of the repeat, so that they stay together.
    double again = now + randomDelay(reportIntervalSeconds());
    repeats_.prepare();
    doFillReport(
        &HostCounters::v3StateChangeReportSent,
        [&] { return late_.empty() ? queue.first(now) : nullptr; },
        [&](HostGroup const& group) { group.addChangeRecords(records_); },
        [&](GroupEntry& entry) {
            doEndChange(entry);
            GroupQueue::del(entry.change);
            entry.told = std::uint32_t(now);
            if (entry.group.hasChange()) repeats_.add(entry.change, now, again);
            doRelease(entry);
        });
}

/// The group's change is in a report of version 3. A leave is told in version 2 as well to routers
/// that may know the group by that alone.
void HostEngine::doEndChange(GroupEntry& entry) {
    if (v2Held_ && entry.lastReporter && !entry.group.hasState()) doTransmitLeave(entry);
    heldChanged_ |= entry.group.changeSent();
}

void HostEngine::doSendAnswers(double now) {
    doFillReport(
        &HostCounters::v3CurrentStateReportSent, [&] { return answers_.first(now); },
        [&](HostGroup const& group) { group.addAnswerRecords(records_); },
        [&](GroupEntry& entry) {
            entry.answered = std::uint32_t(now);
            entry.dropAnswer();
            doRelease(entry);
        });
}

/// One packet of the answer to a general query; the rest follows in even steps that end before the
/// response time does.
void HostEngine::doSendWalk(double now) {
    std::size_t named = doFillReport(
        &HostCounters::v3CurrentStateReportSent, [&] { return walking_.first(); },
        [&](HostGroup const& group) { group.addStateRecord(records_); },
        [&](GroupEntry& entry) {
            entry.answered = std::uint32_t(now);
            settled_.add(entry.walk);
            if (entry.generalServes) entry.dropAnswer();
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
    repeats_.prepare();
    auto const takeOff = [&] {
        entry.dropAnswer();
        GroupQueue::del(entry.change);
    };
    if (group.hasState()) {
        bool v2 = version_ == 2;
        doTransmit(v2 ? &HostCounters::v2ReportsSent : &HostCounters::v1ReportsSent,
                   encodeMessage(v2 ? IgmpType::v2Report : IgmpType::v1Report, settings_.address,
                                 group.group()));
        takeOff();
        settled_.add(entry.walk);
        (group.hasChange() ? entry.told : entry.answered) = std::uint32_t(now);
        entry.lastReporter = true;
        v2Held_ |= v2;
        heldChanged_ |= group.changeSent();
        if (group.hasChange())
            repeats_.add(entry.change, now, now + randomDelay(reportIntervalSeconds()));
        return;
    }
    bool const again = doSendOlderLeave(entry);
    takeOff();
    if (again) {
        double bound = std::min(reportIntervalSeconds(), leaveRepeatSeconds);
        repeats_.add(entry.change, now, now + randomDelay(bound));
    }
    doRelease(entry);
}

/// Whether it is to be told again. RFC 2236, 3, has a host send a leave and says nothing of
/// repeats, unlike for reports; but one that is lost costs minutes of unwanted traffic, and a
/// router that has heard one is checking for members already and does not mind a copy (7).
bool HostEngine::doSendOlderLeave(GroupEntry& entry) {
    HostGroup& group = entry.group;
    // Whoever reported the group after us answers for it; version 1 knows no leave.
    bool v2 = entry.lastReporter && version_ == 2;
    if (v2) doTransmitLeave(entry);
    if (entry.formerV3)
        doFillReport(
            &HostCounters::v3StateChangeReportSent,
            [first = &entry]() mutable { return std::exchange(first, nullptr); },
            [&](HostGroup const&) { group.addChangeRecords(records_); }, [](GroupEntry const&) {});
    if (v2 || entry.formerV3)
        group.changeSent();
    else
        group.dropChange();
    if (group.hasChange()) return true;
    entry.lastReporter = entry.formerV3 = false;
    return false;
}

void HostEngine::doTransmitLeave(GroupEntry const& entry) {
    doTransmit(&HostCounters::v2LeavesSent,
               encodeMessage(IgmpType::v2Leave, settings_.address, entry.group.group()));
}

/// The packets of one round follow each other in even steps, and each group is named in one packet
/// of each round.
void HostEngine::doSendLeaves(double now) {
    budget_.has(now); // the packets count, but need not wait
    struct Unlimited {
        explicit Unlimited(bool& flag) : flag_(flag) { flag_ = true; }
        ~Unlimited() { flag_ = false; } // whatever is thrown
        bool& flag_;
    } const unlimited(unlimited_);
    while (!late_.empty()) doSendLate(); // these count as told, and nothing else would tell them
    auto const packets = [&] { return counters_.v2LeavesSent + counters_.v3StateChangeReportSent; };
    for (auto const before = packets();
         leaveDue_ <= now && packets() - before < mostLeavesAtOnce;) {
        std::size_t named = leaving_.isEmpty() ? 0 : doSendLeave();
        leavingCount_ -= std::min(named, leavingCount_);
        if (!leaving_.isEmpty()) {
            double left = leaveRoundEnd_ - leaveDue_;
            leaveDue_ += left * double(named) / double(named + leavingCount_);
            continue;
        }
        leaving_.addAll(left_);
        leavingCount_ = std::exchange(leftCount_, 0);
        leaveDue_ = leaving_.isEmpty() ? never : leaveRoundEnd_;
        leaveRoundEnd_ += leaveRoundSeconds_;
    }
}

/// One packet; the number of groups that it names.
std::size_t HostEngine::doSendLeave() {
    auto named = [&](GroupEntry& entry, bool again) {
        entry.walk.unlink();
        if (!again) return doRelease(entry);
        left_.add(entry.walk);
        ++leftCount_;
    };
    if (version_ < 3) {
        GroupEntry& entry = *leaving_.first();
        named(entry, doSendOlderLeave(entry));
        return 1;
    }
    return doFillReport(
        &HostCounters::v3StateChangeReportSent, [&] { return leaving_.first(); },
        [&](HostGroup const& group) { group.addChangeRecords(records_); },
        [&](GroupEntry& entry) {
            doEndChange(entry);
            named(entry, entry.group.hasChange());
        });
}

/// What has waited longest.
void HostEngine::doSendLate() {
    LatePacket const packet = std::move(late_.front());
    late_.pop_front();
    doTransmit(packet.counter, packet.bytes);
}

/// Sends, or keeps the packet until the budget allows it; only what one group needs, or the end of
/// one report, is ever kept.
void HostEngine::doTransmit(Counter counter, std::span<std::uint8_t const> packet) {
    if (!budget_.has() && !unlimited_) {
        late_.push_back({counter, {packet.begin(), packet.end()}});
        return;
    }
    budget_.countPacket();
    ++(counters_.*counter);
    output_.send(packet);
}

} // namespace Agent
