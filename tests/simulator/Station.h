// A host on the link: the engine, what stands around it in the agent (the link, the settings and
// the file of what routers may hold), and what holds of each engine by itself at every moment:
//
//   - A record says what the host wants at that moment, and is about a group that is its own, or
//     was until it told that. A change of a group is told as often as the robustness demands, and
//     no more, within its time; a query has one answer at most about each group.
//   - Packets keep to the pace, but for those of leaving everything, and answers to the response
//     time that was asked for: the whole state, or what is wanted of the sources asked about.
//   - The host speaks the version of the oldest querier that is present.
//   - At rest nothing is pending but the timers of older queriers, and what is kept about groups is
//     that of those that are wanted.
#pragma once

#include "agent/igmp/HostEngine.h"
#include "simulator/Router.h"

#include <deque>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace Simulator {

/// What is wanted of a group.
struct Wish {
    bool exclude = false;
    Sources sources;

    bool wants(IpAddr source) const { return sources.contains(source) != exclude; }
    bool member() const { return exclude || !sources.empty(); }
    friend bool operator==(Wish const&, Wish const&) = default;
};
using Wishes = std::map<IpAddr, Wish>;

/// The groups that hosts ask for: some that a configuration names, one that an access list selects,
/// one of the forwarding table, one that is source-specific, and one that nobody announces.
inline std::vector<IpAddr> const groups{
    IpAddr("239.1.1.1"), IpAddr("239.1.1.2"), IpAddr("239.1.1.3"), IpAddr("239.1.2.1"),
    IpAddr("239.1.3.1"), IpAddr("232.1.1.1"), IpAddr("224.0.0.1")};
inline IpAddr const listed = groups[3], routed = groups[4];
/// The last one is in no list.
inline std::vector<IpAddr> const sources{IpAddr("10.1.0.1"), IpAddr("10.1.0.2"), IpAddr("10.1.0.3"),
                                         IpAddr("10.1.0.4"), IpAddr("10.9.9.9")};

/// The traffic of one source to a group.
struct Flow {
    IpAddr group, source;
    double since = never; ///< wanted
    double held = -never; ///< when it was wanted last, if it is not
    double told = never;  ///< when routers were told of the latter; never if they were not
    bool ever = false;    ///< it was announced, by all that is known
};

[[noreturn]] inline void fail(double now, std::string const& what, unsigned number,
                              IpAddr group = {}, IpAddr source = {}) {
    std::ostringstream text;
    text << "at " << now << ": " << number << ", " << what << " " << group << " " << source;
    throw std::runtime_error(text.str());
}

/// What may be sent of a group, until when, and how much of it has to be.
struct Licence {
    double until = -never;
    unsigned left[2] = {}; ///< records of version 3; other messages
    unsigned owed = 0;     ///< of the former

    void extend(double now, double time, unsigned more, unsigned least) {
        for (unsigned& each : left) each = std::max(until < now ? 0 : each + more, least);
        until = std::max(until, time);
    }
};

class Station : public Agent::HostEngine::Output {
  public:
    using Send = std::function<void(Bytes const& packet)>;

    Station(unsigned which, std::uint32_t seed, unsigned robustness, double const& now, Send send)
        : number(which), now_(now), random_(seed), send_(std::move(send)) {
        settings.robustness = robustness;
        settings.address = addressOf(0);
        for (IpAddr const group : groups) {
            wished[group] = given[group] = {};
            for (IpAddr const source : sources) flows.push_back({group, source});
        }
    }
    IpAddr addressOf(unsigned variant) const {
        return IpAddr::fromHost(IpAddr("10.0.0.100").host() + 10 * number + variant);
    }

    /// Without its file it knows nothing of what it told before. The link is opened later.
    void start(bool fromFile) {
        engine.emplace(*this, std::mt19937(random_()));
        engine->setSettings(now_, settings);
        if (!fromFile) file_ = {};
        for (Flow& flow : flows) flow.ever &= fromFile;
        engine->addFormer(file_);
        sent_.clear(); // the pace is that of one run
        doForget();
        handleVersion();
    }
    void kill() {
        for (auto const& [group, tells] : tells_)
            require(leaveEnd > now_ || tells.owed == 0, "does not leave often enough", group);
        doKeep();
        engine.reset();
        hears = false;
        if (leaveEnd == never) doForget(); // it has told a part at most
        leaveEnd = never;
        for (IpAddr const group : groups) give(group, {});
    }
    void stop() {
        leaveEnd = now_ + 0.95;
        for (IpAddr const group : groups) give(group, {});
        if (hears) doExpectFormerEnd();
        for (auto& [group, tells] : tells_) tells.until = leaveEnd;
        engine->leaveAll(now_);
    }
    void openLink() {
        hears = owes_ = true;
        upSince = now_;
        for (Flow& flow : flows) flow.ever |= flow.since != never;
        handleVersion();
        doExpectAll(true);
        engine->linkUp(now_);
    }
    void closeLink() {
        hears = false;
        doForget();
        engine->linkDown(now_);
    }
    void applySettings(bool moved = false) {
        if (!engine) return;
        doExpectAll(moved);
        for (auto& [group, answers] : answers_) {
            for (auto& [source, due] : owed_[group]) due += pace();
            answers.until += pace();
        }
        if (settings.version < 3) heardRobustness_ = 0;
        handleVersion();
        engine->setSettings(now_, settings);
    }
    void announceAgain() {
        doExpectAll(true);
        engine->announceAgain(now_);
    }
    void give(IpAddr group, Wish const& wish) {
        if (engine && wish == Wish())
            engine->removeGroup(group);
        else if (engine)
            engine->setGroup(group,
                             wish.exclude ? Agent::FilterMode::exclude : Agent::FilterMode::include,
                             std::vector(wish.sources.begin(), wish.sources.end()));
        // Nobody announces all systems, nor EXCLUDE of a source-specific group (RFC 4604).
        bool const refused =
            group == Agent::allSystems || (group.isSourceSpecific() && wish.exclude);
        Wish const taken = engine && !refused ? wish : Wish();
        if (taken == std::exchange(given[group], taken)) return;
        changed_[group] = now_;
        if (hears) doExpectTold(group, true);
        std::erase_if(owed_[group], [&](auto const& item) {
            return !(item.first.isZero() ? taken.member() : taken.wants(item.first));
        });
        for (Flow& flow : flows) {
            bool const wanted = taken.wants(flow.source);
            if (flow.group != group || wanted == (flow.since != never)) continue;
            if (!wanted) flow.held = now_;
            flow.since = wanted ? now_ : never;
            flow.told = hears ? now_ : never;
            flow.ever |= hears;
        }
    }
    void hear(Bytes const& packet) {
        if (!hears) return;
        Message const m(packet);
        if (m.olderReport()) owed_[m.group].clear();
        if (m.queryVersion > 0) handleQuery(m);
        engine->received(now_, packet);
        Bytes garbled = packet; // which its checksums show
        garbled[random_() % packet.size()] ^= std::uint8_t(1 << random_() % 8);
        engine->received(now_, garbled);
    }
    void send(std::span<std::uint8_t const> bytes) override {
        Bytes const packet(bytes.begin(), bytes.end());
        handleSent(Message(packet));
        send_(packet);
    }
    void warn(std::string const&) override {}

    double nextExpiry() const {
        return std::min(
            {leaveEnd, known > now_ ? known : never, engine ? engine->nextExpiry() : never});
    }
    /// The end of a turn.
    void flush() {
        engine->flush(now_);
        if (owes_ && hears && leaveEnd == never && known <= now_) {
            owes_ = false;
            doExpectFormerEnd();
            engine->formerEnd(now_);
        }
        doKeep();
    }
    /// What holds of the time up to now.
    void check() {
        if (!engine) return;
        // As its version changes, what it owes goes, by one clock or the other.
        if (std::min(std::abs(v1Expiry_ - now_), std::abs(v2Expiry_ - now_)) < 0.01) return;
        handleVersion();
        require(engine->version() == version, "speaks another version");
        bool rests = true;
        for (IpAddr const group : groups) {
            for (auto const& [source, due] : owed_[group])
                require(now_ <= due, "does not answer in time", group);
            bool const told = tells_[group].until < now_;
            require(!told || tells_[group].owed == 0, "does not tell often enough", group);
            rests &= told && answers_[group].until < now_;
        }
        require(!engine->hasFormer() || owes_ || !hears, "does not forget");
        if (!rests) return;
        std::size_t members = 0, octets = 0; // of a record in each version, where there are both
        for (auto const& [group, wish] : given) {
            members += wish.member();
            if (engine->hasFormer()) octets += 2 * (16 + 4 * sources.size());
            if (wish.member()) octets += 16 + (wish.exclude ? 0 : 4 * wish.sources.size());
        }
        require(engine->memberCount() == members, "counts other groups");
        require(held().octets() <= octets, "keeps too much");
        double const next = engine->nextExpiry();
        require(next == never || next == v1Expiry_ || next == v2Expiry_, "does not rest");
    }
    double repeatSeconds() const { return spoken() == 3 ? 1 : 10; }
    /// What the pace may put off.
    double pace() const { return 0.02 + 0.12 * 16 / settings.packetsPer100ms; }
    /// When anything of the group was wanted.
    double wantedLast(IpAddr group) const {
        double last = -never;
        for (Flow const& flow : flows)
            if (flow.group == group) last = std::max(last, flow.since != never ? now_ : flow.held);
        return last;
    }

    unsigned const number;
    std::optional<Agent::HostEngine> engine; ///< none: not running
    Agent::HostEngine::Settings settings;
    IpAddr wishedAddress = addressOf(0);
    bool linkUp = true;
    bool hears = false;      ///< it runs, and has been told that the link is up
    double leaveEnd = never; ///< while it leaves everything, to end
    double known = 0;        ///< when all is known that is wanted
    Wishes wished;           ///< by the operator
    Wishes given;            ///< to the engine, but for what it is to refuse
    std::vector<Flow> flows;
    double upSince = never;
    unsigned version = 3; ///< what it speaks, or spoke as it ended
    double versionSince = -never;

  private:
    void require(bool holds, char const* what, IpAddr group = {}) const {
        if (!holds) fail(now_, std::string("station ") + what, number, group);
    }
    /// As it has heard, or as is set where it has not.
    unsigned robustness() const {
        return heardRobustness_ > 0 ? std::max(heardRobustness_, 2u) : settings.robustness;
    }
    /// After what it has heard.
    unsigned spoken() const {
        unsigned const querier = v1Expiry_ > now_ ? 1 : v2Expiry_ > now_ ? 2 : 3;
        return std::min(settings.version, querier);
    }
    void handleVersion() {
        if (spoken() == version) return;
        version = spoken();
        versionSince = now_;
        owed_.clear();
        asked_ = -never;
        for (auto& [group, tells] : tells_) {
            tells.owed = 0;
            if (tells.until > now_) doExpectTold(group, false);
        }
    }
    /// It is told by nobody any more, and tells nothing of what it gave up.
    void doForget() {
        v1Expiry_ = v2Expiry_ = -never;
        heardRobustness_ = 0;
        owed_.clear();
        answers_.clear();
        tells_.clear();
        for (Flow& flow : flows) flow.told = never;
    }
    /// A change of the group; `owed`: one that all of its records are to tell.
    void doExpectTold(IpAddr group, bool owed) {
        Licence& tells = tells_[group];
        double const seconds = robustness() * (repeatSeconds() + pace());
        // One that the pace has held back comes besides.
        unsigned const times = robustness() + (settings.packetsPer100ms < 10);
        tells.extend(now_, now_ + seconds + slack, 0, times);
        if (owed) tells.owed = version == 3 ? robustness() : 0;
    }
    /// All is told again; `owed`: what is wanted certainly is.
    void doExpectAll(bool owed) {
        for (IpAddr const group : groups)
            if (hears) doExpectTold(group, owed && given[group].member());
    }
    /// It leaves what it does not want any more.
    void doExpectFormerEnd() {
        doExpectAll(false);
        for (Flow& flow : flows)
            if (flow.ever) flow.told = std::min(flow.told, now_);
    }
    void handleQuery(Message const& m) {
        bool const older = settings.version < 3, general = m.group.isZero();
        unsigned const read = older && m.queryVersion == 3 ? 2 : m.queryVersion;
        unsigned const coded = (m.code % 16 + 16) << (m.code / 16 % 8 + 3);
        double seconds = (read == 3 && m.code > 127 ? coded : m.code) / 10.0;
        if (read == 1) seconds = 10;
        double const present = settings.robustness * 125 + 10 * seconds;
        if (general && m.queryVersion == 1) v1Expiry_ = now_ + (older ? 400 : present);
        if (general && m.queryVersion == 2) v2Expiry_ = now_ + present;
        handleVersion();
        if (read == 3) heardRobustness_ = m.robustness;
        double const due = now_ + (version == 1 ? std::min(seconds, 10.0) : seconds) + pace();
        // Older queries that follow each other at once are copies.
        bool const copy = version < 3 && general && now_ < std::exchange(asked_, now_) + 0.1;
        for (auto const& [group, wish] : given) {
            if (!general && m.group != group) continue;
            answers_[group].extend(now_, due + 0.01, 1, 1);
            if (copy || !wish.member()) continue;
            bool const whole = m.sources.empty() || version < 3;
            for (IpAddr const source : whole ? Sources{IpAddr()} : m.sources)
                if (whole || wish.wants(source)) {
                    double& owed = owed_[group].try_emplace(source, never).first->second;
                    owed = std::min(due, owed);
                }
        }
    }
    void handleSent(Message const& m) {
        bool const report = m.type == 0x22;
        IpAddr const to = m.leave() ? Agent::allRouters : m.group;
        require(m.from == settings.address, "sends from another address");
        require(m.to == (report ? Agent::allV3Routers : to), "sends to nobody");
        require(hears, "speaks without a link");
        sent_.push_back(now_);
        while (sent_.front() <= now_ - 0.1) sent_.pop_front();
        require(sent_.size() <= settings.packetsPer100ms || leaveEnd != never, "is too fast");
        std::set<IpAddr> told; // a change may take two records
        for (Record const& record : m.records) {
            handleRecord(record);
            if (record.type <= isEx)
                doTake(answers_[record.group], 0, record.group);
            else if (told.insert(record.group).second)
                doTake(tells_[record.group], 0, record.group);
        }
        if (report) return;
        require(given.contains(m.group), "tells of a strange group", m.group);
        require((given[m.group].member() != m.leave() || isLate(m.group)) &&
                    (!m.leave() || gaveUp(m.group)),
                "tells the contrary of what it wants or wanted", m.group);
        Licence& answers = answers_[m.group];
        bool const answer = !m.leave() && now_ <= answers.until && answers.left[1] > 0;
        doTake(answer ? answers : tells_[m.group], 1, m.group);
        if (m.leave()) return;
        require(spoken() == (m.type == 0x12 ? 1 : 2), "speaks another version");
        owed_[m.group].clear();
    }
    void doTake(Licence& licence, unsigned kind, IpAddr group) {
        require(now_ <= licence.until && licence.left[kind] > 0, "speaks without a reason", group);
        --licence.left[kind];
        if (kind == 0 && licence.owed > 0) --licence.owed;
    }
    /// It is to tell that it does not want it any more, whatever the source if none is given.
    bool gaveUp(IpAddr group, IpAddr source = {}) const {
        return std::any_of(flows.begin(), flows.end(), [&](Flow const& flow) {
            return flow.group == group && (source.isZero() || flow.source == source) &&
                   flow.told != never;
        });
    }
    /// What the pace has held back says what was wanted when it was packed.
    bool isLate(IpAddr group) {
        return settings.packetsPer100ms < 10 && now_ < changed_[group] + pace();
    }
    void handleRecord(Record const& r) {
        require(given.contains(r.group), "tells of a strange group", r.group);
        Wish const& wish = given[r.group];
        auto const all = [&](auto const& holds) {
            return !r.sources.empty() && std::all_of(r.sources.begin(), r.sources.end(), holds);
        };
        bool const exact = r.sources == wish.sources;
        bool const wanted = all([&](IpAddr source) { return wish.wants(source); });
        bool const ended =
            all([&](IpAddr source) { return !wish.wants(source) && gaveUp(r.group, source); });
        bool const right[] = {false,
                              wanted,                                                       // IS_IN
                              exact && wish.exclude,                                        // IS_EX
                              exact && !wish.exclude && (wish.member() || gaveUp(r.group)), // TO_IN
                              exact && wish.exclude,                                        // TO_EX
                              wanted,                                                       // ALLOW
                              ended};                                                       // BLOCK
        require(r.type <= block && (right[r.type] || isLate(r.group)), "tells what is not so of",
                r.group);
        require(spoken() == 3 || r.type == toIn || r.type == block, "speaks another version");
        if (r.type > isEx) return;
        for (IpAddr const source : r.sources) owed_[r.group].erase(source);
        if (exact) owed_[r.group].clear();
    }

    void doKeep() {
        if (engine->takeHeldChange()) file_ = held();
    }
    /// What routers may hold, by the engine.
    Agent::RecordList held() const {
        Agent::RecordList records;
        for (Agent::HostEngine::HeldPlace place; engine->addHeldRecords(records, place, 2);) {
        }
        return records;
    }

    double const& now_;
    std::mt19937 random_;
    Send send_;
    Agent::RecordList file_;
    bool owes_ = false; // leaves, until all is known
    double v1Expiry_ = -never, v2Expiry_ = -never;
    unsigned heardRobustness_ = 0;     // 0: none
    double asked_ = -never;            // last older general query
    std::map<IpAddr, double> changed_; // when what is given of the group was another last
    std::map<IpAddr, Licence> tells_;
    std::map<IpAddr, Licence> answers_;
    std::map<IpAddr, std::map<IpAddr, double>> owed_; // when answers are due, by group and source
    std::deque<double> sent_;
};

} // namespace Simulator
