// A network in virtual time: routers and hosts on one link, and the steps of a run, which change
// it. The first host is the agent's: its groups go through the machines, as configuration, access
// list and routes.
#pragma once

#include "agent/records/ConfigurationWriter.h"
#include "agent/records/RouteWriter.h"
#include "simulator/Properties.h"
#include "support/InProcessPlatform.h"
#include "support/Scenario.h"

#include "Nex/System.h"

#include <iomanip>

namespace Simulator {

/// Seconds that pass, and what happens then. As text: "+1.5 want 0 3 1 5".
struct Step {
    double after;
    std::string verb;
    std::array<unsigned, 5> with{};
};
using Steps = std::vector<Step>;

inline std::string textOf(Steps const& run) {
    std::ostringstream text;
    for (Step const& step : run) {
        text << "+" << step.after << " " << step.verb;
        std::size_t count = step.with.size();
        while (count > 0 && step.with[count - 1] == 0) --count;
        for (std::size_t i = 0; i < count; ++i) text << " " << step.with[i];
        text << "\n";
    }
    return text.str();
}
inline Step stepOf(std::string const& text) {
    Support::Words const words = Support::words(text);
    Step step{std::stod(words.at(0)), words.at(1), {}};
    for (std::size_t i = 2; i < words.size(); ++i)
        step.with.at(i - 2) = unsigned(std::stoul(words[i]));
    return step;
}

/// The machines of one interface, and what writes to them.
struct Machines {
    explicit Machines(double now) : time(now) {
        platform.tables();
        platform.start();
        routes.emplace(platform.mfibDir->keshColl(L3::VrfName("default")), "routes");
        platform.usableIntf("up0", 2);
        platform.delistIntf("up0");
    }
    /// Without the routes, as long as they are not known.
    void configure(std::array<Wish, 7> const& wished, bool withRoutes) {
        Agent::Configuration configuration;
        auto& interface = configuration.interfaces["up0"];
        interface.accessLists = {"list"};
        for (std::size_t g = 0; g < groups.size(); ++g) {
            Wish const& wish = wished[g];
            if (!wish.member() || g == routed || g == listed) continue;
            auto& group = interface.groups[groups[g]];
            (wish.exclude ? group.exclude : group.include) = wish.sources;
            if (wish == Wish{true, {}}) group.exclude = {IpAddr()};
        }
        Agent::AccessListConfiguration::Rules rules;
        for (IpAddr const source : permitted(wished[listed]))
            rules[unsigned(rules.size() + 1)] = {
                {Acl::Action::permit,
                 {{source, source.isZero() ? 0 : ~0u}, {groups[listed], ~0u}}}};
        configuration.accessLists["list"] = Agent::AccessListConfiguration(rules);
        writer.applyConfiguration(configuration);
        Sources const now = withRoutes ? permitted(wished[routed]) : Sources();
        for (IpAddr const source : routesNow)
            if (!now.contains(source)) routes->write(source, groups[routed], false);
        for (IpAddr const source : now) routes->write(source, groups[routed], true);
        routesNow = now;
    }
    void doLink(bool up) { up ? platform.listIntf("up0") : platform.delistIntf("up0"); }
    /// What the host entity says.
    Wish announced(IpAddr group) const {
        Igmp::IgmpHost* const host = platform.host("up0");
        Igmp::IgmpV3GroupRecord* const record = host ? host->v3group(group) : nullptr;
        Wish wish;
        if (!record) return wish;
        wish.exclude = record->filterMode() != Lox::IgmpV3GroupRecordType::modeIsInclude;
        if (record->source())
            for (auto const& item : record->source()->sourceIp())
                if (item.value != 0) wish.sources.insert(item.key);
        return wish;
    }
    double nextExpiry() const {
        return std::min(platform.clock->nextExpiry(), platform.timerWheel->nextExpiry());
    }
    void advance(double now) {
        time.nowIs(now);
        platform.clock->timeIs(now);
        platform.timerWheel->timeIs(now);
        bool const there = platform.host("up0");
        if (std::exchange(present, there) != there) writer.handleHost("up0", there);
    }

  private:
    /// Lists and routes know single sources, or any.
    static Sources permitted(Wish const& wish) {
        return wish.exclude ? Sources{IpAddr()} : wish.sources;
    }

    Nex::ManualTime time;
    Support::InProcessPlatform platform;
    Agent::ConfigurationWriter writer{platform};
    std::optional<Agent::RouteWriter> routes;
    Sources routesNow;
    bool present = false;
};

class World {
  public:
    /// Begins with a step `world SEED ROBUSTNESS QUERY-SECONDS RESPONSE-TENTHS
    /// STATIONS-ROBUSTNESS`.
    explicit World(Step const& world)
        : timing_{world.with[1], double(world.with[2]), world.with[3] / 10.0, 1},
          wire_(routerCount + stationCount, world.with[0],
                [this](unsigned end, Bytes const& packet) { doDeliver(end, packet); }),
          properties_(timing_, std::min(world.with[1], world.with[4]) - 1, wire_, routers_,
                      stations_) {
        wire_.setBearable(std::min(world.with[1], world.with[4]) - 1,
                          timing_.membershipInterval() + timing_.responseInterval);
        for (unsigned r = 0; r < routerCount; ++r)
            routers_.push_back(std::make_unique<Router>(
                IpAddr::fromHost(IpAddr("10.0.0.1").host() + r), timing_,
                [this, r](Bytes const& packet) { wire_.send(now_, r, packet); }));
        for (unsigned s = 0; s < stationCount; ++s)
            stations_.push_back(std::make_unique<Station>(
                s, world.with[0] + s, world.with[4],
                [this](Station& station, Bytes const& packet) { doSend(station, packet); }));
    }

    /// What went wrong, if anything did. Afterwards it is quiet for as long as all takes to settle.
    std::string play(Steps const& run) {
        for (Step const& step : run) {
            pass(step.after);
            if (!properties_.failure().empty()) break;
            doStep(step);
        }
        pass(3 * timing_.membershipInterval() + 400);
        return properties_.failure();
    }
    double seconds() const { return now_ - startSeconds; }
    std::uint64_t packets() const { return packets_; }

  private:
    static constexpr double startSeconds = 1000;

    Station* agent() const { return stations_[0].get(); }
    void pass(double seconds) {
        for (double const end = now_ + seconds; now_ < end && properties_.failure().empty();) {
            double next = std::min({end, wire_.nextExpiry(), stopDue_});
            for (double const known : known_)
                if (known > now_) next = std::min(next, known);
            for (auto const& router : routers_) next = std::min(next, router->nextExpiry());
            for (auto const& s : stations_)
                if (s->engine) next = std::min(next, s->engine->nextExpiry());
            if (machines_) next = std::min(next, machines_->nextExpiry());
            next = std::max(next, now_);
            rounds_ = next == now_ ? rounds_ + 1 : 0;
            if (rounds_ > 1000) properties_.doFail(now_, "does not let time pass", 0, {});
            properties_.check(next);
            now_ = next;
            for (auto const& router : routers_) router->advance(now_);
            wire_.advance(now_);
            for (auto const& s : stations_)
                if (s->engine) s->engine->advance(now_);
            doTurn();
        }
    }
    /// The end of a turn of the agent, and of the other hosts'.
    void doTurn() {
        if (machines_) {
            Station& s = *agent();
            if (std::exchange(routed_, known_[0] <= now_) != (known_[0] <= now_))
                machines_->configure(s.wished, routed_);
            machines_->advance(now_);
            bool const compared =
                now_ > std::max(changed_, known_[0]) + 3 && s.linkUp && !s.leaving;
            for (std::size_t g = 0; g < groups.size(); ++g) {
                Wish wish = machines_->announced(groups[g]), expected = s.wished[g];
                if (s.leaving) wish = {};
                if (expected.exclude && (g == listed || g == routed)) expected.sources.clear();
                if (compared && wish != expected && g != allSystems)
                    properties_.doFail(now_, "is not given what is wanted", 0, groups[g]);
                s.give(g, wish);
            }
        }
        for (auto const& s : stations_) {
            properties_.handleGiven(now_, *s);
            if (!s->engine) continue;
            s->engine->flush(now_);
            bool& owes = owes_[s->number()];
            if (owes && s->hears() && !s->leaving && known_[s->number()] <= now_) {
                owes = false;
                properties_.handleFormerEnd(now_, *s);
                s->engine->formerEnd(now_);
            }
            s->doKeep();
        }
        if (stopDue_ <= now_)
            for (auto const& s : stations_)
                if (s->leaving) doKill(*s);
    }
    void doSend(Station& s, Bytes const& packet) {
        ++packets_;
        properties_.handleSent(now_, s, Message(packet));
        if (s.linkUp) wire_.send(now_, routerCount + s.number(), packet);
    }
    void doDeliver(unsigned end, Bytes const& packet) {
        ++packets_;
        Message const message(packet);
        if (end < routerCount) return routers_[end]->received(now_, message);
        Station& s = *stations_[end - routerCount];
        if (!s.hears()) return;
        properties_.handleHeard(now_, s, message);
        s.engine->received(now_, packet);
    }

    void doStep(Step const& step) {
        auto const& [a, b, c, d, e] = step.with;
        Station& s = *stations_[a % stationCount];
        if (step.verb == "router") {
            properties_.handleDisturbance(now_, true);
            routers_[a]->start(now_, b);
        } else if (step.verb == "want") {
            doWant(s, b, c, d);
        } else if (step.verb == "link" && s.linkUp != (b > 0)) {
            doLink(s, b > 0);
        } else if (step.verb == "address") {
            s.settings.address = b < 3 ? s.addressOf(b) : IpAddr();
            doApply(s);
        } else if (step.verb == "again" && s.hears()) {
            properties_.doExpectChange(now_, s);
            s.engine->announceAgain(now_);
        } else if (step.verb == "speak") {
            s.settings.version = b;
            doApply(s);
        } else if (step.verb == "pace") {
            s.settings.packetsPer100ms = b;
            s.settings.mtu = c;
            doApply(s);
        } else if (step.verb == "start" && !s.engine) {
            doStart(s, b > 0, c);
        } else if (step.verb == "kill" && s.engine) {
            s.leaving = false; // it was not to finish
            doKill(s);
        } else if (step.verb == "stop" && s.engine && !s.leaving) {
            doStop(s);
        } else if (step.verb == "storm") {
            double const end = now_ + a;
            wire_.storm(end, b);
            properties_.handleDisturbance(end + 1, true);
        } else if (step.verb == "ask") {
            doAsk(a, b, c, d);
        }
        doTurn();
    }
    void doWant(Station& s, unsigned group, unsigned exclude, unsigned mask) {
        Wish& wish = s.wished[group];
        wish = {exclude > 0, {}};
        for (unsigned i = 0; i < 4; ++i)
            if (mask >> i & 1) wish.sources.insert(sources[i]);
        if (&s == agent()) {
            changed_ = now_;
            if (group == allSystems) wish = {};
            if (machines_) machines_->configure(s.wished, known_[0] <= now_);
        } else if (!s.leaving) {
            s.give(group, wish);
        }
    }
    void doLink(Station& s, bool up) {
        s.linkUp = up;
        changed_ = now_;
        if (&s == agent() && machines_) machines_->doLink(up);
        if (!s.engine) return;
        if (!up) {
            s.engine->linkDown(now_);
            properties_.handleLinkDown(s);
            return doTurn();
        }
        doTurn();
        doOpen(s);
    }
    void doOpen(Station& s) {
        properties_.handleLinkUp(now_, s);
        s.engine->linkUp(now_);
        owes_[s.number()] = true;
    }
    void doApply(Station& s) {
        if (!s.engine) return;
        properties_.handleSettings(now_, s);
        s.engine->setSettings(now_, s.settings);
    }
    /// Without its file it knows nothing of what it told before. The agent's routes come late.
    void doStart(Station& s, bool fromFile, unsigned delay) {
        properties_.handleStart(s, fromFile);
        s.start(now_, fromFile);
        changed_ = now_;
        if (&s == agent()) {
            known_[0] = now_ + delay;
            machines_.emplace(now_);
            machines_->configure(s.wished, delay == 0);
            machines_->doLink(s.linkUp);
        } else {
            for (std::size_t g = 0; g < groups.size(); ++g) s.give(g, s.wished[g]);
        }
        doTurn();
        if (s.linkUp) doOpen(s);
    }
    void doKill(Station& s) {
        s.kill();
        if (&s == agent()) machines_.reset();
        if (!s.leaving) properties_.handleLinkDown(s);
        s.leaving = false;
        properties_.handleGiven(now_, s);
        if (std::none_of(stations_.begin(), stations_.end(),
                         [](auto& each) { return each->leaving; }))
            stopDue_ = never;
    }
    void doStop(Station& s) {
        s.leaving = true;
        for (std::size_t g = 0; g < groups.size(); ++g) s.give(g, {});
        properties_.handleGiven(now_, s);
        if (s.linkUp) properties_.handleFormerEnd(now_, s);
        s.engine->leaveAll(now_);
        stopDue_ = now_ + 0.95;
    }
    /// A switch asks the hosts, and no router hears of it.
    void doAsk(unsigned version, unsigned group, unsigned mask, unsigned code) {
        IpAddr const about = group < groups.size() ? groups[group] : IpAddr();
        Agent::Sources asked;
        for (unsigned i = 0; i < sources.size(); ++i)
            if (mask >> i & 1 && !about.isZero()) asked.push_back(sources[i]);
        Bytes payload = Agent::message(Agent::IgmpType::query, version == 1 ? IpAddr() : about,
                                       std::uint8_t(version == 1 ? 0 : code));
        if (version == 3)
            payload =
                Agent::v3Query(std::uint8_t(code), about, asked, std::uint8_t(timing_.robustness));
        Bytes const packet = Agent::packetOf(payload, {.source = IpAddr()});
        for (unsigned s = 0; s < stationCount; ++s) doDeliver(routerCount + s, packet);
    }

    double now_ = startSeconds;
    Timing timing_;
    std::vector<std::unique_ptr<Router>> routers_;
    std::vector<std::unique_ptr<Station>> stations_;
    std::optional<Machines> machines_;
    Wire wire_;
    Properties properties_;
    double changed_ = startSeconds, stopDue_ = never;
    std::array<double, stationCount> known_{}; ///< when each knows all that is wanted of it
    std::array<bool, stationCount> owes_{};    ///< leaves, until then
    bool routed_ = true;                       ///< what the agent's machines know of that
    unsigned rounds_ = 0;
    std::uint64_t packets_ = 0;
};

} // namespace Simulator
