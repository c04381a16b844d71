// What arrives: queries, which are answered later, and the reports of other hosts, which matter to
// the older versions alone.
#include "agent/igmp/HostEngine.h"

#include <algorithm>
#include <fmt/format.h>

namespace Agent {

namespace {

constexpr double tenth = 0.1; // unit of the Max Resp Time, in seconds
/// An older host's longest delay, whatever is asked (RFC 1112, appendix I).
constexpr double v1ResponseSeconds = 10;
/// How long a version 1 router counts as present to a version 2 host (RFC 2236, 8.11).
constexpr double v1RouterSeconds = 400;
/// Hosts do not know the interval of an older querier and go by the default (RFC 9776, 8.12).
constexpr double queryIntervalSeconds = 125;
/// Older general queries closer together than this are copies. Without a bound a flood of them
/// would have us set all timers over and over.
constexpr double copySeconds = 0.1;
/// Of the response time that the reports of all groups take. Above it, timers at random would have
/// the last reports queue up beyond its end.
constexpr double mostLoad = 0.9;

} // namespace

void HostEngine::received(double now, std::span<std::uint8_t const> ipPacket) {
    if (!linkUp_) return;
    DropReason reason;
    auto datagram = IgmpDatagram::decode(ipPacket, reason);
    if (!datagram) return dropped(reason);
    if (!settings_.address.isZero() && datagram->source == settings_.address)
        return dropped(DropReason::ownPacket);
    switch (datagram->type) {
    case IgmpType::query:
        return handleQuery(now, *datagram);
    case IgmpType::v1Report:
    case IgmpType::v2Report:
        return handleOlderReport(now, *datagram);
    case IgmpType::v3Report:
        ++counters_.v3ReportReceived;
        return;
    default:
        return;
    }
}

void HostEngine::handleQuery(double now, IgmpDatagram const& datagram) {
    DropReason reason;
    auto query = IgmpQuery::decode(datagram.payload, settings_.version, reason);
    if (!query) return dropped(reason);
    if (!isForUs(datagram.destination, *query)) return dropped(DropReason::strayDestination);
    if (query->wireVersion > 1 && !datagram.routerAlert && settings_.requireRouterAlert)
        return dropped(DropReason::noRouterAlert);
    doCountQuery(*query);
    doCountOddities(now, datagram, *query);
    if (query->isGeneral()) doNoteQuerier(now, datagram.source, *query);
    if (query->version < 3)
        handleOlderQuerier(now, *query);
    else // 0 stands for our own (RFC 9776, 4.1.6)
        heardRobustness_ = query->robustness > 0 ? std::max<unsigned>(query->robustness, 2) : 0;
    handleVersion(now);
    // A querier of version 3 heeds its records, whatever it has heard before (RFC 9776, 7.3.2).
    if (version_ == 3 && query->version == 3 && query->isGeneral()) v2Held_ = false;
    if (query->version < 3 && settings_.ssmOnly) return;
    if (query->isGeneral())
        output_.noteRoutine(fmt::format(
            "version {} general query from {}, {}", query->wireVersion,
            datagram.source.stringValue(),
            members_ == 0 ? "nothing to answer"
                          : fmt::format("answered over {:.1f} s", responseSeconds(*query))));
    if (version_ == 3)
        doScheduleAnswer(now, *query);
    else
        doScheduleOlderReports(now, *query);
}

/// A query may go to any address of the interface, unicast or multicast, and so to a group that we
/// are a member of (RFC 9776, 4.1.12); a general one to no group but all systems (9.1). A router
/// also receives what it is to forward.
bool HostEngine::isForUs(Lox::IpAddr destination, IgmpQuery const& query) const {
    if (destination == allSystems) return true;
    if (destination.isMulticast())
        return !query.isGeneral() && (destination == query.group || isMember(destination));
    auto const& ours = settings_.localAddresses;
    return !destination.isZero() &&
           (destination == settings_.address ||
            std::find(ours.begin(), ours.end(), destination) != ours.end());
}

bool HostEngine::isMember(Lox::IpAddr group) const {
    auto found = groups_.find(group);
    return found != groups_.end() && found->second.group.hasState();
}

void HostEngine::doCountQuery(IgmpQuery const& query) {
    bool general = query.group.isZero();
    if (query.wireVersion == 1)
        ++counters_.v1QueryReceived;
    else if (query.wireVersion == 2 && general)
        ++counters_.v2GeneralQueryReceived;
    else if (query.wireVersion == 2)
        ++counters_.v2GroupQueryReceived;
    else if (general)
        ++counters_.v3GeneralQueryReceived;
    else if (query.sources.empty())
        ++counters_.v3GroupQueryReceived;
    else
        ++counters_.v3GroupSourceQueryReceived;
}

/// 0.0.0.0 is no querier but a switch that asks while there is none.
void HostEngine::doNoteQuerier(double now, Lox::IpAddr address, IgmpQuery const& query) {
    if (address.isZero()) return;
    bool const same = querier_.address == address && querier_.version == query.wireVersion;
    if (!same)
        output_.note(
            fmt::format("querier {} speaks version {}", address.stringValue(), query.wireVersion));
    querier_ = {query.wireVersion, address, now};
}

void HostEngine::doCountOddities(double now, IgmpDatagram const& datagram, IgmpQuery const& query) {
    std::uint32_t different = datagram.source.host() ^ settings_.address.host();
    unsigned length = std::min(settings_.prefixLength, 32u);
    bool offSubnet = length > 0 && different >> (32 - length) != 0;
    if (datagram.source.isZero() || offSubnet) ++counters_.oddSource;
    if (datagram.ttl != 1) ++counters_.oddTtl;
    if (query.wireVersion == 1 || datagram.routerAlert) return;
    ++counters_.oddRouterAlert;
    doWarn(now, routerAlert, [&] {
        return "query without Router Alert from " + datagram.source.stringValue() + ", accepted";
    });
}

/// Starts the timer of an older querier. A version 2 query for a group is sent by newer queriers as
/// well and says nothing of their version (RFC 9776, 7.2.1); nor does what an older host makes of a
/// version 3 query, should it become a host of version 3.
void HostEngine::handleOlderQuerier(double now, IgmpQuery const& query) {
    if (!query.isGeneral() || (query.version == 2 && query.wireVersion == 3)) return;
    if (settings_.version == 3)
        doWarn(now, olderQuery, [&] {
            return "IGMPv" + std::to_string(query.version) + " querier heard" +
                   (settings_.ssmOnly ? ", ignored" : ": sources cannot be announced");
        });
    if (settings_.ssmOnly) return;
    double present = settings_.robustness * queryIntervalSeconds + 10 * responseSeconds(query);
    if (query.version == 2)
        v2QuerierExpiry_ = now + present;
    else
        v1QuerierExpiry_ = now + (settings_.version == 3 ? present : v1RouterSeconds);
}

/// The Max Resp Time.
double HostEngine::responseSeconds(IgmpQuery const& query) const {
    if (query.version == 1) return v1ResponseSeconds;
    return tenth * (query.version == 2 ? query.maxRespCode : codedValue(query.maxRespCode));
}

/// The rules of RFC 9776, 5.2, in their order.
void HostEngine::doScheduleAnswer(double now, IgmpQuery const& query) {
    double bound = responseSeconds(query);
    if (query.isGeneral()) return doScheduleGeneralAnswer(now, bound);
    double due = now + randomDelay(bound);
    auto found = groups_.find(query.group);
    if (found == groups_.end() || !found->second.group.hasState()) return;
    GroupEntry& entry = found->second;
    bool pending = entry.answer.queue != nullptr;
    // Rule 1: no answer of its own if the general one comes sooner. But that is spread up to its
    // deadline: which of them does shows when the first of them leaves. What was owed before the
    // general query stays owed.
    bool sooner = generalDue_ <= due;
    entry.generalServes = (sooner || walkDue_ != never) && (!pending || entry.generalServes);
    entry.group.noteAsked(query.sources, pending);
    if (!pending || due < entry.answer.due)
        answers_.add(entry.answer, sooner ? std::max(now, generalDue_) : now, due);
}

/// The answer begins early enough to end within the response time. What an earlier query is still
/// owed comes no later for this one.
void HostEngine::doScheduleGeneralAnswer(double now, double boundSeconds) {
    if (members_ == 0) return;
    double latestStart = std::max(boundSeconds - walkSeconds(), 0.0);
    generalDue_ = std::min(generalDue_, now + randomDelay(latestStart));
    generalDeadline_ = std::min(generalDeadline_, now + boundSeconds);
}

/// About how long the answer to a general query takes at the pacing limit: as if all groups were of
/// the mean size.
double HostEngine::walkSeconds() const {
    std::size_t room = settings_.mtu - ipHeaderOctets - messageOctets;
    std::size_t groupsInPacket = room * members_ / stateOctets_;
    double packets = groupsInPacket > 0 ? double(members_) / double(groupsInPacket)
                                        : double(stateOctets_) / double(room);
    return budget_.secondsFor(packets);
}

void HostEngine::doScheduleOlderReports(double now, IgmpQuery const& query) {
    double bound = responseSeconds(query);
    if (version_ == 1) bound = std::min(bound, v1ResponseSeconds);
    if (!query.isGeneral()) {
        auto found = groups_.find(query.group);
        if (found != groups_.end()) doScheduleOlderAnswer(now, bound, found->second);
        return;
    }
    if (now < olderQueryTime_ + copySeconds && olderQueryDeadline_ <= now + bound) return;
    olderQueryTime_ = now;
    olderQueryDeadline_ = now + bound;
    double needed = budget_.secondsFor(double(members_));
    if (needed > std::max(bound, copySeconds))
        doWarn(now, pace, [&] {
            return fmt::format(
                "{} groups take {:.1f} s to report at packets-per-100-ms = {}, longer "
                "than the {:.1f} s of the query: some answers come late",
                members_, needed, settings_.packetsPer100ms, bound);
        });
    // Where the pace leaves no room for chance, the groups take turns: whoever was reported longest
    // ago, by anybody, comes first.
    bool inTurn = needed > mostLoad * bound;
    double width = inTurn ? bound / double(members_) : bound;
    double turn = now;
    walking_.addAll(settled_);
    for (GroupEntry* entry = walking_.first(); entry; entry = entry->walk.next->entry) {
        if (!isDueBy(*entry, now + bound))
            repeats_.add(entry->change, now, turn + randomDelay(width));
        if (inTurn) turn += width;
    }
}

/// Whether the group's timer need not be set: one that runs is shortened, never extended (RFC 2236,
/// 3), and what nobody has heard yet is told anyway.
bool HostEngine::isDueBy(GroupEntry const& entry, double time) const {
    TimedLink const &change = entry.change, &answer = entry.answer;
    return change.queue == &fresh_ || (change.queue == &repeats_ && change.due <= time) ||
           (answer.queue && answer.due <= time);
}

/// The same timer, but its end has a turn of its own: many groups may be due before this one, and
/// the router that asks for one group alone is about to drop it.
void HostEngine::doScheduleOlderAnswer(double now, double boundSeconds, GroupEntry& entry) {
    TimedLink const& change = entry.change;
    double latest = now + boundSeconds;
    if (!entry.group.hasState() || (entry.answer.queue && entry.answer.due <= latest)) return;
    bool runs = change.queue == &repeats_ && change.due <= latest;
    answers_.add(entry.answer, now, runs ? change.due : now + randomDelay(boundSeconds));
}

/// Another host answers for the group, so ours is silent. What nobody has heard yet is told anyway.
/// The routers hear the group alone: a report to any other address must not silence ours.
void HostEngine::handleOlderReport(double now, IgmpDatagram const& datagram) {
    if (!datagram.group().isMulticast()) return dropped(DropReason::badGroup);
    if (datagram.destination != datagram.group()) return dropped(DropReason::strayDestination);
    ++counters_.v12ReportReceived;
    handleVersion(now);
    auto found = groups_.find(datagram.group());
    if (version_ == 3 || found == groups_.end()) return;
    GroupEntry& entry = found->second;
    bool repeats = entry.change.queue == &repeats_;
    if (entry.group.hasState()) {
        settled_.add(entry.walk);
        if (!repeats && entry.answer.queue == nullptr) return;
        entry.dropAnswer();
        if (repeats) entry.dropChange();
    } else { // somebody else is a member: our leave need not be told again
        if (!repeats && !entry.walk.isLinked()) return;
        entry.walk.unlink();
        entry.dropChange();
    }
    entry.lastReporter = false;
    doRelease(entry);
}

} // namespace Agent
