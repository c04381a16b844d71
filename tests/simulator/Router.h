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

/// What the operator has set in all routers alike.
struct Timing {
    unsigned robustness = 2;
    double queryInterval = 125;
    double responseInterval = 10;
    double lastMemberInterval = 1;

    /// Hosts of version 1 take ten seconds for an answer, whatever a router would like.
    double membershipInterval() const {
        return robustness * queryInterval + std::max(responseInterval, 10.0) + slack;
    }
    double otherQuerierPresent() const {
        return robustness * queryInterval + responseInterval / 2 + slack;
    }
    double lastMemberTime() const { return robustness * (lastMemberInterval + slack); }
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
    Sources sources;
    std::vector<Record> records;

    explicit Message(Bytes const& packet)
        : from(address(packet, 12)),
          to(address(packet, 16)),
          type(packet[24]),
          code(packet[25]),
          group(address(packet, 28)) {
        if (type == 0x11) queryVersion = packet.size() >= 36 ? 3 : code > 0 ? 2 : 1;
        if (queryVersion == 3) {
            suppress = packet[32] & 8;
            sources = list(packet, 36, packet[35]);
        }
        if (type != 0x22) return;
        std::size_t at = 32;
        for (unsigned left = packet[31]; left > 0; --left) {
            unsigned const count = packet[at + 2] * 256u + packet[at + 3];
            records.push_back({packet[at], address(packet, at + 4), list(packet, at + 8, count)});
            at += 8 + 4 * count;
        }
    }
    /// Max Resp Time of a query, in seconds.
    double responseSeconds() const {
        if (queryVersion == 1) return 10;
        return (queryVersion == 2 || code < 128 ? code : (code % 16 + 16) << (code / 16 % 8 + 3)) /
               10.0;
    }

  private:
    static IpAddr address(Bytes const& packet, std::size_t at) {
        return IpAddr::fromOctets(&packet.at(at + 3) - 3);
    }
    static Sources list(Bytes const& packet, std::size_t at, unsigned count) {
        Sources all;
        for (; count > 0; --count, at += 4) all.insert(address(packet, at));
        return all;
    }
};

class Router {
  public:
    using Send = std::function<void(Bytes const& packet)>;

    Router(IpAddr address, Timing const& timing, Send send)
        : address_(address), timing_(timing), send_(std::move(send)) {}

    /// Begins anew, in that version; 0 for not at all.
    void start(double now, unsigned version) {
        version_ = version;
        groups_.clear();
        querier_ = true;
        querierSince_ = now;
        startups_ = timing_.robustness;
        generalDue_ = version > 0 ? now : never;
        otherQuerierExpiry_ = never;
        advance(now);
    }
    unsigned version() const { return version_; } ///< 0: switched off
    /// Infinite while another one is.
    double querierSince() const { return querier_ ? querierSince_ : never; }

    bool forwards(double now, IpAddr group, IpAddr source) const {
        auto const found = groups_.find(group);
        if (found == groups_.end()) return false;
        Group const& g = found->second;
        auto const known = g.sources.find(source);
        if (g.exclude && g.expiry > now) return known == g.sources.end() || known->second > now;
        return known != g.sources.end() && known->second > now;
    }

    void received(double now, Message const& m) {
        advance(now);
        if (m.queryVersion > 0 && version_ > 0) handleQuery(now, m);
        if (m.type == 0x12 && version_ > 0) handleOlderReport(now, m.group, 1);
        if (m.type == 0x16 && version_ > 1) handleOlderReport(now, m.group, 2);
        // A group that no version 2 report was heard of is not left in that version (7.3.2).
        if (m.type == 0x17 && version_ > 1 && modeOf(now, m.group) == 2)
            handleRecord(now, {toIn, m.group, {}});
        if (version_ != 3) return;
        for (Record const& record : m.records) handleOlderModes(now, record);
    }

    double nextExpiry() const {
        double next = std::min(generalDue_, otherQuerierExpiry_);
        for (auto const& [address, g] : groups_) next = std::min({next, g.expiry, g.askDue});
        return next;
    }
    void advance(double now) {
        if (otherQuerierExpiry_ <= now) { // 6.6.2
            querier_ = true;
            querierSince_ = generalDue_ = now;
            otherQuerierExpiry_ = never;
        }
        if (generalDue_ <= now) {
            ask({}, {}, false, timing_.responseInterval);
            bool const startup = startups_ > 1;
            if (startup) --startups_;
            generalDue_ = now + timing_.queryInterval / (startup ? 4 : 1);
        }
        for (auto at = groups_.begin(); at != groups_.end();) {
            Group& g = at->second;
            if (g.expiry <= now) { // 6.5
                g.exclude = false;
                g.expiry = never;
            }
            if (!g.exclude) std::erase_if(g.sources, [&](auto& s) { return s.second <= now; });
            if (g.askDue <= now) doAsk(now, at->first, g);
            at = g.exclude || !g.sources.empty() ? std::next(at) : groups_.erase(at);
        }
    }

  private:
    /// RFC 9776, 6.2. A source whose timer has run out is kept only in EXCLUDE mode, as refused.
    struct Group {
        bool exclude = false;
        double expiry = never; // in EXCLUDE mode
        std::map<IpAddr, double> sources;
        double olderExpiry[3] = {}; // of the hosts of version 1 and 2
        unsigned asksLeft = 0;      // queries for the group, and below for its sources
        std::map<IpAddr, unsigned> sourceAsksLeft;
        double askDue = never;

        Sources running(double now) const {
            Sources all;
            for (auto const& [source, expiry] : sources)
                if (expiry > now) all.insert(source);
            return all;
        }
    };

    static Sources common(Sources const& a, Sources const& b, bool inB = true) {
        Sources all;
        for (IpAddr const each : a)
            if (b.contains(each) == inB) all.insert(each);
        return all;
    }
    static Sources without(Sources const& a, Sources const& b) { return common(a, b, false); }

    /// The compatibility mode (7.3.2).
    unsigned modeOf(double now, IpAddr group) const {
        auto const found = groups_.find(group);
        if (found == groups_.end()) return 3;
        return found->second.olderExpiry[1] > now ? 1 : found->second.olderExpiry[2] > now ? 2 : 3;
    }
    void handleOlderReport(double now, IpAddr group, unsigned version) {
        groups_[group].olderExpiry[version] = now + timing_.membershipInterval(); // 8.13
        handleRecord(now, {isEx, group, {}});
    }
    void handleOlderModes(double now, Record const& record) {
        unsigned const mode = modeOf(now, record.group);
        if (mode < 3 && (record.type == block || (mode == 1 && record.type == toIn))) return;
        bool const cut = mode < 3 && record.type == toEx;
        handleRecord(now, cut ? Record{toEx, record.group, {}} : record);
    }
    /// The tables of 6.4.1 and 6.4.2.
    void handleRecord(double now, Record const& r) {
        Group& g = groups_[r.group];
        Sources const before = g.running(now);
        double const full = now + timing_.membershipInterval();
        if (r.type == isIn || r.type == allow || r.type == toIn)
            for (IpAddr const source : r.sources) g.sources[source] = full;
        if (r.type == toIn) {
            doAskSources(now, g, without(before, r.sources));
            if (g.exclude) doAskGroup(now, g);
        }
        if (r.type == isEx || r.type == toEx) {
            std::map<IpAddr, double> kept;
            for (IpAddr const source : r.sources) {
                auto const known = g.sources.find(source);
                if (known != g.sources.end())
                    kept.insert(*known);
                else if (g.exclude)
                    kept[source] = r.type == isEx ? full : g.expiry;
                else
                    kept[source] = 0;
            }
            g.sources = kept;
            g.exclude = true;
            g.expiry = full;
            if (r.type == toEx) doAskSources(now, g, g.running(now));
        }
        if (r.type == block) {
            if (g.exclude)
                for (IpAddr const source : r.sources) g.sources.try_emplace(source, g.expiry);
            doAskSources(now, g, common(g.running(now), r.sources));
        }
        advance(now);
    }

    // Queries
    void ask(IpAddr group, Sources const& sources, bool suppress, double seconds) const {
        auto tenths = unsigned(std::lround(seconds * 10));
        unsigned exponent = 0;
        while (version_ == 3 && tenths >= 128 && tenths >> (exponent + 3) > 31) ++exponent;
        if (version_ == 3 && tenths >= 128)
            tenths = 128 + 16 * exponent + (tenths >> (exponent + 3)) % 16;
        auto const code = std::uint8_t(version_ == 1 ? 0 : tenths);
        Bytes payload = Agent::message(Agent::IgmpType::query, group, code);
        if (version_ == 3)
            payload = Agent::v3Query(code, group, {sources.begin(), sources.end()},
                                     std::uint8_t((suppress ? 8 : 0) + (timing_.robustness % 8)));
        send_(
            Agent::packetOf(payload, {.source = address_,
                                      .destination = group.isZero() ? Agent::allSystems : group}));
    }
    void doAskGroup(double now, Group& g) { // 6.6.3.1
        if (!querier_ || version_ == 1) return;
        g.expiry = std::min(g.expiry, now + timing_.lastMemberTime());
        g.asksLeft = timing_.robustness;
        g.askDue = now;
    }
    void doAskSources(double now, Group& g, Sources const& sources) { // 6.6.3.2
        if (!querier_ || version_ < 3) return;
        for (IpAddr const source : sources) {
            double& expiry = g.sources[source];
            if (expiry <= now + timing_.lastMemberTime()) continue;
            expiry = now + timing_.lastMemberTime();
            g.sourceAsksLeft[source] = timing_.robustness;
            g.askDue = now;
        }
    }
    void doAsk(double now, IpAddr address, Group& g) {
        auto const answered = [&](double expiry) {
            return expiry > now + timing_.lastMemberTime();
        };
        Sources asked[2];
        if (g.asksLeft > 0 && querier_) {
            --g.asksLeft;
            ask(address, {}, answered(g.expiry), timing_.lastMemberInterval);
        }
        for (auto& [source, left] : g.sourceAsksLeft) {
            auto const known = g.sources.find(source);
            if (known != g.sources.end()) asked[answered(known->second)].insert(source);
            --left;
        }
        for (bool const suppress : {false, true})
            if (!asked[suppress].empty() && querier_)
                ask(address, asked[suppress], suppress, timing_.lastMemberInterval);
        std::erase_if(g.sourceAsksLeft, [](auto const& item) { return item.second == 0; });
        bool const again = g.asksLeft > 0 || !g.sourceAsksLeft.empty();
        g.askDue = again ? now + timing_.lastMemberInterval + slack : never;
    }
    void handleQuery(double now, Message const& m) {
        if (version_ > 1 && m.from < address_) { // 6.6.2
            querier_ = false;
            generalDue_ = never;
            otherQuerierExpiry_ = now + timing_.otherQuerierPresent();
        }
        auto const found = groups_.find(m.group);
        if (found == groups_.end() || m.suppress) return;
        double const lowered = now + timing_.lastMemberTime(); // 6.6.1
        Group& g = found->second;
        if (m.sources.empty()) g.expiry = std::min(g.expiry, lowered);
        for (auto& [source, expiry] : g.sources)
            if (m.sources.contains(source)) expiry = std::min(expiry, lowered);
    }

    IpAddr address_;
    Timing const& timing_;
    Send send_;
    unsigned version_ = 0;
    std::map<IpAddr, Group> groups_;
    bool querier_ = true;
    double querierSince_ = 0, generalDue_ = never, otherQuerierExpiry_ = never;
    unsigned startups_ = 0;
};

} // namespace Simulator
