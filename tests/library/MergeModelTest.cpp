// The membership merge and the host's records, against the model, over random histories.
#include "MergeModel.h"

#include <rapidcheck/gtest.h>

namespace IgmpHostProxy {
namespace {

Lox::IpAddr groupOf(int number) { return Lox::IpAddr::fromHost(0xEF010101 + unsigned(number)); }
/// Number 0 is any source.
Lox::IpAddr sourceOf(int number) {
    return number == 0 ? anySource : Lox::IpAddr::fromHost(0x0A000000 + unsigned(number));
}
constexpr int groups = 3;
constexpr int sources = 8; // more than a set holds inline

enum Step {
    addSource,
    removeSource,
    listAsDeletedOnly,
    dropFromConfigurationOnly,
    contributeFromTable,
    addGroup,
    dropGroup,
    steps
};

std::string join(std::vector<Lox::IpAddr> addrs) {
    std::sort(addrs.begin(), addrs.end());
    std::string text;
    for (auto const a : addrs) text += " " + a.stringValue();
    return text;
}
std::string join(auto walk) {
    std::vector<Lox::IpAddr> addrs;
    for (auto const& a : walk) addrs.push_back(a);
    return join(addrs);
}
std::string describe(std::string const& include, std::string const& exclude) {
    return "include" + include + " exclude" + exclude;
}
std::string describe(unsigned mode, std::uint32_t version, std::string const& sourceList) {
    return "mode " + std::to_string(mode) + " version " + std::to_string(version) + sourceList;
}

class History : public OneInterface {
  public:
    void TestBody() override {}

    void run(int step, Lox::IpAddr group, Lox::IpAddr source, Mode mode) {
        bool const include = mode == Mode::include;
        switch (Step(step)) {
        case addSource: {
            auto const record = config->groupSourceListIs(group);
            include ? record->includeSourceListIs(source) : record->excludeSourceListIs(source);
            return model.configure(group, source, mode);
        }
        case removeSource:
            include ? removeInclude(*config, source, group) : removeExclude(*config, source, group);
            model.unconfigure(group, source, mode);
            return model.remove(group, source, mode);
        case listAsDeletedOnly: {
            auto const record = config->deletedGroupSourceListIs(group);
            include ? record->includeSourceListIs(source) : record->excludeSourceListIs(source);
            config->deletedGroupSourceListDel(group);
            return model.remove(group, source, mode);
        }
        case dropFromConfigurationOnly:
            if (auto* const record = config->groupSourceList(group))
                include ? record->includeSourceListDel(source)
                        : record->excludeSourceListDel(source);
            return model.unconfigure(group, source, mode);
        case contributeFromTable: {
            auto const record = status->groupSourceListIs(group);
            include ? record->includeSourceListIs(source) : record->excludeSourceListIs(source);
            return model.contribute(group, source, mode);
        }
        case addGroup:
            config->groupSourceListIs(group);
            return model.configure(group);
        case dropGroup:
            config->groupSourceListDel(group);
            return model.unconfigure(group);
        case steps:
            break;
        }
    }

    Lines actual() {
        Lines lines;
        for (int g = 0; g < groups; ++g) {
            Lox::IpAddr const group = groupOf(g);
            auto const* const entry = status->groupSourceList(group);
            lines.push_back(
                entry ? describe(join(entry->includeSourceList()), join(entry->excludeSourceList()))
                      : "absent");
            for (int s = 0; s < sources; ++s)
                lines.push_back(
                    std::to_string(machine().groupSourceRefCounter({sourceOf(s), group})));
            lines.push_back(recordText(host->v3group(group)));
        }
        return lines;
    }
    Lines expected() const {
        Lines lines;
        for (int g = 0; g < groups; ++g) {
            Lox::IpAddr const group = groupOf(g);
            auto const* const entry = model.status(group);
            lines.push_back(entry ? describe(join(entry->include.addrs), join(entry->exclude.addrs))
                                  : "absent");
            for (int s = 0; s < sources; ++s)
                lines.push_back(std::to_string(model.count(sourceOf(s), group)));
            auto const* const record = model.record(group);
            lines.push_back(
                record ? describe(record->mode, record->version, join(record->sources.addrs))
                       : "absent");
        }
        return lines;
    }

  private:
    static std::string recordText(Igmp::IgmpV3GroupRecord const* record) {
        if (!record) return "absent";
        std::vector<Lox::IpAddr> listed;
        for (auto const& item : record->source()->sourceIp())
            if (item.value == 1) listed.push_back(item.key);
        return describe(unsigned(record->filterMode()), record->version(), join(listed));
    }

    Model model;
};

RC_GTEST_PROP(MergeModel, StatusCountsAndHostRecordsFollowEveryStep, ()) {
    using Drawn = std::tuple<int, int, int, bool>;
    auto const history = *rc::gen::container<std::vector<Drawn>>(
        rc::gen::tuple(rc::gen::inRange(0, int(steps)), rc::gen::inRange(0, groups),
                       rc::gen::inRange(0, sources), rc::gen::arbitrary<bool>()));
    History interface;
    for (auto const& [step, group, source, include] : history) {
        interface.run(step, groupOf(group), sourceOf(source),
                      include ? Mode::include : Mode::exclude);
        RC_ASSERT(interface.actual() == interface.expected());
    }
}

} // namespace
} // namespace IgmpHostProxy
