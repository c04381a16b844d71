// The host side of IGMP on one interface: announces the wanted groups to the routers and answers
// their queries, in version 3 (RFC 9776) or as an older querier requires (RFC 2236, RFC 1112).
// Pure logic: it is told the time and the packets received, and hands over packets to send.
//
// Timers: a queue of the changes to repeat, a queue of the answers to specific queries, one timer
// for the answer to a general query and the pace of that answer, one for the pace of leaving, and
// one timer for each older version whose querier is present. Times are absolute seconds that never
// go back.
#pragma once

#include "Igmp/PacketCounters.h"
#include "agent/igmp/GroupQueue.h"
#include "agent/igmp/IgmpPacket.h"
#include "agent/igmp/PacketBudget.h"
#include "agent/igmp/ReportBuilder.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Agent {

/// Packets by the version on the wire, whatever version we speak.
#define AGENT_HOST_COUNTERS(COUNTER)                                                               \
    IGMP_PACKET_COUNTERS(COUNTER, COUNTER)                                                         \
    /* queries used in spite of: a source of 0.0.0.0 or off the subnet, a TTL other than 1, */     \
    /* no Router Alert in version 2 or 3 */                                                        \
    COUNTER(std::uint32_t, oddSource, OddSource)                                                   \
    COUNTER(std::uint32_t, oddTtl, OddTtl)                                                         \
    COUNTER(std::uint32_t, oddRouterAlert, OddRouterAlert)

struct HostCounters {
#define AGENT_MEMBER(type, name, Name) type name = 0;
    AGENT_HOST_COUNTERS(AGENT_MEMBER)
#undef AGENT_MEMBER
    std::array<std::uint32_t, std::size_t(DropReason::count)> dropped{}; ///< by DropReason

    /// What has been counted since they stood like that.
    HostCounters since(HostCounters const& earlier) const;
};

class HostEngine {
  public:
    struct Settings {
        unsigned version = 3; ///< the highest to speak, 1 to 3
        /// Bound of the random delay before a change is told again, in seconds. 0 or less: the
        /// default of the version in use, 1 s in version 3 (RFC 9776, 8.11) and 10 s before (RFC
        /// 2236, 8.10).
        double unsolicitedReportInterval = 0;
        Lox::IpAddr address; ///< source of our packets; zero while the interface has none
        std::vector<Lox::IpAddr> localAddresses; ///< of the interface, others than `address` too
        unsigned prefixLength = 0; ///< of the address; 0: every querier counts as on the subnet
        unsigned mtu = 1500;       ///< octets
        unsigned robustness = 2;   ///< how often a change is told; less counts as 2
        bool requireRouterAlert = false;
        bool ssmOnly = false;           ///< with version 3: older queries are ignored
        unsigned packetsPer100ms = 100; ///< in any 100 ms; 0 counts as 1
    };

    /// Where packets and warnings go; outlives the engine.
    class Output {
      public:
        virtual ~Output() = default;
        /// A whole IPv4 packet; the bytes last for the call.
        virtual void send(std::span<std::uint8_t const> ipPacket) = 0;
        /// A line for the log, limited in rate.
        virtual void warn(std::string const& text) = 0;
        /// What operators follow when they look for a cause, such as another querier.
        virtual void note(std::string_view /*text*/) {}
        /// The same of what happens all the time.
        virtual void noteRoutine(std::string_view /*text*/) {}
    };

    /// All random delays come from `random`. The link counts as down until linkUp().
    HostEngine(Output& output, std::mt19937 random);
    HostEngine(HostEngine const&) = delete;
    HostEngine& operator=(HostEngine const&) = delete;

    /// A new address, or a version that changes what we speak, announces the whole state again.
    void setSettings(double now, Settings settings);

    /// The finished wanted state of a group, in force at the next flush(). Sources in any order.
    /// Groups that cannot be reported are ignored: 224.0.0.1 (RFC 9776, 5) and unicast addresses.
    void setGroup(Lox::IpAddr group, FilterMode mode, std::span<Lox::IpAddr const> sources);
    /// The group is not wanted any more: INCLUDE{}.
    void removeGroup(Lox::IpAddr group);
    /// No group is wanted any more, but for those that are given again before the next flush().
    void removeAllGroups();
    /// The end of a turn: what differs from the last turn is told to the routers.
    void flush(double now);

    /// A whole IPv4 packet that arrived, possibly padded. Frames addressed to other hosts are the
    /// caller's to discard.
    void received(double now, std::span<std::uint8_t const> ipPacket);

    /// When advance() is to be called: absolute seconds, `never` for not at all.
    double nextExpiry() const;
    /// Does what is due.
    void advance(double now);

    /// Drops everything pending and forgets older queriers; groups stay wanted. What routers may
    /// hold is remembered as former state.
    void linkDown(double now);
    /// Announces the whole state, with what this turn wants.
    void linkUp(double now);

    /// Announces the whole state once more: something of what was told has been lost.
    void announceAgain(double now);

    /// Adds state that routers may hold from an earlier time. It is left only by formerEnd(), for
    /// groups that are wanted again may take some time to come.
    void addFormer(RecordList const& records);
    bool hasFormer() const { return former_.size() > 0; }
    /// What is wanted is known: former state beyond it is taken back, once the link is up.
    void formerEnd(double now);
    /// How far addHeldRecords() has come. A fresh one stands at the beginning.
    struct HeldPlace {
        std::size_t buckets = 0;
        std::size_t at = 0;
    };
    /// Appends what routers may hold by about `most` groups from `place` on: IS_IN, IS_EX and
    /// members, a group possibly more than once. Returns whether there may be more. Between two
    /// calls, groups may come and go.
    bool addHeldRecords(RecordList& records, HeldPlace& place, std::size_t most) const;
    /// Whether that has changed since the last call.
    bool takeHeldChange() { return std::exchange(heldChanged_, false); }

    /// Leaves every group, as often as changes are told, evenly spread over `leaveSeconds` however
    /// many there are: the packet limit yields. Groups may come back meanwhile.
    void leaveAll(double now);
    /// Whether a change is still to be told, or told again.
    bool telling() const;
    /// Whether that is over.
    bool hasLeft() const { return leaveDue_ == never; }
    static constexpr double leaveSeconds = 0.7;

    HostCounters const& counters() const { return counters_; }
    /// What we speak now, 1 to 3: the older of the setting and the queriers heard.
    unsigned version() const { return version_; }
    /// When what we speak may become newer, if no older query is heard until then; `never` while
    /// that is what the setting says.
    double versionExpiry() const;
    /// Who sent the last general query that was used.
    struct Querier {
        unsigned version = 0; ///< 0: none has been heard since the link came up
        Lox::IpAddr address;
        double heard = 0;
    };
    Querier const& querier() const { return querier_; }
    /// How many groups are wanted that can be told.
    std::size_t memberCount() const { return members_; }
    /// What is wanted of a group, as of the last flush().
    struct GroupState {
        FilterMode mode = FilterMode::include;
        std::vector<Lox::IpAddr> sources; ///< ascending
        /// Anything but INCLUDE{}.
        bool member() const { return mode == FilterMode::exclude || !sources.empty(); }
        friend bool operator==(GroupState const&, GroupState const&) = default;
    };
    GroupState state(Lox::IpAddr group) const;
    /// Whether that is anything but INCLUDE{}.
    bool isMember(Lox::IpAddr group) const;
    /// When a group was named last, in whole seconds; 0 for never.
    struct GroupTimes {
        std::uint32_t told = 0;     ///< for a change
        std::uint32_t answered = 0; ///< in an answer to a query
    };
    GroupTimes times(Lox::IpAddr group) const;
    /// Calls `visit(group)` for every group that is wanted.
    template <class Visit>
    void forMembers(Visit visit) const {
        for (auto const& [address, entry] : groups_)
            if (entry.group.hasState()) visit(address);
    }

  private:
    using Counter = std::uint32_t HostCounters::*;
    enum Job : unsigned { freshChanges, repeatedChanges, specificAnswers, generalAnswer, jobCount };
    enum Warning : unsigned {
        olderQuery,
        routerAlert,
        ssmExclude,
        excludeList,
        pace,
        warningCount
    };

    struct Wish { // what a turn wants of one group
        GroupEntry* entry;
        FilterMode mode;
        std::size_t firstSource; // in wishSources_
        std::size_t sourceCount;
    };
    struct LatePacket { // one that the budget holds back
        Counter counter;
        std::vector<std::uint8_t> bytes;
    };

    // HostEngine.cpp: settings, wanted state, link and time.
    void handleVersion(double now);
    void doApply(double now, Wish const& wish);
    bool handleExclude(double now, Wish const& wish);
    void doAnnounceAll(double now);
    void doApplyWishes(double now);
    void doReckonFormer(double now);
    void addHeldRecord(RecordList& records, GroupEntry const& entry) const;
    void doCancel();
    void doCancelAnswers();
    void doDrop(GroupQueue& queue);
    void doRelease(GroupEntry& entry);
    unsigned robustness() const;
    double reportIntervalSeconds() const;
    double randomDelay(double boundSeconds);
    void doWarn(double now, Warning warning, std::function<std::string()> const& text);

    // HostEngineSend.cpp: what leaves, and at which pace.
    void doSend(double now);
    double jobDue(Job job) const;
    void doJob(double now, Job job);
    void doSendChanges(double now, GroupQueue& queue);
    void doSendOlderReport(double now, GroupQueue& queue);
    bool doSendOlderLeave(GroupEntry& entry);
    void doTransmitLeave(GroupEntry const& entry);
    void doEndChange(GroupEntry& entry);
    void doSendLeaves(double now);
    std::size_t doSendLeave();
    void doSendAnswers(double now);
    void doSendWalk(double now);
    template <class First, class Records, class Taken>
    std::size_t doFillReport(Counter counter, First first, Records addRecords, Taken taken);
    void doSendLate();
    void doTransmit(Counter counter, std::span<std::uint8_t const> packet);

    // HostEngineReceive.cpp: queries and the reports of others.
    void handleQuery(double now, IgmpDatagram const& datagram);
    void handleOlderQuerier(double now, IgmpQuery const& query);
    void handleOlderReport(double now, IgmpDatagram const& datagram);
    bool isForUs(Lox::IpAddr destination, IgmpQuery const& query) const;
    void doCountOddities(double now, IgmpDatagram const& datagram, IgmpQuery const& query);
    void doCountQuery(IgmpQuery const& query);
    void doNoteQuerier(double now, Lox::IpAddr address, IgmpQuery const& query);
    double responseSeconds(IgmpQuery const& query) const;
    void doScheduleAnswer(double now, IgmpQuery const& query);
    void doScheduleGeneralAnswer(double now, double boundSeconds);
    double walkSeconds() const;
    void doScheduleOlderReports(double now, IgmpQuery const& query);
    void doScheduleOlderAnswer(double now, double boundSeconds, GroupEntry& entry);
    bool isDueBy(GroupEntry const& entry, double time) const;
    void dropped(DropReason reason) { ++counters_.dropped[std::size_t(reason)]; }

    Output& output_;
    std::mt19937 random_;
    Settings settings_;
    HostCounters counters_;
    bool linkUp_ = false;

    std::unordered_map<Lox::IpAddr, GroupEntry> groups_; // with state, or something pending
    std::size_t members_ = 0;                            // those with state
    std::size_t stateOctets_ = 0;                        // of their complete records
    std::vector<Wish> wishes_;
    std::vector<Lox::IpAddr> wishSources_;

    RecordList former_; // what routers may hold, besides what groups_ tells
    bool heldChanged_ = false;

    unsigned version_ = 3;
    double v1QuerierExpiry_ = never; // never: not present
    double v2QuerierExpiry_ = never;
    Querier querier_;
    unsigned heardRobustness_ = 0; // of the last version 3 query; 0: none
    bool v2Held_ = false;          // routers may know groups by reports of version 2 alone

    GroupQueue fresh_;   // changes not told yet; they keep their turn however often they change
    GroupQueue repeats_; // changes to tell again; before version 3, the general answer, too
    GroupQueue answers_; // to specific queries
    double generalDue_ = never; // start of the answer to a general query, version 3
    double generalDeadline_ = never;
    // Groups with state in two lists; in each, who was reported longest ago comes first.
    GroupList settled_; // all but for
    GroupList walking_; // those that the answer in progress, or one that was cut off, did not name
    std::size_t walkLeft_ = 0; // about how many those are; only the pace depends on it
    double walkDue_ = never;   // the next packet of the answer
    double walkDeadline_ = never;
    double olderQueryTime_ = -never; // the last older general query that set timers,
    double olderQueryDeadline_ = 0;  // and when its last answer is due

    GroupList leaving_; // groups without state that this round of leaving has yet to name,
    GroupList left_;    // and those that it has named and the next one names again
    std::size_t leavingCount_ = 0; // about how many; only the pace depends on it
    std::size_t leftCount_ = 0;
    double leaveDue_ = never; // when the next packet should leave; late ones catch up
    double leaveRoundEnd_ = 0;
    double leaveRoundSeconds_ = 0;
    bool unlimited_ = false; // while packets of leaving are built

    PacketBudget budget_;
    std::deque<LatePacket> late_;
    unsigned lastJob_ = 0;
    RecordList records_; // scratch
    std::array<double, warningCount> quietUntil_{};
};

} // namespace Agent
