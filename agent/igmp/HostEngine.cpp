#include "agent/igmp/HostEngine.h"

#include <algorithm>
#include <cmath>

namespace Agent {

namespace {

constexpr unsigned leastRobustness = 2;
constexpr unsigned mostRobustness = 255;
constexpr unsigned leastMtu = 68;
constexpr unsigned mostMtu = 65535;
constexpr double quietSeconds = 600; // between two warnings of a kind
constexpr double leaveTicksPerSecond = 128;

} // namespace

HostCounters HostCounters::since(HostCounters const& earlier) const {
    HostCounters counters = *this;
#define AGENT_SUBTRACT(type, name, Name) counters.name -= earlier.name;
    AGENT_HOST_COUNTERS(AGENT_SUBTRACT)
#undef AGENT_SUBTRACT
    for (std::size_t i = 0; i < dropped.size(); ++i) counters.dropped[i] -= earlier.dropped[i];
    return counters;
}

HostEngine::HostEngine(Output& output, std::mt19937 random) : output_(output), random_(random) {
    budget_.setLimit(settings_.packetsPer100ms);
}

void HostEngine::setSettings(double now, Settings settings) {
    fresh_.prepare(); // until packets are sent, no memory is taken from here on
    bool moved = settings.address != settings_.address;
    unsigned before = version_;
    settings_ = std::move(settings);
    settings_.version = std::clamp(settings_.version, 1u, 3u);
    settings_.mtu = std::clamp(settings_.mtu, leastMtu, mostMtu);
    settings_.robustness = std::clamp(settings_.robustness, leastRobustness, mostRobustness);
    settings_.ssmOnly &= settings_.version == 3;
    if (settings_.version < 3) heardRobustness_ = 0;
    if (settings_.ssmOnly) v1QuerierExpiry_ = v2QuerierExpiry_ = never;
    settings_.packetsPer100ms = std::max(settings_.packetsPer100ms, 1u);
    budget_.setLimit(settings_.packetsPer100ms);
    handleVersion(now);
    // They count as told, and what they take back is not announced again.
    for (LatePacket& packet : late_) setSource(packet.bytes, settings_.address);
    if (moved || version_ != before) doAnnounceAll(now);
    doSend(now);
}

void HostEngine::setGroup(Lox::IpAddr group, FilterMode mode,
                          std::span<Lox::IpAddr const> sources) {
    if (!group.isMulticast() || group == allSystems) return;
    GroupEntry& entry = groups_.try_emplace(group, group).first->second;
    Wish wish{&entry, mode, wishSources_.size(), 0};
    wishSources_.insert(wishSources_.end(), sources.begin(), sources.end());
    auto first = wishSources_.begin() + std::ptrdiff_t(wish.firstSource);
    std::sort(first, wishSources_.end());
    wishSources_.erase(std::unique(first, wishSources_.end()), wishSources_.end());
    wish.sourceCount = wishSources_.size() - wish.firstSource;
    if (entry.wish != GroupEntry::noWish) {
        wishes_[entry.wish] = wish;
        return;
    }
    wishes_.push_back(wish);
    entry.wish = std::uint32_t(wishes_.size() - 1);
}

void HostEngine::removeAllGroups() {
    for (auto& [address, entry] : groups_) removeGroup(address);
}

void HostEngine::removeGroup(Lox::IpAddr group) {
    if (groups_.count(group) > 0) setGroup(group, FilterMode::include, {});
}

void HostEngine::flush(double now) {
    doApplyWishes(now);
    doSend(now);
}

void HostEngine::doApplyWishes(double now) {
    // Those behind one that fails are forgotten: entries must not point at wishes that are gone.
    auto const forget = [this](Wish const* first) {
        for (; first != wishes_.data() + wishes_.size(); ++first) {
            first->entry->wish = GroupEntry::noWish;
            doRelease(*first->entry);
        }
        // There may have been very many, and more are seldom.
        wishes_ = std::vector<Wish>();
        wishSources_ = std::vector<Lox::IpAddr>();
    };
    Wish const* wish = wishes_.data();
    try {
        for (; wish != wishes_.data() + wishes_.size(); ++wish) doApply(now, *wish);
    } catch (...) {
        forget(wish);
        throw;
    }
    forget(wish);
}

void HostEngine::doApply(double now, Wish const& wish) {
    fresh_.prepare(); // what has changed is told, or has not changed
    GroupEntry& entry = *wish.entry;
    entry.wish = GroupEntry::noWish;
    HostGroup& group = entry.group;
    bool refused = handleExclude(now, wish);
    std::span sources(wishSources_.data() + wish.firstSource, refused ? 0 : wish.sourceCount);
    bool wasMember = group.hasState();
    unsigned reports = group.repeats();
    std::size_t octets = group.stateOctets();
    bool changed = group.setState(refused ? FilterMode::include : wish.mode, sources, robustness());
    stateOctets_ += group.stateOctets() - octets;
    bool joinedOrLeft = group.hasState() != wasMember;
    if (joinedOrLeft && wasMember) {
        entry.walk.unlink();
        --members_;
    } else if (joinedOrLeft) {
        settled_.add(entry.walk);
        ++members_;
    }
    if (version_ < 3) { // only membership counts
        changed = joinedOrLeft;
        group.setRepeats(joinedOrLeft ? robustness() : reports);
    }
    if (!linkUp_)
        group.dropChange();
    else if (changed && entry.change.queue != &fresh_)
        fresh_.add(entry.change, now, now);
    heldChanged_ |= changed;
    doRelease(entry);
}

/// Warns of EXCLUDE where routers do not expect it. Whether it must not be announced at all, as in
/// the source-specific range (RFC 4604).
bool HostEngine::handleExclude(double now, Wish const& wish) {
    if (wish.mode != FilterMode::exclude) return false;
    Lox::IpAddr group = wish.entry->group.group();
    bool refused = group.isSourceSpecific();
    if (refused)
        doWarn(now, ssmExclude,
               [&] { return group.stringValue() + ": no EXCLUDE in 232.0.0.0/8, not announced"; });
    else if (wish.sourceCount > 0) // such routers follow RFC 5790
        doWarn(now, excludeList, [&] {
            return group.stringValue() + ": some routers ignore lists of excluded sources";
        });
    return refused;
}

void HostEngine::handleVersion(double now) {
    if (v1QuerierExpiry_ <= now) v1QuerierExpiry_ = never;
    if (v2QuerierExpiry_ <= now) v2QuerierExpiry_ = never;
    unsigned querier = v1QuerierExpiry_ != never ? 1 : v2QuerierExpiry_ != never ? 2 : 3;
    unsigned version = std::min(settings_.version, querier);
    if (version == version_) return;
    version_ = version;
    heldChanged_ = true;
    doCancel();
    char note[] = "speaks version 3"; // which takes no memory
    note[sizeof note - 2] = char('0' + version);
    if (linkUp_) output_.note(note);
}

HostEngine::GroupTimes HostEngine::times(Lox::IpAddr group) const {
    auto const found = groups_.find(group);
    if (found == groups_.end()) return {};
    return {found->second.told, found->second.answered};
}

HostEngine::GroupState HostEngine::state(Lox::IpAddr group) const {
    auto const found = groups_.find(group);
    if (found == groups_.end() || !found->second.group.hasState()) return {};
    RecordList records;
    found->second.group.addStateRecord(records);
    GroupRecord const record = records.record(0);
    return {record.type == RecordType::isEx ? FilterMode::exclude : FilterMode::include,
            {record.sources.begin(), record.sources.end()}};
}

double HostEngine::versionExpiry() const {
    double expiry = -never;
    for (double const each : {v1QuerierExpiry_, v2QuerierExpiry_})
        if (each != never) expiry = std::max(expiry, each);
    return expiry == -never || version_ == settings_.version ? never : expiry;
}

/// Cancels pending answers and repeats (RFC 9776, 7.2.1). A change that nobody has heard of yet is
/// neither: it leaves in the version now spoken.
void HostEngine::doCancel() {
    late_.clear();
    doDrop(repeats_);
    doCancelAnswers();
}

void HostEngine::doCancelAnswers() {
    doDrop(answers_);
    generalDue_ = generalDeadline_ = walkDue_ = walkDeadline_ = never;
    olderQueryTime_ = -never;
}

void HostEngine::doDrop(GroupQueue& queue) {
    while (GroupEntry* entry = queue.first()) {
        if (&queue == &answers_)
            entry->dropAnswer();
        else
            entry->dropChange();
        doRelease(*entry);
    }
}

void HostEngine::doAnnounceAll(double now) {
    if (!linkUp_) return;
    fresh_.prepare();
    for (auto& [address, entry] : groups_) {
        if (!entry.group.hasState()) continue;
        if (version_ < 3)
            entry.group.setRepeats(robustness());
        else
            entry.group.announce(robustness());
        if (entry.change.queue != &fresh_) fresh_.add(entry.change, now, now);
    }
}

void HostEngine::doRelease(GroupEntry& entry) {
    // Without state, the walk is that of leaving.
    bool pending =
        entry.change.queue != nullptr || entry.answer.queue != nullptr || entry.walk.isLinked();
    if (pending || entry.group.hasState() || entry.wish != GroupEntry::noWish) return;
    groups_.erase(entry.group.group());
    heldChanged_ = true;
}

double HostEngine::nextExpiry() const {
    double work = late_.empty() ? never : -never;
    for (unsigned job = 0; job < jobCount; ++job) work = std::min(work, jobDue(Job(job)));
    // Many leaves share a turn of whoever serves the engine.
    double leave = std::ceil(leaveDue_ * leaveTicksPerSecond) / leaveTicksPerSecond;
    return std::min({std::max(work, budget_.nextExpiry()), leave, generalDue_, v1QuerierExpiry_,
                     v2QuerierExpiry_});
}

bool HostEngine::telling() const {
    return !late_.empty() || fresh_.nextExpiry() != never || repeats_.nextExpiry() != never ||
           !hasLeft();
}

void HostEngine::advance(double now) {
    handleVersion(now);
    if (generalDue_ <= now) {
        // What an earlier answer has yet to name comes first, so that no number of queries keeps
        // it from being named. Nor do they put it off.
        walking_.addAll(settled_);
        walkLeft_ = members_;
        walkDue_ = now;
        walkDeadline_ = std::min(walkDeadline_, generalDeadline_);
        generalDue_ = generalDeadline_ = never;
    }
    doSend(now);
}

void HostEngine::linkDown(double now) {
    if (linkUp_) {
        doReckonFormer(now); // so that no group stands in it twice, however often the link goes
        for (auto const& [address, entry] : groups_) addHeldRecord(former_, entry);
        heldChanged_ = true;
    }
    linkUp_ = false;
    v1QuerierExpiry_ = v2QuerierExpiry_ = never;
    heardRobustness_ = 0;
    querier_ = {};
    handleVersion(now);
    doCancel();
    doDrop(fresh_);
    leaving_.addAll(left_);
    leavingCount_ = leftCount_ = 0;
    leaveDue_ = never;
    while (GroupEntry* entry = leaving_.first()) {
        entry->walk.unlink();
        entry->group.dropChange();
        doRelease(*entry);
    }
}

void HostEngine::linkUp(double now) {
    doApplyWishes(now);
    linkUp_ = true;
    heldChanged_ = true;
    doAnnounceAll(now);
    doSend(now);
}

void HostEngine::announceAgain(double now) {
    doAnnounceAll(now);
    doSend(now);
}

void HostEngine::addFormer(RecordList const& records) {
    for (std::size_t i = 0; i < records.size(); ++i) former_.addRecord(records.record(i));
}

bool HostEngine::addHeldRecords(RecordList& records, HeldPlace& place, std::size_t most) const {
    // Where the groups have found another order, they are told once more.
    if (place.buckets != groups_.bucket_count()) place = {groups_.bucket_count(), 0};
    for (; most > 0; --most, ++place.at) {
        if (place.at < place.buckets) {
            for (auto at = groups_.begin(place.at); linkUp_ && at != groups_.end(place.at); ++at)
                addHeldRecord(records, at->second);
        } else {
            std::size_t const former = place.at - place.buckets;
            if (former >= former_.size()) return false;
            records.addRecord(former_.record(former));
        }
    }
    return true;
}

/// In the version by which routers know it. That is the one spoken now, which every group is told
/// in as it is taken up; version 2 outlives the memory of its querier; and version 1 knows no
/// leave, and has routers ignore those of the others (RFC 9776, 7.3.2).
void HostEngine::addHeldRecord(RecordList& records, GroupEntry const& entry) const {
    HostGroup const& group = entry.group;
    if (version_ == 3) group.addHeldRecord(records);
    if (version_ < 3 && entry.formerV3) records.addRecord(RecordType::isEx, group.group());
    bool v2 = version_ == 2 ? group.hasState() || group.hasChange()
                            : version_ == 3 && v2Held_ && entry.lastReporter;
    if (v2) records.addRecord(RecordType::member, group.group());
}

void HostEngine::formerEnd(double now) {
    if (!linkUp_ || !hasFormer()) return;
    doReckonFormer(now);
    doSend(now);
}

/// A leave is owed in the version that told of the group, for a router may know no other: one of
/// version 2 ignores the records of version 3, and one of version 3 heeds a version 2 leave only
/// where it has heard a version 2 report (RFC 9776, 7.3.2). The version spoken now is not left out:
/// the routers may have changed meanwhile, and to those that know the group by the other version,
/// it does no harm.
void HostEngine::doReckonFormer(double now) {
    fresh_.prepare();
    for (std::size_t i = 0; i < former_.size(); ++i) {
        GroupRecord record = former_.record(i);
        GroupEntry& entry = groups_.try_emplace(record.group, record.group).first->second;
        HostGroup& group = entry.group;
        bool v2 = record.type == RecordType::member;
        bool owed = false;
        if (version_ == 3) {
            auto mode = record.type == RecordType::isIn ? FilterMode::include : FilterMode::exclude;
            owed = group.setFormer(mode, record.sources, robustness());
        } else if (!group.hasState()) { // only membership counts
            group.setRepeats(robustness());
            entry.formerV3 |= !v2;
            owed = v2 = true;
        }
        if (v2) entry.lastReporter = v2Held_ = true; // as far as anybody knows
        if (owed && entry.change.queue != &fresh_) fresh_.add(entry.change, now, now);
        doRelease(entry);
    }
    former_.clear();
    heldChanged_ = true;
}

void HostEngine::leaveAll(double now) {
    removeAllGroups();
    doApplyWishes(now);
    if (!linkUp_) return;
    doReckonFormer(now);
    leaving_.addAll(left_);
    leavingCount_ += std::exchange(leftCount_, 0);
    for (GroupQueue* queue : {&fresh_, &repeats_})
        while (GroupEntry* entry = queue->first()) {
            GroupQueue::del(entry->change);
            leaving_.add(entry->walk);
            ++leavingCount_;
        }
    doCancelAnswers();
    if (leaving_.isEmpty() && late_.empty()) return;
    // What was given up before may be owed more often than a querier that was heard since demands.
    unsigned rounds = 1;
    for (GroupEntry* entry = leaving_.first(); entry; entry = entry->walk.next->entry)
        rounds = std::max(rounds, entry->group.timesOwed());
    leaveDue_ = now;
    leaveRoundSeconds_ = leaveSeconds / rounds;
    leaveRoundEnd_ = now + leaveRoundSeconds_;
    doSend(now);
}

unsigned HostEngine::robustness() const {
    return heardRobustness_ != 0 ? heardRobustness_ : settings_.robustness;
}

double HostEngine::reportIntervalSeconds() const {
    double configured = settings_.unsolicitedReportInterval;
    if (configured > 0) return configured;
    return version_ == 3 ? 1 : 10;
}

double HostEngine::randomDelay(double boundSeconds) {
    constexpr double least = 1e-6; // never zero, unless the bound is
    return boundSeconds * std::max(std::uniform_real_distribution<double>()(random_), least);
}

void HostEngine::doWarn(double now, Warning warning, std::function<std::string()> const& text) {
    if (now < quietUntil_[warning]) return;
    quietUntil_[warning] = now + quietSeconds;
    output_.warn(text());
}

} // namespace Agent
