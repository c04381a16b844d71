// The machines of one interface, and what writes to them: what the first host wants goes through
// them, as configuration, access list and routes.
#pragma once

#include "Nex/System.h"
#include "agent/records/ConfigurationWriter.h"
#include "agent/records/RouteWriter.h"
#include "simulator/Station.h"
#include "support/InProcessPlatform.h"

namespace Simulator {

class Machines {
  public:
    explicit Machines(double now) : time_(now) {
        platform_.tables();
        platform_.start();
        routes_.emplace(platform_.mfibDir->keshColl(L3::VrfName("default")), "routes");
        platform_.usableIntf("up0", 2);
        platform_.delistIntf("up0");
    }
    /// Without the routes, as long as they are not known.
    void configure(Wishes wishes, bool withRoutes) {
        Agent::Configuration configuration;
        auto& interface = configuration.interfaces["up0"];
        // Two lists, attached while they ask for something, with rules that ask for a neighbour,
        // too.
        Wish const wish = wishes.extract(listed).mapped();
        bool const refused = wish.exclude && !wish.sources.empty();
        Agent::AccessListConfiguration::Rules rules[2];
        for (IpAddr const source : refused ? wish.sources : permitted(wish)) {
            unsigned const octet = source.host() & 0xff;
            rules[octet % 2][octet + 1] = {
                {refused ? Acl::Action::deny : Acl::Action::permit,
                 {{source, source.isZero() ? 0 : ~0u}, {listed, octet % 3 == 0 ? ~1u : ~0u}}}};
        }
        for (unsigned const list : {0u, 1u}) {
            std::string const name(1, char('a' + list));
            configuration.accessLists[name] = Agent::AccessListConfiguration(rules[list]);
            if (!rules[list].empty()) interface.accessLists.push_back(name);
        }
        Sources const routes = permitted(wishes.extract(routed).mapped());
        for (auto const& [group, wish] : wishes) {
            Sources const from = permitted(wish);
            std::vector const list(from.begin(), from.end());
            if (wish.exclude)
                interface.groups.add(group, {{}, list});
            else if (wish.member())
                interface.groups.add(group, {list, {}});
        }
        writer_.applyConfiguration(configuration);
        for (IpAddr const source : {IpAddr(), sources[0], sources[1], sources[2], sources[3]})
            routes_->write(source, routed, withRoutes && routes.contains(source));
    }
    void setAddress(IpAddr address) { platform_.addressOf("up0", address.stringValue()); }
    /// What the host entity is to speak from, if there is one.
    std::optional<IpAddr> address() const {
        Igmp::IgmpHost* const host = platform_.host("up0");
        return host ? std::optional(host->ipAddr()) : std::nullopt;
    }
    void setLink(bool up) { up ? platform_.listIntf("up0") : platform_.delistIntf("up0"); }
    /// What the host entity says.
    Wish announced(IpAddr group) const {
        Igmp::IgmpHost* const host = platform_.host("up0");
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
        return std::min(platform_.clock->nextExpiry(), platform_.timerWheel->nextExpiry());
    }
    void advance(double now) {
        time_.nowIs(now);
        platform_.clock->timeIs(now);
        platform_.timerWheel->timeIs(now);
        bool const present = platform_.host("up0");
        if (std::exchange(present_, present) != present) writer_.handleHost("up0", present);
    }

  private:
    /// Without a list of refused ones, any source is 0.0.0.0.
    static Sources permitted(Wish const& wish) {
        return wish.exclude && wish.sources.empty() ? Sources{IpAddr()} : wish.sources;
    }

    Nex::ManualTime time_;
    Support::InProcessPlatform platform_;
    Agent::ConfigurationWriter writer_{platform_};
    std::optional<Agent::RouteWriter> routes_;
    bool present_ = false;
};

} // namespace Simulator
