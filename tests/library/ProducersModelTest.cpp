// Configuration, access lists and routes together, and the host's records that come of them,
// against the model, over random histories.
#include "ProducersModel.h"
#include "Producers.h"

#include <array>
#include <rapidcheck/gtest.h>

namespace IgmpHostProxy {
namespace {

constexpr unsigned groups = 4; // a /30
/// Number `groups` is the group that no route may announce.
Lox::IpAddr groupOf(unsigned number) {
    return Lox::IpAddr::fromHost(number == groups ? 0xE0000000 : 0xEF010100 + number);
}
/// Number 0 is any source.
constexpr unsigned sources = 6; // more than a set holds inline
Lox::IpAddr sourceOf(unsigned number) {
    return number == 0 ? anySource : Lox::IpAddr::fromHost(0x0A000000 + number);
}
constexpr std::array<char const*, 2> listNames{"iptv", "news"};
constexpr unsigned sequences = 3;

/// What a step is about; each kind of step takes what it needs.
struct Drawn {
    int step;
    unsigned group, source, list, sequence, shape;
    bool first;
};

enum Step {
    configureGroup,
    configureSource,
    dropSource,
    removeSource,
    dropGroup,
    listAsDeleted,
    unlistDeleted,
    contributeFromTable,
    attachOrDetach,
    createOrDeleteList,
    writeRule,
    eraseRule,
    attachAgain,
    writeRoute,
    eraseRoute,
    review,
    restart,
    steps
};
std::ostream& operator<<(std::ostream& out, Drawn const& d) {
    static constexpr char const* names[] = {
        "configureGroup", "configureSource",    "dropSource",    "removeSource",
        "dropGroup",      "listAsDeleted",      "unlistDeleted", "contributeFromTable",
        "attachOrDetach", "createOrDeleteList", "writeRule",     "eraseRule",
        "attachAgain",    "writeRoute",         "eraseRoute",    "review",
        "restart"};
    return out << names[d.step] << " group " << groupOf(d.group) << " source " << sourceOf(d.source)
               << " list " << listNames[d.list] << " sequence " << d.sequence << " shape "
               << d.shape << (d.first ? " first" : " second");
}

/// Ranges, masks with holes, rules that are rejected, and the one that denies everything.
Acl::IpRuleConfig ruleOf(Drawn const& d) {
    // An action that nobody knows works as deny, but denies nothing as a whole.
    auto const other = d.shape == 5 ? Acl::Action(2) : Acl::Action::deny;
    auto const action = d.first ? Acl::Action::permit : other;
    auto const source = sourceOf(d.source);
    switch (d.shape) {
    case 0:
        return rule(action, source, groupOf(0), 0xFFFFFFFC);
    case 1:
        return rule(action, source, groupOf(d.group % groups), 0xFFFFFFFD);
    case 2:
        return rule(action, source, ip("128.0.0.0"), 0x80000000);
    case 3:
        return denyAll;
    case 4:
        return {action, {{ip("10.0.0.0"), 0xFF000000}, {groupOf(0), 0xFFFFFFFE}}};
    default:
        return rule(action, source, groupOf(d.group % groups));
    }
}

class Interface : public Producers {
  public:
    void TestBody() override {}
    Interface() {
        for (auto& table : tables_) table = newTable();
        settle();
        machine().reviewQuantumIs(0);
    }

    void run(Drawn const& d) {
        Lox::IpAddr const group = groupOf(d.group % groups);
        Lox::IpAddr const source = sourceOf(d.source);
        Mode const mode = d.first ? Mode::include : Mode::exclude;
        auto const list = [&](GroupSource& record) {
            d.first ? record.includeSourceListIs(source) : record.excludeSourceListIs(source);
        };
        switch (Step(d.step)) {
        case configureGroup:
            config->groupSourceListIs(group);
            return model_.configure(group);
        case configureSource:
            list(*config->groupSourceListIs(group));
            return model_.configure(group, source, mode);
        case dropSource:
            if (auto* const record = config->groupSourceList(group))
                d.first ? record->includeSourceListDel(source)
                        : record->excludeSourceListDel(source);
            return model_.unconfigure(group, source, mode);
        case removeSource:
            for (Step const each : {dropSource, listAsDeleted, unlistDeleted})
                run({each, d.group, d.source, d.list, d.sequence, d.shape, d.first});
            return;
        case dropGroup:
            config->groupSourceListDel(group);
            return model_.unconfigure(group);
        case listAsDeleted:
            list(*config->deletedGroupSourceListIs(group));
            return model_.listAsDeleted(group, source, mode);
        case unlistDeleted:
            config->deletedGroupSourceListDel(group);
            return model_.unlistDeleted(group);
        case contributeFromTable:
            list(*status->groupSourceListIs(group));
            return model_.contribute(group, source, mode);
        case review:
            machine().doReview();
            return model_.review();
        case restart:
            world.root->igmpHostProxyIntfSmDel(up0);
            world.root->handleIntfConfig(up0);
            machine().reviewQuantumIs(0);
            return model_.restart();
        case writeRoute:
            routeIs(*tables_[d.list], source, groupOf(d.group), ++stamp_);
            return model_.writeRoute(d.list, {groupOf(d.group), source});
        case eraseRoute:
            routeDel(*tables_[d.list], source, groupOf(d.group));
            return model_.eraseRoute(d.list, {groupOf(d.group), source});
        default:
            return runOnList(d, listNames[d.list]);
        }
    }

    Lines actual() {
        Lines lines;
        for (unsigned g = 0; g <= groups; ++g) {
            lines.push_back(announced(groupOf(g)));
            for (unsigned s = 0; s < sources; ++s)
                lines.back() += " " + std::to_string(count(sourceOf(s), groupOf(g)));
            auto const* const record = host->v3group(groupOf(g));
            if (!record) continue;
            lines.push_back(recordText(unsigned(record->filterMode()), record->version()));
            for (auto const source : Nex::sortedKeys(record->source()->sourceIp()))
                lines.back() += " " + source.stringValue();
        }
        for (auto const* const name : listNames) {
            lines.push_back(name);
            if (!helper(name)) continue;
            for (unsigned g = 0; g < groups; ++g)
                lines.push_back(sourcesOf(helper(name)->groupSourceList(groupOf(g))));
            lines.push_back("rules");
            for (auto const& item : helper(name)->cachedRules())
                lines.back() += " " + Nex::textOf(item.key);
        }
        auto const& bookmark = machine().rkBookmark();
        lines.push_back(reviewText(
            status->denyMroute(), machine().syncAllRoutes(), machine().changedRoute().size(),
            machine().keshBookmark() ? bookmark.source.address() : noAddress,
            machine().keshBookmark() ? bookmark.group.address() : noAddress));
        return lines;
    }
    Lines expected() {
        Lines lines;
        for (unsigned g = 0; g <= groups; ++g) {
            auto const* const entry = model_.status(groupOf(g));
            lines.push_back(entry ? textOf(*entry) : "absent");
            for (unsigned s = 0; s < sources; ++s)
                lines.back() += " " + std::to_string(model_.count(sourceOf(s), groupOf(g)));
            auto const* const record = model_.record(groupOf(g));
            if (!record) continue;
            lines.push_back(recordText(record->mode, record->version));
            auto listed = record->sources.addrs;
            std::sort(listed.begin(), listed.end());
            for (auto const source : listed) lines.back() += " " + source.stringValue();
        }
        for (auto const* const name : listNames) {
            lines.push_back(name);
            auto const helper = model_.helpers.find(name);
            if (helper == model_.helpers.end()) continue;
            for (unsigned g = 0; g < groups; ++g) {
                auto const entry = helper->second.groups.find(groupOf(g));
                lines.push_back(entry == helper->second.groups.end() ? "absent"
                                                                     : textOf(entry->second));
            }
            lines.push_back("rules");
            for (auto const& cached : helper->second.cached)
                lines.back() += " " + std::to_string(cached.id);
        }
        auto const& at = model_.bookmark;
        lines.push_back(reviewText(model_.deny, model_.fullSync, model_.changed.size(),
                                   at ? at->second.source : noAddress,
                                   at ? at->second.group : noAddress));
        return lines;
    }

  private:
    static constexpr Lox::IpAddr noAddress = Lox::IpAddr::fromHost(~0u);

    void runOnList(Drawn const& d, std::string const& name) {
        bool const exists = world.aclConfig->aclHas(name);
        unsigned const before = exists ? model_.idAt(name, d.sequence) : 0;
        switch (Step(d.step)) {
        case attachOrDetach:
            d.first ? config->aclListIs(name) : config->aclListDel(name);
            return d.first ? model_.attach(name) : model_.detach(name);
        case createOrDeleteList:
            if (d.first) {
                rulesOf(name);
                return model_.createList(name);
            }
            world.aclConfig->aclDel(name);
            return model_.deleteList(name);
        case attachAgain:
            machine().handleAclConfig(name);
            return model_.handleList(name);
        case writeRule:
            if (!exists) return;
            ruleIs(name, ++lastId_, ruleOf(d), d.sequence);
            if (before != 0) rulesOf(name)->ipRuleByIdDel(Acl::UniqueId(before));
            return model_.writeRule(name, d.sequence, {lastId_, ruleOf(d)});
        case eraseRule:
            if (before == 0) return;
            ruleDel(name, before, d.sequence);
            return model_.eraseRule(name, d.sequence);
        default:
            FAIL() << "step " << d.step;
        }
    }
    static std::string textOf(ModelLists const& lists) {
        auto const record = GroupSource::GroupSourceIs(groupG);
        for (auto const source : lists.include.addrs) record->includeSourceListIs(source);
        for (auto const source : lists.exclude.addrs) record->excludeSourceListIs(source);
        return sourcesOf(record.get());
    }
    static std::string recordText(unsigned mode, std::uint32_t version) {
        return "mode " + std::to_string(mode) + " version " + std::to_string(version);
    }
    static std::string reviewText(bool deny, bool fullSync, std::size_t changed, Lox::IpAddr source,
                                  Lox::IpAddr group) {
        return "deny " + std::to_string(deny) + " full sync " + std::to_string(fullSync) + " at " +
               source.stringValue() + " " + group.stringValue() + " changed " +
               std::to_string(changed);
    }

    std::array<Nex::Ptr<Table>, 2> tables_;
    ProducersModel model_{{groupOf(0), groupOf(1), groupOf(2), groupOf(3)}};
    std::uint32_t lastId_ = 0;
    std::uint32_t stamp_ = 0;
};

rc::Gen<Drawn> anyStep() {
    // Reviews are drawn more often, for each does little.
    auto const step = rc::gen::weightedOneOf<int>(
        {{4, rc::gen::inRange(0, int(steps))}, {1, rc::gen::just(int(review))}});
    return rc::gen::build<Drawn>(
        rc::gen::set(&Drawn::step, step),
        rc::gen::set(&Drawn::group, rc::gen::inRange(0u, groups + 1)),
        rc::gen::set(&Drawn::source, rc::gen::inRange(0u, sources)),
        rc::gen::set(&Drawn::list, rc::gen::inRange(0u, unsigned(listNames.size()))),
        rc::gen::set(&Drawn::sequence, rc::gen::inRange(1u, sequences + 1)),
        rc::gen::set(&Drawn::shape, rc::gen::inRange(0u, 9u)),
        rc::gen::set(&Drawn::first, rc::gen::arbitrary<bool>()));
}

RC_GTEST_PROP(ProducersModel, StatusCountsListsAndReviewsFollowEveryStep, ()) {
    auto const history = *rc::gen::scale(3, rc::gen::container<std::vector<Drawn>>(anyStep()));
    Interface interface;
    for (unsigned list = 0; list < listNames.size(); ++list)
        for (Step const step : {createOrDeleteList, attachOrDetach})
            interface.run({step, 0, 0, list, 1, 0, true});
    for (Drawn const& drawn : history) {
        interface.run(drawn);
        RC_ASSERT(interface.actual() == interface.expected());
    }
}

} // namespace
} // namespace IgmpHostProxy
