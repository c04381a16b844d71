// A host on the link: the engine, and what stands around it in the agent, the link, the settings
// and the file of what routers may hold.
#pragma once

#include "agent/igmp/HostEngine.h"
#include "simulator/Router.h"

#include <optional>

namespace Simulator {

constexpr unsigned routerCount = 3, stationCount = 3;

/// What is wanted of a group.
struct Wish {
    bool exclude = false;
    Sources sources;

    bool wants(IpAddr source) const { return sources.contains(source) != exclude; }
    bool member() const { return exclude || !sources.empty(); }
    friend bool operator==(Wish const&, Wish const&) = default;
};

/// The groups that hosts ask for: some that a configuration names, one that an access list selects,
/// one of the forwarding table, one that is source-specific, and one that nobody announces.
inline std::vector<IpAddr> const groups{
    IpAddr("239.1.1.1"), IpAddr("239.1.1.2"), IpAddr("239.1.1.3"), IpAddr("239.1.2.1"),
    IpAddr("239.1.3.1"), IpAddr("232.1.1.1"), IpAddr("224.0.0.1")};
constexpr std::size_t listed = 3, routed = 4, sourceSpecific = 5, allSystems = 6;
/// The last one is in no list.
inline std::vector<IpAddr> const sources{IpAddr("10.1.0.1"), IpAddr("10.1.0.2"), IpAddr("10.1.0.3"),
                                         IpAddr("10.1.0.4"), IpAddr("10.9.9.9")};

class Station : public Agent::HostEngine::Output {
  public:
    /// Told of each packet before anybody else.
    using Sent = std::function<void(Station&, Bytes const& packet)>;

    Station(unsigned number, std::uint32_t seed, unsigned robustness, Sent sent)
        : number_(number), random_(seed), sent_(std::move(sent)) {
        settings.robustness = robustness;
        settings.address = addressOf(0);
    }
    IpAddr addressOf(unsigned variant) const {
        return IpAddr::fromHost(IpAddr("10.0.0.100").host() + 10 * number_ + variant);
    }

    /// What the engine has been given, but for what it is to refuse: nobody announces all systems,
    /// and no EXCLUDE of a source-specific group (RFC 4604).
    Wish given(std::size_t group) const {
        Wish const& wish = given_[group];
        return group == allSystems || (group == sourceSpecific && wish.exclude) ? Wish() : wish;
    }
    void give(std::size_t group, Wish const& wish) {
        given_[group] = wish;
        if (!engine) return;
        if (wish == Wish()) return engine->removeGroup(groups[group]);
        engine->setGroup(groups[group],
                         wish.exclude ? Agent::FilterMode::exclude : Agent::FilterMode::include,
                         std::vector(wish.sources.begin(), wish.sources.end()));
    }
    bool hears() const { return engine && linkUp; }

    void start(double now, bool fromFile) {
        engine.emplace(*this, std::mt19937(random_()));
        engine->setSettings(now, settings);
        if (!fromFile) file_ = {};
        engine->addFormer(file_);
    }
    /// Whether the file is to be written anew, which this does.
    void doKeep() {
        if (!engine || !engine->takeHeldChange()) return;
        file_ = held();
    }
    /// What routers may hold, by the engine.
    Agent::RecordList held() const {
        Agent::RecordList records;
        for (Agent::HostEngine::HeldPlace place; engine->addHeldRecords(records, place, 2);) {
        }
        return records;
    }
    void kill() {
        doKeep();
        engine.reset();
        given_ = {};
    }

    void send(std::span<std::uint8_t const> packet) override {
        sent_(*this, {packet.begin(), packet.end()});
    }
    void warn(std::string const&) override {}

    unsigned number() const { return number_; }

    std::optional<Agent::HostEngine> engine; ///< none: not running
    Agent::HostEngine::Settings settings;
    bool linkUp = true;
    bool leaving = false;         ///< everything, to end
    std::array<Wish, 7> wished{}; ///< of groups, by the operator

  private:
    unsigned number_;
    std::mt19937 random_;
    Sent sent_;
    std::array<Wish, 7> given_{};
    Agent::RecordList file_;
};

} // namespace Simulator
