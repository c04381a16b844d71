// A multicast router as its peers on a link know it: it asks for members, and holds what it hears
// of them. Written from RFC 9776 (6 and 7.3), RFC 2236 (3, 6 and 7) and RFC 1112 (appendix I), and
// from nothing that it is to judge; version 2 and 1 are the same machine with fewer messages.
//
// Each interval is `slack` longer than the RFCs have it, for there packets take no time: an answer
// within the last moment of the last interval would come too late.
#pragma once

#include "agent/igmp/IgmpTestPackets.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <map>
#include <set>

namespace Simulator {

using Agent::Bytes;
using Lox::IpAddr;
using Sources = std::set<IpAddr>;

constexpr double never = std::numeric_limits<double>::infinity();
/// Seconds. More than a packet and what it causes take, unless the wire holds it back.
constexpr double slack = 0.3;
constexpr double lastMemberSeconds = 1;

/// What the operator has set in a router.
struct Timing {
    unsigned robustness;
    double queryInterval, responseInterval;

    /// Hosts of version 1 take ten seconds for an answer, whatever a router would like.
    double membershipInterval() const {
        return robustness * queryInterval + std::max(responseInterval, 10.0) + slack;
    }
    double otherQuerierPresent() const {
        return robustness * queryInterval + responseInterval / 2 + slack;
    }
    double lastMemberTime() const { return robustness * (lastMemberSeconds + slack); }
};

enum RecordType : unsigned { isIn = 1, isEx, toIn, toEx, allow, block };

struct Record {
    unsigned type;
    IpAddr group;
    Sources sources;
};

/// A packet as its receivers read it.
struct Message {
    IpAddr from, to;
    unsigned type, code;
    IpAddr group;
    unsigned queryVersion = 0; ///< 0: no query
    bool suppress = false;     ///< the S flag
    unsigned robustness = 0, queryInterval = 0;
    Sources sources;
    std::vector<Record> records;

    explicit Message(Bytes const& packet) : type(packet[24]), code(packet[25]) {
        auto const address = [&](std::size_t at) {
            return IpAddr::fromOctets(&packet.at(at + 3) - 3);
        };
        auto const list = [&](std::size_t at, unsigned count) {
            Sources all;
            for (; count > 0; --count, at += 4) all.insert(address(at));
            return all;
        };
        from = address(12);
        to = address(16);
        group = address(28);
        if (type == 0x11) queryVersion = packet.size() >= 36 ? 3 : code > 0 ? 2 : 1;
        if (queryVersion == 3) {
            suppress = packet[32] & 8;
            robustness = packet[32] & 7;
            queryInterval = packet[33];
            sources = list(36, packet[35]);
        }
        if (type != 0x22) return;
        std::size_t at = 32;
        for (unsigned left = packet[31]; left > 0; --left) {
            unsigned const count = packet[at + 2] * 256u + packet[at + 3];
            records.push_back({packet[at], address(at + 4), list(at + 8, count)});
            at += 8 + 4 * (count + packet[at + 1]); // and auxiliary data
        }
    }
    bool olderReport() const { return type == 0x12 || type == 0x16; }
    bool leave() const { return type == 0x17; }
};

/// A query to all systems, or to the group that it asks about. In version 3 it says of the timing
/// what is not in the code.
inline Bytes query(unsigned version, unsigned code, IpAddr from, IpAddr group,
                   Sources const& sources, Timing const& timing, bool suppress = false) {
    unsigned const flags = (suppress ? 8 : 0) + timing.robustness;
    auto const octet = std::uint8_t(version == 1 ? 0 : code);
    Bytes const payload =
        version < 3 ? Agent::message(Agent::IgmpType::query, group, octet)
                    : Agent::v3Query(octet, group, {sources.begin(), sources.end()},
                                     std::uint8_t(flags), std::uint8_t(timing.queryInterval));
    IpAddr const to = group.isZero() ? Agent::allSystems : group;
    return Agent::packetOf(payload, {.source = from, .destination = to});
}

class Router {
  public:
    using Send = std::function<void(Bytes const& packet)>;

    Router(IpAddr address, double const& now, Send send)
        : address_(address), now_(now), send_(std::move(send)) {}

    /// Begins anew, in that version; 0 for not at all.
    void start(unsigned version, Timing const& timing) {
        version_ = version;
        own_ = timing_ = timing;
        groups_.clear();
        startups_ = timing_.robustness;
        generalDue_ = never;
        otherQuerierExpiry_ = version > 0 ? now_ : never;
        advance();
    }
    unsigned version() const { return version_; } ///< 0: switched off
    /// Infinite while another one is.
    double querierSince() const { return isQuerier() ? querierSince_ : never; }

    bool forwards(IpAddr group, IpAddr source) const {
        auto const found = groups_.find(group);
        if (found == groups_.end()) return false;
        Group const& g = found->second;
        auto const known = g.sources.find(source);
        return known != g.sources.end() ? known->second > now_ : g.exclude && g.expiry > now_;
    }

    void received(Message const& m) {
        if (version_ == 0) return;
        advance();
        if (m.queryVersion > 0) handleQuery(m);
        unsigned const version = m.type == 0x12 ? 1 : 2;
        if (m.olderReport() && version_ >= version) {
            groups_[m.group].olderExpiry[version] = now_ + timing_.membershipInterval(); // 8.13
            handleRecord({isEx, m.group, {}});
        }
        // A group that no version 2 report was heard of is not left in that version (7.3.2).
        if (m.leave() && version_ > 1 && modeOf(m.group) == 2) handleRecord({toIn, m.group, {}});
        if (version_ < 3) return;
        for (Record const& r : m.records) {
            unsigned const mode = modeOf(r.group);
            if (mode < 3 && (r.type == block || (mode == 1 && r.type == toIn))) continue;
            handleRecord(mode < 3 && r.type == toEx ? Record{toEx, r.group, {}} : r);
        }
    }

    double nextExpiry() const {
        double next = std::min(generalDue_, otherQuerierExpiry_);
        for (auto const& [address, g] : groups_) {
            next = std::min(next, g.expiry);
            for (auto const& [source, asking] : g.asking) next = std::min(next, asking.due);
        }
        return next;
    }
    void advance() {
        if (otherQuerierExpiry_ <= now_) { // 6.6.2
            timing_ = own_;
            querierSince_ = generalDue_ = now_;
            otherQuerierExpiry_ = never;
        }
        if (generalDue_ <= now_) {
            ask(timing_.responseInterval);
            bool const startup = startups_ > 1;
            startups_ -= startup;
            generalDue_ = now_ + timing_.queryInterval / (startup ? 4 : 1);
        }
        for (auto& [address, g] : groups_) {
            if (g.expiry <= now_) { // 6.5
                g.exclude = false;
                g.expiry = never;
            }
            if (!g.exclude) std::erase_if(g.sources, [&](auto& s) { return s.second <= now_; });
            doAsk(address, g);
        }
        std::erase_if(groups_, [](auto& item) {
            return !item.second.exclude && item.second.sources.empty();
        });
    }

  private:
    struct Asking {
        unsigned left; // queries
        double due;
    };
    /// RFC 9776, 6.2. A source whose timer has run out is kept only in EXCLUDE mode, as refused.
    struct Group {
        bool exclude = false;
        double expiry = never; // in EXCLUDE mode
        std::map<IpAddr, double> sources;
        double olderExpiry[3] = {};      // of the hosts of version 1 and 2
        std::map<IpAddr, Asking> asking; // about a source; with zero, about the group
    };

    bool isQuerier() const { return otherQuerierExpiry_ == never; }
    /// The compatibility mode (7.3.2).
    unsigned modeOf(IpAddr group) const {
        auto const found = groups_.find(group);
        if (found == groups_.end()) return 3;
        auto const& expiry = found->second.olderExpiry;
        return expiry[1] > now_ ? 1 : expiry[2] > now_ ? 2 : 3;
    }
    /// The tables of 6.4.1 and 6.4.2.
    void handleRecord(Record const& r) {
        Group& g = groups_[r.group];
        double const full = now_ + timing_.membershipInterval();
        if (r.type == isEx || r.type == toEx) {
            double const unknown = !g.exclude ? 0 : r.type == isEx ? full : g.expiry;
            std::map<IpAddr, double> kept;
            for (IpAddr const source : r.sources)
                kept[source] = g.sources.try_emplace(source, unknown).first->second;
            g.sources = kept;
            g.exclude = true;
            g.expiry = full;
        } else if (r.type != block) {
            for (IpAddr const source : r.sources) g.sources[source] = full;
        } else if (g.exclude) {
            for (IpAddr const source : r.sources) g.sources.try_emplace(source, g.expiry);
        }
        if (r.type == toIn || r.type == toEx || r.type == block)
            for (auto& [source, expiry] : g.sources)
                if (r.sources.contains(source) != (r.type == toIn)) doLower(g, source, expiry);
        if (r.type == toIn && g.exclude) doLower(g, {}, g.expiry);
        advance();
    }
    void doLower(Group& g, IpAddr source, double& expiry) { // 6.6.3
        if (!isQuerier() || expiry <= now_ + timing_.lastMemberTime()) return;
        expiry = now_ + timing_.lastMemberTime();
        g.asking[source] = {timing_.robustness, now_};
    }

    void ask(double seconds, IpAddr group = {}, Sources const& sources = {},
             bool suppress = false) {
        auto const tenths = unsigned(std::lround(seconds * 10)); // below 128, where codes begin
        if (isQuerier())
            send_(query(version_, tenths, address_, group, sources, timing_, suppress));
    }
    void doAsk(IpAddr group, Group& g) {
        auto const answered = [&](double expiry) {
            return expiry > now_ + timing_.lastMemberTime();
        };
        Sources asked[2];
        for (auto& [source, asking] : g.asking) {
            if (asking.due > now_) continue;
            --asking.left;
            asking.due = now_ + lastMemberSeconds + slack;
            auto const known = g.sources.find(source);
            if (source.isZero())
                ask(lastMemberSeconds, group, {}, answered(g.expiry));
            else if (known != g.sources.end())
                asked[answered(known->second)].insert(source);
            else if (g.exclude) // a listening router may have missed what took it off the list
                asked[true].insert(source);
        }
        for (bool const suppress : {false, true})
            if (!asked[suppress].empty()) ask(lastMemberSeconds, group, asked[suppress], suppress);
        std::erase_if(g.asking, [](auto const& item) { return item.second.left == 0; });
    }
    void handleQuery(Message const& m) {
        if (version_ > 1 && m.from < address_) { // 6.6.2
            if (m.queryVersion == 3) {           // 4.1.6 and 4.1.7
                timing_.robustness = m.robustness;
                timing_.queryInterval = m.queryInterval;
            }
            generalDue_ = never;
            otherQuerierExpiry_ = now_ + timing_.otherQuerierPresent();
        }
        auto const found = groups_.find(m.group);
        if (found == groups_.end() || m.suppress) return;
        double const lowered = now_ + timing_.lastMemberTime(); // 6.6.1
        Group& g = found->second;
        if (m.sources.empty()) g.expiry = std::min(g.expiry, lowered);
        for (auto& [source, expiry] : g.sources)
            if (m.sources.contains(source)) expiry = std::min(expiry, lowered);
    }

    IpAddr address_;
    Timing own_, timing_; // as set, and as the querier has it
    double const& now_;
    Send send_;
    unsigned version_ = 0, startups_ = 0;
    std::map<IpAddr, Group> groups_;
    double querierSince_ = never, generalDue_ = never, otherQuerierExpiry_ = never;
};

} // namespace Simulator
