#include "agent/answers/Lists.h"

#include "agent/loop/Json.h"
#include "agent/loop/Printable.h"

#include <algorithm>
#include <bit>
#include <fmt/format.h>
#include <vector>

namespace Agent {

namespace {

using Kesh::Multicast::Fib::MfibKeshColl;
using Kesh::Multicast::Fib::MfibKeshCollRouteIteratorConst;
using nlohmann::json;
using Routing::Multicast::Fib::IpGenRouteKey;
using Table = Kesh::Multicast::Fib::Status;

Nex::Ptr<MfibKeshColl const> tablesOf(AgentView const& view, std::string const& vrf) {
    return view.state.mfibDir->keshColl(L3::VrfName(vrf));
}

/// Rule after rule, found by the place of the one before: the lists may change meanwhile.
class RuleRows : public JsonElements {
  public:
    RuleRows(AgentView const& view, std::string name) : view_(view), name_(std::move(name)) {}
    bool next(JsonStream& stream) override {
        Configuration const& configuration = view_.writer.configuration();
        auto const list = configuration.accessLists.lower_bound(list_);
        if (list == configuration.accessLists.end()) return false;
        if (list->first != list_) {
            list_ = list->first;
            sequence_.reset();
        }
        bool const shown = name_.empty() || name_ == list_;
        auto const& rules = list->second.rules();
        auto const rule = sequence_ ? rules.upper_bound(*sequence_) : rules.begin();
        if (!shown || rule == rules.end()) {
            list_ += '\0'; // the least name behind it
            sequence_.reset();
            return true;
        }
        sequence_ = rule->first;
        json row = ruleJson(list_, rule->first, rule->second);
        row["interfaces"] = interfacesOf(configuration);
        stream.addElement(row);
        return true;
    }

  private:
    json interfacesOf(Configuration const& configuration) const {
        json names = json::array();
        for (auto const& [name, interface] : configuration.interfaces)
            for (std::string const& attached : interface.accessLists)
                if (attached == list_) names.push_back(name);
        return names;
    }

    AgentView const& view_;
    std::string name_;
    std::string list_; ///< to go on with, or the next one
    std::optional<std::uint32_t> sequence_;
};

class RouteRows : public JsonElements {
  public:
    RouteRows(AgentView const& view, std::string const& vrf) : view_(view) {
        for (auto const& item : view.state.mfibDir->keshColl())
            if (vrf.empty() || vrf == item.key.stringValue())
                rest_.push_back(item.key.stringValue());
    }
    bool next(JsonStream& stream) override {
        if (!at_ || at_->atEnd()) return doNextVrf();
        stream.addElement({{"vrf", vrf_},
                           {"source", at_->routeKey().source.address().stringValue()},
                           {"group", at_->routeKey().group.address().stringValue()}});
        at_->updateToBestRouteIterators();
        return true;
    }

  private:
    bool doNextVrf() {
        if (rest_.empty()) return false;
        vrf_ = rest_.back();
        rest_.pop_back();
        auto const tables = tablesOf(view_, vrf_);
        at_.reset();
        if (!tables) return true;
        for (auto const& item : tables->keshPtr()) {
            at_.emplace(tables, item.key, std::nullopt);
            break;
        }
        return true;
    }

    AgentView const& view_;
    std::vector<std::string> rest_;
    std::string vrf_;
    std::optional<MfibKeshCollRouteIteratorConst> at_;
};

} // namespace

std::string rangeText(Lox::IpAddrWithFullMask range) {
    if (range.mask() == 0) return "any";
    std::string const address = range.address().stringValue();
    int const ones = std::countl_one(range.mask());
    if (ones == 32) return address;
    if (ones == std::popcount(range.mask())) return fmt::format("{}/{}", address, ones);
    return fmt::format("{}/{}", address, Lox::IpAddr::fromHost(range.mask()).stringValue());
}

void addPlace(json& json, Line const& line) {
    json["file"] = line.file ? printable(*line.file) : "";
    json["line"] = line.number;
}

json ruleJson(std::string const& list, std::uint32_t sequence, AccessListRule const& rule) {
    json row{{"list", list},
             {"sequence", sequence},
             {"action", rule.action == Acl::Action::permit ? "permit" : "deny"},
             {"source", rangeText(rule.filter.source)},
             {"destination", rangeText(rule.filter.destination)},
             {"groups", groupCount(rule)}};
    addPlace(row, rule.line);
    return row;
}

std::unique_ptr<JsonElements> listsAnswer(AgentView const& view, std::string const& name) {
    return std::make_unique<RuleRows>(view, name);
}

std::optional<Lox::IpAddr> nextRouteSource(AgentView const& view, std::string const& vrf,
                                           Lox::IpAddr group, std::optional<Lox::IpAddr> after) {
    std::optional<Lox::IpAddr> next;
    auto const tables = tablesOf(view, vrf);
    if (!tables) return next;
    IpGenRouteKey first{{}, Lox::IpPrefix(group, 32)};
    if (after && !after->isZero()) first.source = Lox::IpPrefix(*after, 32);
    for (auto const& item : tables->keshPtr()) {
        if (!item.value) continue;
        auto at = item.value->routeFrom(first);
        if (after && !at.atEnd() && at.key() == first) at.advance();
        if (at.atEnd() || at.key().group != first.group) continue;
        Lox::IpAddr const source = at.key().source.address();
        next = std::min(next.value_or(source), source);
    }
    return next;
}

std::unique_ptr<JsonElements> routesAnswer(AgentView const& view, std::string const& vrf) {
    return std::make_unique<RouteRows>(view, vrf);
}

} // namespace Agent
