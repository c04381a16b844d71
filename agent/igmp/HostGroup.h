// What the host wants of one multicast group, and what it still owes the routers about it: the
// counters of state changes (RFC 9776, 5.1) and the pending answer to a query (5.2). No packets and
// no timers; the engine decides when.
#pragma once

#include "Lox/IpAddr.h"
#include "agent/igmp/GroupRecord.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Agent {

enum class FilterMode : std::uint8_t { include, exclude };

class HostGroup {
  public:
    /// At first INCLUDE{}: not a member.
    explicit HostGroup(Lox::IpAddr group) : group_(group) {}

    Lox::IpAddr group() const { return group_; }
    /// Anything but INCLUDE{}.
    bool hasState() const { return mode_ == FilterMode::exclude || listed_ > 0; }

    /// Takes the finished wanted state; `sources` ascending without repetition. What differs from
    /// the state so far is to be told `robustness` times; what earlier changes are still owed
    /// stays owed. Tells whether anything differed.
    bool setState(FilterMode mode, std::span<Lox::IpAddr const> sources, unsigned robustness);
    /// Makes the whole state owed `robustness` times, as if it were new.
    void announce(unsigned robustness);
    /// Routers may still hold this state: what the state as it is now does not replace is owed
    /// `robustness` times. Sources in any order. Tells whether anything is.
    bool setFormer(FilterMode mode, std::span<Lox::IpAddr const> sources, unsigned robustness);
    /// Appends the least state that covers what routers may hold, if they may hold any: IS_IN with
    /// all sources announced or not yet known to be gone, or IS_EX without sources.
    void addHeldRecord(RecordList& records) const;

    /// Whether a change is still owed.
    bool hasChange() const { return repeats_ > 0 || counted_ > 0; }
    /// How often the change that is owed most is still to be told.
    unsigned timesOwed() const;
    /// Forgets every owed change.
    void dropChange();
    /// How often the group as a whole is still to be told: the filter mode, or in the older
    /// versions the membership.
    unsigned repeats() const { return repeats_; }
    /// Forgets owed sources; owes the group as a whole that often.
    void setRepeats(unsigned repeats);
    /// Appends the records of the owed change, always built from the state as it is now.
    void addChangeRecords(RecordList& records) const;
    /// The owed change went out once more. Returns whether with that a source is no longer held.
    bool changeSent();

    /// Appends IS_IN or IS_EX with the complete list. Only with hasState().
    void addStateRecord(RecordList& records) const;
    /// What that record takes in a report; 0 without state.
    std::size_t stateOctets() const {
        return hasState() ? GroupRecord::headerOctets + GroupRecord::sourceOctets * listed_ : 0;
    }

    /// Notes what a query asks about; no sources: about the whole group. `pending`: an earlier
    /// query waits for its answer too. Beyond maxAsked sources the whole group counts as asked.
    void noteAsked(std::span<Lox::IpAddr const> sources, bool pending);
    /// Forgets it all, and gives back the memory: whoever is on the link may ask.
    void forgetAsked() { asked_ = std::vector<Lox::IpAddr>(); }
    /// Appends the answer, possibly nothing.
    void addAnswerRecords(RecordList& records) const;

    static constexpr std::size_t maxAsked = 64;

  private:
    struct Source {
        Lox::IpAddr address;
        std::uint8_t repeats = 0; // how often its change is still to be told
        bool listed = false;      // in the include or exclude list of now
    };

    bool isWanted(bool listed) const { return listed == (mode_ == FilterMode::include); }
    void addListRecord(RecordList& records, RecordType include, RecordType exclude) const;
    void addSourceRecord(RecordList& records, RecordType type) const;
    void doRecount();

    std::vector<Source> sources_;    // ascending; listed ones, and others while they are owed
    std::vector<Lox::IpAddr> asked_; // ascending; empty: the whole group, or none pending
    Lox::IpAddr group_;
    std::uint32_t listed_ = 0;  // how many of the sources are listed
    std::uint32_t counted_ = 0; // and how many are owed
    FilterMode mode_ = FilterMode::include;
    std::uint8_t repeats_ = 0; // for EXCLUDE, not less than its sources': its records tell of them
};

} // namespace Agent
