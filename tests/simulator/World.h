// A network in virtual time: routers and hosts on one link, and the steps of a run, which change
// it. Besides what Station.h has about each host, this holds at every moment, whatever happens:
//
//   - No traffic that a host wants is cut off: a router forwards it from the time on when the host
//     has told of it as often as packets may be lost, until the host stops. So many, one less than
//     the robustness, may be lost, held back or doubled late by the wire in any membership interval
//     of what passes between a host and a router about a group: the hosts' queries count for all
//     groups and routers, older reports for all hosts, which heed each other's. A router is judged
//     once it has had the time to learn, that is: to become querier and to have two rounds of
//     answers, since it was started or understands what is spoken; since a router came or went, a
//     host changed its version, or a storm lost more than that.
//   - What nobody wants ends within two membership intervals, whatever is lost; and where one host
//     alone has wanted it, and not by version 1, within the time for the last member queries of its
//     leave.
//   - The first host is given what is wanted, whichever way that goes through the machines.
#pragma once

#include "simulator/Machines.h"

#include <memory>

namespace Simulator {

/// Seconds that pass, what happens then, and with what: "+1.5 want 0 3 1 5".
struct Step {
    explicit Step(std::string const& text) {
        std::istringstream words(text);
        words >> after >> verb;
        for (unsigned& each : with) words >> each;
    }
    double after;
    std::string verb;
    std::array<unsigned, 5> with{};
};
using Steps = std::vector<std::string>; // their texts

constexpr unsigned routerCount = 5, stationCount = 3;

class World {
  public:
    /// Of a step `world SEED ROBUSTNESS QUERY-SECONDS RESPONSE-TENTHS STATIONS-ROBUSTNESS`.
    explicit World(std::array<unsigned, 5> const& with)
        : timing_{with[1], double(with[2]), with[3] / 10.0},
          bearable_(int(std::min(with[1], with[4])) - 1),
          random_(with[0]) {
        for (IpAddr const group : groups) older_[group] = lateTimes_[group] = -never;
        for (unsigned r = 0; r < routerCount; ++r)
            routers_.emplace_back(IpAddr::fromHost(IpAddr("10.0.0.1").host() + r), now_,
                                  [this, r](Bytes const& packet) { doSend(r, packet); });
        for (unsigned s = 0; s < stationCount; ++s)
            stations_.emplace_back(s, with[0] + s, with[4], now_, [this, s](Bytes const& packet) {
                doSend(routerCount + s, packet);
            });
    }

    /// Throws what goes wrong. In the end it is quiet for as long as all takes to settle.
    void play(Steps const& run) {
        for (std::string const& text : run) {
            Step const step(text);
            doPass(step.after);
            doStep(step);
            doTurn();
        }
        doPass(3 * timing_.membershipInterval() + 400);
    }
    double seconds() const { return now_ - startSeconds; }

  private:
    static constexpr double startSeconds = 1000;
    struct Fault { // of a packet about a group; zero for all
        double time;
        unsigned from, to;
        IpAddr group;
    };
    struct Delivery {
        unsigned to; ///< routers first
        std::shared_ptr<Bytes const> packet;
    };

    Station& agent() { return stations_[0]; }

    void doPass(double seconds) {
        for (double const end = now_ + seconds; now_ < end;) {
            double next = std::min(end, under_.empty() ? never : under_.begin()->first);
            for (Router const& router : routers_) next = std::min(next, router.nextExpiry());
            for (Station const& s : stations_) next = std::min(next, s.nextExpiry());
            if (machines_) next = std::min(next, machines_->nextExpiry());
            rounds_ = next > now_ ? 0 : rounds_ + 1;
            if (rounds_ > 1000) fail(now_, "rounds, and no time passes", rounds_);
            now_ = std::max(next, now_);
            doCheck();
            for (Router& router : routers_) router.advance();
            while (!under_.empty() && under_.begin()->first <= now_)
                doDeliver(under_.extract(under_.begin()).mapped());
            for (Station& s : stations_)
                if (s.engine) s.engine->advance(now_);
            doTurn();
        }
    }
    /// The end of a turn of the agent, and of the other hosts'.
    void doTurn() {
        if (machines_) {
            if (std::exchange(routed_, agent().known <= now_) != (agent().known <= now_))
                machines_->configure(agent().wished, routed_);
            machines_->advance(now_);
        }
        bool const settled = agent().linkUp && agent().leaveEnd == never &&
                             now_ > std::max(changed_, agent().known) + 3;
        for (Station& s : stations_) {
            if (s.leaveEnd <= now_) doKill(s);
            if (!s.engine) continue;
            bool const through = &s == &agent();
            IpAddr const address =
                through ? machines_->address().value_or(s.settings.address) : s.wishedAddress;
            if (settled && through && address != s.wishedAddress)
                fail(now_, "is not given its address", 0, address);
            if (std::exchange(s.settings.address, address) != address) s.applySettings(true);
            for (auto const& [group, wish] : s.wished) {
                Wish const given = through ? machines_->announced(group) : wish;
                if (settled && given != wish) fail(now_, "is not given what is wanted", 0, group);
                s.give(group, s.leaveEnd == never ? given : Wish());
            }
            s.flush();
        }
    }

    /// All others get the packet, a little later, at one time and in the order of its sender's, as
    /// on a wire: no answer overtakes its question. Unless it is lost, held back or doubled.
    void doSend(unsigned from, Bytes const& bytes) {
        auto const packet = std::make_shared<Bytes const>(bytes);
        Message const m(bytes);
        if (m.olderReport() || m.leave()) older_[m.group] = now_;
        double& last = arrivals_[from];
        last = std::max(last, now_ + 0.001 + 0.019 * part());
        for (unsigned to = 0; to < routerCount + stationCount; ++to) {
            if (to == from) continue;
            bool const faulty = isFaulty(from, to, m);
            // One that comes late makes a router that listens forget what has been answered.
            bool const query = to < routerCount && m.type == 0x11;
            if (faulty && (query || part() < 0.5)) continue;
            double const late = now_ + part();
            if (faulty)
                for (IpAddr const group : groupsOf(m)) lateTimes_[group] = now_ + 1;
            if (!faulty || part() < 0.5) under_.emplace(last, Delivery{to, packet});
            if (faulty || part() < 0.02) under_.emplace(faulty ? late : last, Delivery{to, packet});
        }
    }
    double part() { return std::uniform_real_distribution<double>()(random_); }
    static Sources groupsOf(Message const& m) {
        Sources all;
        for (Record const& record : m.records) all.insert(record.group);
        return m.type == 0x22 ? all : Sources{m.group};
    }
    bool isFaulty(unsigned from, unsigned to, Message const& m) {
        if (now_ < stormEnd_) return part() * 100 < stormPercent_;
        if (part() >= 0.05 || (to >= routerCount && m.type == 0x22)) return false;
        Sources const about = groupsOf(m);
        bool const bySender = to < routerCount;
        for (IpAddr const group : groups)
            for (unsigned r = bySender ? to : 0; r < (bySender ? to + 1 : routerCount); ++r)
                if ((about.contains(group) || about.contains({})) &&
                    faultsOf(bySender ? from : to, r, group) >= bearable_)
                    return false;
        for (IpAddr const group : about) faults_.push_back({now_, from, to, group});
        return true;
    }
    /// That keep the router from hearing of the host's membership.
    std::ptrdiff_t faultsOf(unsigned host, unsigned router, IpAddr group) const {
        bool const any = older_.at(group) > -never;
        return std::count_if(faults_.begin(), faults_.end(), [&](Fault const& f) {
            if (f.group != group && !f.group.isZero()) return false;
            return f.to == host || (any && f.to >= routerCount) ||
                   (f.to == router && (f.from == host || (any && f.from >= routerCount)));
        });
    }
    void doDeliver(Delivery const& d) {
        if (d.to < routerCount)
            routers_[d.to].received(Message(*d.packet));
        else
            stations_[d.to - routerCount].hear(*d.packet);
    }

    /// Routers' knowledge has to settle anew from that time on.
    void doDisturb(double now) {
        disturbed_ =
            std::max(disturbed_, now + timing_.otherQuerierPresent() + timing_.responseInterval);
    }
    void doCheck() {
        double const span = timing_.membershipInterval() + timing_.responseInterval;
        while (!faults_.empty() && faults_.front().time <= now_ - span) faults_.pop_front();
        for (Station& s : stations_) {
            s.check();
            disturbed_ = std::max(disturbed_, s.versionSince);
        }
        for (unsigned r = 0; r < routerCount; ++r) {
            for (Station const& s : stations_)
                if (routers_[r].version() < (s.hears ? s.version : 1)) unable_[r] = now_;
            double const learn = timing_.membershipInterval() + timing_.queryInterval;
            for (std::size_t f = 0; f < agent().flows.size(); ++f)
                doCheckFlow(r, f, std::max(disturbed_, unable_[r]) + learn);
        }
    }
    /// By a router that knows all from `trusted` on.
    void doCheckFlow(unsigned r, std::size_t f, double trusted) {
        Router const& router = routers_[r];
        IpAddr const group = agent().flows[f].group, source = agent().flows[f].source;
        bool const forwards = router.forwards(group, source);
        // Who only listens is asked to forget what the querier has not heard, by one of version 2
        // even what it has: it needs each answer.
        auto const missed = std::count_if(faults_.begin(), faults_.end(), [&](Fault const& fault) {
            return fault.group == group || fault.group.isZero();
        });
        double held = -never; // when it was wanted last
        for (Station const& s : stations_) {
            Flow const& flow = s.flows[f];
            bool const sees =
                router.querierSince() != never ||
                missed <= (std::min(router.version(), s.version) == 3 ? bearable_ : 0);
            held = std::max(held, flow.since != never ? now_ : flow.held);
            double const told =
                std::max(flow.since, s.upSince) + bearable_ * s.repeatSeconds() + s.pace() + slack;
            if (flow.since != never && s.hears && sees && !forwards &&
                now_ > std::max(trusted, told))
                fail(now_, "station is cut off from", s.number, group, source);
        }
        if (!forwards || held == now_) return;
        double const full = timing_.membershipInterval();
        double const older = older_.at(group);
        if (now_ > std::max(held + 2 * full + 2, older + 3 * full + timing_.queryInterval))
            fail(now_, "router is not rid of", r, group, source);
        Station const* only = nullptr;
        for (Station const& s : stations_) {
            if (s.wantedLast(group) < now_ - 3 * full) continue;
            if (only) return;
            only = &s;
        }
        if (!only) return;
        double told = only->flows[f].told;
        if (only->version == 2) // which knows the group as a whole
            for (Flow const& flow : only->flows)
                if (flow.group == group && flow.held > -never) {
                    told = std::max(told, flow.told);
                    held = std::max(held, flow.held);
                }
        // What is held back may undo the leave; and it may be told again, with no need to.
        double const inOrder = std::min(told - 1, held);
        bool const sure =
            router.querierSince() < told - 1 && trusted < told && lateTimes_.at(group) < inOrder &&
            (only->version == 3 ? older < told - full
                                : only->version == 2 && only->versionSince < told - full &&
                                      !only->given.at(group).member());
        if (sure && now_ > told + bearable_ + timing_.lastMemberTime() + 2 * slack + only->pace())
            fail(now_, "router is not soon rid of", r, group, source);
    }

    void doStep(Step const& step) {
        auto const& [a, b, c, d, e] = step.with;
        Station& s = stations_[a % stationCount];
        if (step.verb == "router") {
            Timing const own = c > 0 ? Timing{c, double(d), e / 10.0} : timing_;
            bearable_ = std::min(bearable_, int(own.robustness) - 1);
            doDisturb(now_);
            routers_[a].start(b, own);
        } else if (step.verb == "want") {
            doWant(s, groups[b], c > 0, d);
        } else if (step.verb == "link" && s.linkUp != (b > 0)) {
            doLink(s, b > 0);
        } else if (step.verb == "address") {
            s.wishedAddress = b < 3 || &s == &agent() ? s.addressOf(b) : IpAddr();
            changed_ = now_;
            if (&s == &agent() && machines_) machines_->setAddress(s.wishedAddress);
        } else if (step.verb == "again" && s.hears) {
            s.announceAgain();
        } else if (step.verb == "speak") {
            s.settings.version = b;
            s.applySettings();
        } else if (step.verb == "pace") {
            s.settings.packetsPer100ms = b;
            s.settings.mtu = c;
            s.applySettings();
        } else if (step.verb == "start" && !s.engine) {
            doStart(s, b > 0, c);
        } else if (step.verb == "kill" && s.engine) {
            s.leaveEnd = never; // it was not to finish
            doKill(s);
        } else if (step.verb == "stop" && s.engine && s.leaveEnd == never) {
            s.stop();
        } else if (step.verb == "storm") {
            stormEnd_ = now_ + a;
            stormPercent_ = b;
            doDisturb(stormEnd_ + 1);
        } else if (step.verb == "ask") { // a switch asks the hosts, and no router hears of it
            IpAddr const group = a > 1 && b < groups.size() ? groups[b] : IpAddr();
            Sources const asked = group.isZero() ? Sources() : chosen(c);
            Bytes const packet = query(a, d, {}, group, asked, {e, 125, 0});
            for (Station& each : stations_) each.hear(packet);
        }
    }
    static Sources chosen(unsigned mask) {
        Sources all;
        for (unsigned i = 0; i < sources.size(); ++i)
            if (mask >> i & 1) all.insert(sources[i]);
        return all;
    }
    void doWant(Station& s, IpAddr group, bool exclude, unsigned mask) {
        Wish wish{exclude, chosen(mask)};
        if (exclude && group == routed) wish.sources.clear(); // or any
        if (&s == &agent()) {
            changed_ = now_;
            if (group == Agent::allSystems) return;
        }
        s.wished[group] = wish;
        if (&s == &agent() && machines_) machines_->configure(s.wished, routed_);
    }
    void doLink(Station& s, bool up) {
        s.linkUp = up;
        changed_ = now_;
        if (!up && s.hears) s.closeLink();
        if (&s == &agent() && machines_) machines_->setLink(up);
        doTurn();
        if (up && s.engine) s.openLink();
    }
    /// The agent's routes come late.
    void doStart(Station& s, bool fromFile, unsigned delay) {
        s.start(fromFile);
        changed_ = now_;
        if (&s == &agent()) {
            s.known = now_ + delay;
            routed_ = delay == 0;
            machines_.emplace(now_);
            machines_->setAddress(s.wishedAddress);
            machines_->configure(s.wished, routed_);
            machines_->setLink(s.linkUp);
        }
        doTurn();
        if (s.linkUp) s.openLink();
    }
    void doKill(Station& s) {
        s.kill();
        if (&s == &agent()) machines_.reset();
    }

    double now_ = startSeconds;
    Timing timing_; ///< no router's is longer
    int bearable_;
    std::mt19937 random_;
    std::deque<Router> routers_;
    std::deque<Station> stations_;
    std::optional<Machines> machines_;
    std::multimap<double, Delivery> under_;            // by arrival
    double arrivals_[routerCount + stationCount] = {}; // of the last ones, by sender
    std::deque<Fault> faults_;
    std::map<IpAddr, double> lateTimes_; ///< of what was held back
    double stormEnd_ = -never;
    unsigned stormPercent_ = 0;     ///< of packets, lost or held back
    double changed_ = startSeconds; ///< what the agent wants, or its link
    double disturbed_ = -never;
    std::array<double, routerCount> unable_{}; ///< when each was last one that does not understand
    std::map<IpAddr, double> older_;           ///< when a group was told of in an older version
    bool routed_ = true;                       ///< what the agent's machines know of that
    unsigned rounds_ = 0;
};

} // namespace Simulator
