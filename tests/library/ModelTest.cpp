// Configuration and access lists together, against the model, over random histories in the words of
// scenarios.
#include "Model.h"
#include "Play.h"

#include <rapidcheck/gtest.h>

namespace IgmpHostProxy {
namespace {

using Mode = Model::Mode;

std::vector<std::string> const groups{"g0", "g1", "g2", "g3"}; ///< a range for rules
std::string const sources = "*12345";                          ///< more than a set holds inline
std::vector<std::string> const lists{"iptv", "news"};

/// What a step is about; each kind takes what it needs.
struct Drawn {
    unsigned kind, group, source, list, sequence, shape;
    bool first;
};
struct About {
    Lox::IpAddr group, source;
    Mode mode;
    std::string list;
    unsigned sequence;
    Model::Rule rule;
};
using M = Model&;
using A = About const&;
/// What happens, and what the model makes of it. In what happens, G is a group, M and S are a mode
/// and a source, L a list, N a number that is new, Q a place in a list, R a rule.
struct Kind {
    char const* events;
    void (*model)(M, A);
};
Kind const kinds[] = {
    {"c+ G", [](M m, A a) { m.configure(a.group); }},
    {"c+MS G", [](M m, A a) { m.configure(a.group, a.source, a.mode); }},
    {"c+ G; c-MS G",
     [](M m, A a) {
         m.configure(a.group);
         m.unconfigure(a.group, a.source, a.mode);
     }},
    {"-MS G",
     [](M m, A a) {
         m.unconfigure(a.group, a.source, a.mode);
         m.listAsDeleted(a.group, a.source, a.mode);
         m.unlistDeleted(a.group);
     }},
    {"c- G", [](M m, A a) { m.unconfigure(a.group); }},
    {"d+MS G", [](M m, A a) { m.listAsDeleted(a.group, a.source, a.mode); }},
    {"d- G", [](M m, A a) { m.unlistDeleted(a.group); }},
    {"s+MS G", [](M m, A a) { m.contribute(a.group, a.source, a.mode); }},
    {"attach L", [](M m, A a) { m.attach(a.list); }},
    {"detach L", [](M m, A a) { m.detach(a.list); }},
    {"decide-list L", [](M m, A a) { m.handleList(a.list); }},
    {"no-list L", [](M m, A a) { m.deleteList(a.list); }},
    {"list L", [](M m, A a) { m.createList(a.list); }},
    {"text L N R; sequence L Q N",
     [](M m, A a) {
         m.createList(a.list);
         m.writeRule(a.list, a.sequence, a.rule);
     }},
    {"list L; no-rule L Q",
     [](M m, A a) {
         m.createList(a.list);
         m.eraseRule(a.list, a.sequence);
     }},
};

/// Ranges, masks with holes, rules that are rejected, one that denies everything, and an action
/// that nobody knows, which works as deny.
std::string ruleOf(Drawn const& d) {
    std::string const action = d.first ? "permit " : "deny ", source{sources[d.source]},
                      group = " " + groups[d.group];
    std::string const shapes[] = {
        action + source + " g0/30",       action + source + group + "/255.255.255.253",
        action + source + " 128.0.0.0/1", "deny * 0.0.0.0/0",
        "permit 10.0.0.0/8 g0/31",        "2 " + source + group};
    return d.shape < std::size(shapes) ? shapes[d.shape] : action + source + group;
}
std::string eventsOf(Drawn const& d, std::string const& number) {
    std::map<char, std::string> const drawn{{'G', groups[d.group]},
                                            {'M', d.first ? "i" : "e"},
                                            {'S', {sources[d.source]}},
                                            {'L', lists[d.list]},
                                            {'N', number},
                                            {'Q', std::to_string(d.sequence)},
                                            {'R', ruleOf(d)}};
    std::string events;
    for (char const c : std::string(kinds[d.kind].events)) {
        auto const found = drawn.find(c);
        events += found == drawn.end() ? std::string{c} : found->second;
    }
    return events;
}
std::ostream& operator<<(std::ostream& out, Drawn const& d) { return out << eventsOf(d, "N"); }

/// The library and the model side by side.
class Compared : public Play {
  public:
    Compared() {
        doEvents("start; tables; intf up0 2; configure up0");
        for (auto const& list : lists) {
            doEvents("list " + list + "; attach " + list);
            model_.createList(list);
            model_.attach(list);
        }
    }
    void run(Drawn const& d) {
        unsigned const number = ++numbers_;
        doEvents(eventsOf(d, std::to_string(number)));
        Model::Rule rule{number, {}};
        if (auto* const list = aclConfig->acl(lists[d.list]))
            rule.config = list->currCfg()->ipRuleById(Acl::UniqueId(number));
        kinds[d.kind].model(model_, {address(groups[d.group]), address({sources[d.source]}),
                                     d.first ? Mode::include : Mode::exclude, lists[d.list],
                                     d.sequence, rule});
    }
    Lines actual() const {
        Lines lines;
        for (auto const& name : groups) {
            Lox::IpAddr const at = address(name);
            lines.push_back(name + " = " + group(at));
            for (auto const& list : lists)
                if (helper(list)) lines.back() += ", " + textOf(helper(list)->groupSourceList(at));
        }
        for (auto const& list : lists) lines.push_back(list + " = " + rules(list));
        lines.push_back(intfStatus("up0")->denyMroute() ? "deny" : "");
        return lines;
    }
    Lines expected() const {
        Lines lines;
        for (auto const& name : groups) {
            Lox::IpAddr const at = address(name);
            lines.push_back(name + " = " + entryText(model_.status, at));
            if (auto const counts = model_.counts.find(at); counts != model_.counts.end())
                for (auto const& [source, count] : counts->second)
                    lines.back() += " " + nameOf(source) + ":" + std::to_string(count);
            for (auto const& [list, helper] : model_.helpers)
                lines.back() += ", " + entryText(helper.groups, at);
        }
        for (auto const& list : lists) {
            auto const found = model_.helpers.find(list);
            lines.push_back(list + " = " + (found == model_.helpers.end() ? "no helper" : ""));
            if (found == model_.helpers.end()) continue;
            for (auto const& rule : found->second.cached)
                lines.back() += std::to_string(rule.id) + " ";
        }
        lines.push_back(model_.deny ? "deny" : "");
        return lines;
    }

  private:
    static std::string namesOf(std::set<Lox::IpAddr> const& sources) {
        std::string text;
        for (auto const source : sources) text += nameOf(source);
        return text;
    }
    static std::string entryText(Model::Groups const& groups, Lox::IpAddr group) {
        auto const found = groups.find(group);
        if (found == groups.end()) return "none";
        return "i" + namesOf(found->second[Mode::include]) + " e" +
               namesOf(found->second[Mode::exclude]);
    }
    Model model_{{ip("239.1.1.0"), ip("239.1.1.1"), ip("239.1.1.2"), ip("239.1.1.3")}};
    unsigned numbers_ = 0;
};

RC_GTEST_PROP(ProducersModel, StatusCountsAndListsFollowEveryStep, ()) {
    auto const below = [](auto count) { return rc::gen::inRange(0u, unsigned(count)); };
    auto const anyStep = rc::gen::build<Drawn>(
        rc::gen::set(&Drawn::kind, below(std::size(kinds))),
        rc::gen::set(&Drawn::group, below(groups.size())),
        rc::gen::set(&Drawn::source, below(sources.size())),
        rc::gen::set(&Drawn::list, below(lists.size())), rc::gen::set(&Drawn::sequence, below(3)),
        rc::gen::set(&Drawn::shape, below(9)),
        rc::gen::set(&Drawn::first, rc::gen::arbitrary<bool>()));
    auto const history = *rc::gen::scale(3, rc::gen::container<std::vector<Drawn>>(anyStep));
    Compared compared;
    for (Drawn const& drawn : history) {
        compared.run(drawn);
        RC_ASSERT(compared.actual() == compared.expected());
    }
}

} // namespace
} // namespace IgmpHostProxy
