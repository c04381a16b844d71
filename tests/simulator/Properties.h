// What has to hold at every moment, whatever happens:
//
//   - No traffic that a host wants is cut off: a router forwards it from the time on when the host
//     has told of it as often as packets may be lost, until the host stops. So many, one less than
//     the robustness, may be lost or held back by the wire in any membership interval. A router is
//     judged once it has had the time to learn, that is: to become querier and to have two rounds
//     of answers, since it was started or understands what is spoken; since a router came or went,
//     a host changed its version, or a storm lost more than that.
//   - What nobody wants ends within two membership intervals, whatever is lost; and where one host
//     alone has wanted it, and not by version 1, within the time for the last member queries of its
//     leave.
//   - A record says what the host wants at that moment, and is about a group that is its own, or
//   was
//     until it told that. A packet leaves only within the time of a change or of a query.
//   - Packets keep to the pace, and answers to the response time that was asked for.
//   - The host speaks the version of the oldest querier that is present.
//   - At rest nothing is pending, and what is kept about groups is that of those that are wanted.
#pragma once

#include "simulator/Station.h"
#include "simulator/Wire.h"

#include <sstream>

namespace Simulator {

class Properties {
  public:
    using Routers = std::vector<std::unique_ptr<Router>>;
    using Stations = std::vector<std::unique_ptr<Station>>;

    Properties(Timing const& timing, unsigned bearable, Wire const& wire, Routers const& routers,
               Stations const& stations)
        : timing_(timing),
          bearable_(bearable),
          wire_(wire),
          routers_(routers),
          stations_(stations) {
        unable_.fill(-never);
    }

    std::string const& failure() const { return failure_; }
    /// Routers' knowledge has to settle anew from that time on.
    void handleDisturbance(double now, bool queriers) {
        double const takeOver = timing_.otherQuerierPresent() + timing_.responseInterval;
        trusted_ = std::max(trusted_, now + learnSeconds() + (queriers ? takeOver : 0));
    }
    double learnSeconds() const { return timing_.membershipInterval() + timing_.queryInterval; }

    /// What it has been given may be another, or it is another engine.
    void handleGiven(double now, Station const& s) {
        Host& host = hosts_[s.number()];
        for (std::size_t g = 0; g < groups.size(); ++g) {
            Wish const wish = s.engine ? s.given(g) : Wish();
            if (wish == host.wishes[g]) continue;
            host.wishes[g] = wish;
            if (s.hears()) doExpectChange(now, s);
            std::erase_if(host.owed, [&](Owed const& owed) {
                return owed.group == groups[g] && (!wish.member() || !owed.sources.empty());
            });
            for (std::size_t i = 0; i < sources.size(); ++i) {
                Flow& flow = host.flows[g][i];
                bool const wanted = wish.wants(sources[i]);
                if (wanted == (flow.since != never)) continue;
                flow.since = wanted ? now : never;
                flow.ever = true;
                if (!wanted) flow.held = now;
                flow.told = s.hears() ? now : never;
            }
        }
    }
    void handleLinkDown(Station const& s) {
        Host& host = hosts_[s.number()];
        host.v1Expiry = host.v2Expiry = -never;
        host.owed.clear();
        for (auto& flows : host.flows)
            for (Flow& flow : flows) flow.told = never;
    }
    void handleStart(Station const& s, bool fromFile) {
        Host& host = hosts_[s.number()];
        host.v1Expiry = host.v2Expiry = -never;
        host.owed.clear();
        host.sent.clear(); // the pace is that of one run
        for (auto& flows : host.flows)
            for (Flow& flow : flows) {
                flow.former = fromFile && (flow.former || flow.ever);
                flow.ever = false;
            }
    }
    /// It tells all that it wants.
    void handleLinkUp(double now, Station const& s) {
        hosts_[s.number()].upSince = now;
        doExpectChange(now, s);
    }
    /// It leaves what it does not want any more.
    void handleFormerEnd(double now, Station const& s) {
        doExpectChange(now, s);
        for (auto& flows : hosts_[s.number()].flows)
            for (Flow& flow : flows) {
                flow.ever = flow.ever || flow.former;
                if (flow.ever) flow.told = now;
            }
    }
    /// A change that all is told for again, or one of the pace.
    void doExpectChange(double now, Station const& s) {
        Host& host = hosts_[s.number()];
        unsigned const times = std::max(timing_.robustness, s.settings.robustness);
        host.silent = std::max(host.silent, now + times * repeatSeconds(now, s) + pace(s) + slack);
    }

    void handleSettings(double now, Station const& s) {
        doExpectChange(now, s);
        for (Owed& owed : hosts_[s.number()].owed) owed.due += pace(s);
        if (spoken(now, s) != hosts_[s.number()].version) handleVersion(now, s);
    }

    /// Before the engine hears it.
    void handleHeard(double now, Station const& s, Message const& m) {
        Host& host = hosts_[s.number()];
        if (m.type == 0x12 || m.type == 0x16) doAnswer(host, m.group, nullptr);
        if (m.queryVersion == 0) return;
        bool const older = s.settings.version < 3;
        unsigned const version = older && m.queryVersion == 3 ? 2 : m.queryVersion;
        double const seconds = version == 2 ? m.code / 10.0 : m.responseSeconds();
        double const present = s.settings.robustness * 125 + 10 * seconds;
        bool const general = m.group.isZero();
        unsigned const before = spoken(now, s);
        if (general && m.queryVersion == 1) host.v1Expiry = now + (older ? 400 : present);
        if (general && m.queryVersion == 2) host.v2Expiry = now + present;
        if (spoken(now, s) != before) handleVersion(now, s);
        double const due =
            now + (spoken(now, s) == 1 ? std::min(seconds, 10.0) : seconds) + pace(s);
        host.silent = std::max(host.silent, due + 0.01);
        // Older queries that follow each other at once are copies.
        if (spoken(now, s) < 3 && general && now < std::exchange(host.asked, now) + 0.1) return;
        for (std::size_t g = 0; g < groups.size(); ++g) {
            if ((!general && m.group != groups[g]) || !host.wishes[g].member()) continue;
            Owed owed{groups[g], {}, due};
            if (spoken(now, s) == 3)
                for (IpAddr const source : m.sources)
                    if (host.wishes[g].wants(source)) owed.sources.insert(source);
            if (m.sources.empty() || spoken(now, s) < 3 || !owed.sources.empty())
                host.owed.push_back(owed);
        }
    }
    void handleSent(double now, Station const& s, Message const& m) {
        Host& host = hosts_[s.number()];
        auto const fail = [&](char const* what) { doFail(now, what, s.number(), m.group); };
        if (m.from != s.settings.address) fail("sends from another address");
        if (!s.hears()) fail("speaks without a link");
        if (now > host.silent) fail("speaks without a reason");
        host.sent.push_back(now);
        while (host.sent.front() <= now - 0.1) host.sent.pop_front();
        if (host.sent.size() > s.settings.packetsPer100ms && !s.leaving) fail("is too fast");
        unsigned const version = spoken(now, s);
        auto const known = std::find(groups.begin(), groups.end(), m.group);
        if (m.type != 0x22) {
            older_ = now;
            if (known == groups.end()) return fail("tells of a strange group");
            Wish const& wish = host.wishes[std::size_t(known - groups.begin())];
            if (wish.member() == (m.type == 0x17)) fail("tells the contrary of what it wants");
            if (m.type != 0x17 && version != (m.type == 0x12 ? 1 : 2))
                fail("speaks another version");
            if (m.type == 0x17 && m.to != Agent::allRouters) fail("leaves to nobody");
            if (m.type != 0x17 && m.to != m.group) fail("reports to nobody");
            if (m.type == 0x17) return;
            olderOf_[m.group] = now;
            return doAnswer(host, m.group, nullptr);
        }
        if (m.to != Agent::allV3Routers) fail("reports to nobody");
        for (Record const& record : m.records) {
            if (char const* const fault = faultOf(host, record))
                doFail(now, fault, s.number(), record.group);
            if (version < 3 && record.type != toIn && record.type != block)
                fail("speaks another version");
            if (record.type <= toEx) doAnswer(host, record.group, &record);
        }
    }

    /// Of the time up to now.
    void check(double now) {
        for (auto const& s : stations_) doCheckStation(now, *s);
        for (std::size_t r = 0; r < routers_.size(); ++r) {
            Router const& router = *routers_[r];
            for (auto const& s : stations_)
                if (router.version() == 0 || (s->hears() && spoken(now, *s) > router.version()))
                    unable_[r] = now;
            for (std::size_t g = 0; g < groups.size(); ++g)
                for (std::size_t i = 0; i < sources.size(); ++i) doCheckFlow(now, r, g, i);
        }
    }
    /// What the hosts speak, after what they have heard.
    unsigned spoken(double now, Station const& s) const {
        Host const& host = hosts_[s.number()];
        unsigned const querier = host.v1Expiry > now ? 1 : host.v2Expiry > now ? 2 : 3;
        return std::min(s.settings.version, querier);
    }
    void doFail(double now, std::string const& what, unsigned station, IpAddr group) {
        std::ostringstream text;
        text << "at " << now << ": station " << station << " " << what << ", " << group;
        if (failure_.empty()) failure_ = text.str();
    }

  private:
    struct Flow {
        double since = never; ///< wanted
        double held = -never; ///< when it was wanted last, if it is not
        double told = never;  ///< when routers were told of the latter; never if they were not
        bool ever = false;    ///< it was announced since the start
        bool former = false;  ///< and before, as the file has it
    };
    struct Owed {
        IpAddr group;
        Sources sources; ///< none: of the whole group
        double due;
    };
    struct Host {
        std::array<Wish, 7> wishes{};
        std::array<std::array<Flow, 5>, 7> flows{};
        double upSince = never, silent = -never, v1Expiry = -never, v2Expiry = -never;
        double asked = -never; ///< last older general query
        unsigned version = 3;
        std::vector<Owed> owed;
        std::deque<double> sent;

        double wantedLast(double now, std::size_t g) const {
            double last = -never;
            for (Flow const& flow : flows[g])
                last = std::max(last, flow.since != never ? now : flow.held);
            return last;
        }
    };

    void handleVersion(double now, Station const& s) {
        Host& host = hosts_[s.number()];
        host.owed.clear();
        host.asked = -never;
        host.version = spoken(now, s);
        handleDisturbance(now, false);
        if (host.silent > now) doExpectChange(now, s);
    }
    double repeatSeconds(double now, Station const& s) const {
        return spoken(now, s) == 3 ? 1 : 10;
    }
    /// What the pace may put off.
    static double pace(Station const& s) { return 0.02 + 0.12 * 16 / s.settings.packetsPer100ms; }

    static void doAnswer(Host& host, IpAddr group, Record const* record) {
        std::erase_if(host.owed, [&](Owed const& owed) {
            if (owed.group != group) return false;
            if (!record || record->type != isIn) return true;
            // A report of all that is wanted answers everything.
            Wish const whole{false, record->sources};
            for (std::size_t g = 0; g < groups.size(); ++g)
                if (groups[g] == group && host.wishes[g] == whole) return true;
            return !owed.sources.empty() &&
                   std::includes(record->sources.begin(), record->sources.end(),
                                 owed.sources.begin(), owed.sources.end());
        });
    }
    static char const* faultOf(Host const& host, Record const& r) {
        auto const known = std::find(groups.begin(), groups.end(), r.group);
        if (known == groups.end()) return "tells of a strange group";
        std::size_t const g = std::size_t(known - groups.begin());
        Wish const& wish = host.wishes[g];
        auto const all = [&](bool wanted) {
            return std::all_of(r.sources.begin(), r.sources.end(),
                               [&](IpAddr source) { return wish.wants(source) == wanted; });
        };
        bool ever = false, everEach = true;
        for (std::size_t i = 0; i < sources.size(); ++i) {
            ever |= host.flows[g][i].ever;
            everEach &= host.flows[g][i].ever || !r.sources.contains(sources[i]);
        }
        bool const exact = r.sources == wish.sources;
        switch (r.type) {
        case isIn:
            return wish.member() && !r.sources.empty() && all(true) ? nullptr : "is not in";
        case isEx:
        case toEx:
            return wish.exclude && exact ? nullptr : "does not want all but these";
        case toIn:
            return !wish.exclude && exact && ever ? nullptr : "does not want these alone";
        case allow:
            return !r.sources.empty() && all(true) ? nullptr : "does not want these";
        case block:
            return !r.sources.empty() && all(false) && everEach ? nullptr : "wants these";
        default:
            return "sends what no host sends";
        }
    }

    void doCheckStation(double now, Station const& s) {
        Host& host = hosts_[s.number()];
        auto const fail = [&](char const* what) { doFail(now, what, s.number(), {}); };
        if (!s.engine) return;
        bool const turning =
            std::min(std::abs(host.v1Expiry - now), std::abs(host.v2Expiry - now)) < 0.01;
        if (!turning && spoken(now, s) != host.version) handleVersion(now, s);
        if (!turning && s.engine->version() != spoken(now, s)) fail("speaks another version");
        for (Owed const& owed : host.owed)
            if (now > owed.due) doFail(now, "does not answer in time", s.number(), owed.group);
        if (now <= host.silent || s.engine->hasFormer()) return;
        std::size_t members = 0, octets = 0; // of a record in each version, where there are both
        for (Wish const& wish : host.wishes) {
            members += wish.member();
            if (wish.member()) octets += 16 + (wish.exclude ? 0 : 4 * wish.sources.size());
        }
        if (s.engine->memberCount() != members) fail("counts other groups");
        if (s.held().octets() > octets) fail("keeps too much");
        if (s.engine->telling()) fail("does not rest");
    }
    void doCheckFlow(double now, std::size_t r, std::size_t g, std::size_t i) {
        Router const& router = *routers_[r];
        bool const forwards = router.forwards(now, groups[g], sources[i]);
        double const trusted = std::max(trusted_, unable_[r] + learnSeconds());
        double held = -never;
        Station const* only = nullptr;
        bool alone = true;
        for (auto const& s : stations_) {
            Host const& host = hosts_[s->number()];
            Flow const& flow = host.flows[g][i];
            double const told = std::max(flow.since, host.upSince) +
                                bearable_ * repeatSeconds(now, *s) + pace(*s) + slack;
            if (flow.since != never && s->hears() && !forwards && now > std::max(trusted, told))
                doFail(now, "is cut off from " + sources[i].stringValue(), s->number(), groups[g]);
            held = std::max(held, flow.since != never ? now : flow.held);
            if (host.wantedLast(now, g) < now - 3 * timing_.membershipInterval()) continue;
            alone = only == nullptr;
            only = s.get();
        }
        if (!forwards || held == now) return;
        double const full = timing_.membershipInterval(), older = olderOf(groups[g]);
        if (now > std::max(held + 2 * full + 2, older + 3 * full + timing_.queryInterval))
            doFail(now, "is not rid of " + sources[i].stringValue(), unsigned(r), groups[g]);
        if (!only || !alone) return;
        Host const& host = hosts_[only->number()];
        double told = host.flows[g][i].told;
        unsigned const version = spoken(now, *only);
        if (version == 2) // which knows the group as a whole
            for (Flow const& flow : host.flows[g])
                if (flow.held > -never) told = std::max(told, flow.told);
        bool const sure =
            router.querierSince() < told - 1 && trusted < told && wire_.lateTime() < told - 1 &&
            (version == 3 ? older_ < told - full : version == 2 && !host.wishes[g].member());
        if (sure && now > told + bearable_ + timing_.lastMemberTime() + 2 * slack + pace(*only))
            doFail(now, "is not soon rid of " + sources[i].stringValue(), unsigned(r), groups[g]);
    }
    double olderOf(IpAddr group) const {
        auto const found = olderOf_.find(group);
        return found == olderOf_.end() ? -never : found->second;
    }

    Timing const& timing_;
    unsigned bearable_;
    Wire const& wire_;
    Routers const& routers_;
    Stations const& stations_;
    std::array<Host, stationCount> hosts_;
    std::array<double, routerCount>
        unable_; ///< when each router was last one that does not understand
    double trusted_ = -never;
    double older_ = -never; ///< when anything was said in an older version
    std::map<IpAddr, double> olderOf_;
    std::string failure_;
};

} // namespace Simulator
