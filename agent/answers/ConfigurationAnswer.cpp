#include "agent/answers/ConfigurationAnswer.h"

#include "agent/answers/Lists.h"
#include "agent/control/JsonRpc.h"
#include "agent/loop/Json.h"
#include "agent/loop/Printable.h"

#include <algorithm>
#include <array>
#include <exception>
#include <fmt/format.h>
#include <optional>
#include <vector>

namespace Agent {

namespace {

using nlohmann::json;
using Source = std::function<Configuration const&()>;

/// Members one after the other.
class Members : public JsonPart {
  public:
    using Step = std::function<void(JsonStream&)>;
    explicit Members(std::vector<Step> steps) : steps_(std::move(steps)) {}
    bool next(JsonStream& stream) override {
        if (at_ == steps_.size()) return false;
        steps_[at_++](stream);
        return true;
    }

  private:
    std::vector<Step> steps_;
    std::size_t at_ = 0;
};

/// Null where no section has that name.
InterfaceConfiguration const* sectionOf(Configuration const& configuration,
                                        std::string const& name) {
    auto const own = configuration.interfaces.find(name);
    if (own != configuration.interfaces.end() && own->second.pattern.empty()) return &own->second;
    auto const pattern =
        std::ranges::find(configuration.patterns, name, &InterfaceConfiguration::pattern);
    return pattern == configuration.patterns.end() ? nullptr : &*pattern;
}

json sourcesJson(GroupConfiguration const& group) {
    json sources = json::object();
    if (group.anySource()) return sources;
    for (Lox::IpAddr const source : group.include)
        sources["include"].push_back(source.stringValue());
    for (Lox::IpAddr const source : group.exclude)
        sources["exclude"].push_back(source.stringValue());
    return sources;
}

/// The groups of a section, in their order. Those of a prefix are found one by one, and it is told
/// with the first.
class GroupTables : public JsonPart {
  public:
    GroupTables(Source source, std::string name)
        : source_(std::move(source)), name_(std::move(name)) {}
    bool next(JsonStream& stream) override {
        InterfaceConfiguration const* const section = sectionOf(source_(), name_);
        if (!section) return false;
        auto const at = section->groups.lowerBound(next_);
        if (at == section->groups.end()) return false;
        next_ = Lox::IpAddr::fromHost(at->first.host() + 1);
        unsigned const length = at->second.entry.prefixLength;
        std::uint32_t const mask = ~std::uint32_t(0) << (32 - length); // never of length 0
        Lox::IpAddr const first = Lox::IpAddr::fromHost(at->first.host() & mask);
        if (std::exchange(told_.at(length), first) != first)
            stream.add(rangeText({first, mask}), sourcesJson(at->second));
        return true;
    }

  private:
    Source source_;
    std::string name_;
    Lox::IpAddr next_;                                ///< none before it is to be told
    std::array<std::optional<Lox::IpAddr>, 33> told_; ///< the last prefix of each length
};

void addSettings(JsonStream& stream, InterfaceConfiguration const& section) {
    static InterfaceConfiguration const standard;
    auto const add = [&](char const* key, auto const InterfaceConfiguration::*value) {
        if (section.*value != standard.*value) stream.add(key, section.*value);
    };
    add("igmp-version", &InterfaceConfiguration::igmpVersion);
    add("unsolicited-report-interval", &InterfaceConfiguration::unsolicitedReportInterval);
    add("robustness", &InterfaceConfiguration::robustness);
    add("packets-per-100-ms", &InterfaceConfiguration::packetsPer100ms);
    add("require-router-alert", &InterfaceConfiguration::requireRouterAlert);
    add("ssm-only", &InterfaceConfiguration::ssmOnly);
    add("access-lists", &InterfaceConfiguration::accessLists);
    add("large-ranges", &InterfaceConfiguration::largeRanges);
    add("vrf", &InterfaceConfiguration::vrf);
}

/// Those with a section of their own by their names, then the patterns in their order.
class Interfaces : public JsonPart {
  public:
    explicit Interfaces(Source source) : source_(std::move(source)) {}
    bool next(JsonStream& stream) override {
        Configuration const& configuration = source_();
        auto const at =
            last_ ? configuration.interfaces.upper_bound(*last_) : configuration.interfaces.begin();
        if (at != configuration.interfaces.end()) {
            last_ = at->first;
            if (at->second.pattern.empty()) doOpen(stream, at->first);
            return true;
        }
        if (pattern_ >= configuration.patterns.size()) return false;
        doOpen(stream, configuration.patterns[pattern_++].pattern);
        return true;
    }

  private:
    void doOpen(JsonStream& stream, std::string const& name) {
        auto const settings = [=, source = source_](JsonStream& to) {
            if (auto const* const section = sectionOf(source(), name)) addSettings(to, *section);
        };
        auto const groups = [=, source = source_](JsonStream& to) {
            auto const* const section = sectionOf(source(), name);
            if (section && section->groups.size() > 0)
                to.open("group", std::make_unique<GroupTables>(source, name));
        };
        stream.open(name, std::make_unique<Members>(std::vector<Members::Step>{settings, groups}));
    }

    Source source_;
    std::optional<std::string> last_;
    std::size_t pattern_ = 0; ///< to go on with
};

class Rules : public JsonPart {
  public:
    Rules(Source source, std::string list) : source_(std::move(source)), list_(std::move(list)) {}
    bool next(JsonStream& stream) override {
        auto const& lists = source_().accessLists;
        auto const list = lists.find(list_);
        if (list == lists.end()) return false;
        auto const& rules = list->second.rules();
        auto const at = last_ ? rules.upper_bound(*last_) : rules.begin();
        if (at == rules.end()) return false;
        last_ = at->first;
        Acl::IpRuleConfig const& rule = at->second;
        stream.addElement({{"sequence", at->first},
                           {"action", rule.action == Acl::Action::permit ? "permit" : "deny"},
                           {"source", rangeText(rule.filter.source)},
                           {"destination", rangeText(rule.filter.destination)}});
        return true;
    }

  private:
    Source source_;
    std::string list_;
    std::optional<std::uint32_t> last_;
};

class Lists : public JsonPart {
  public:
    explicit Lists(Source source) : source_(std::move(source)) {}
    bool next(JsonStream& stream) override {
        auto const& lists = source_().accessLists;
        auto const at = last_ ? lists.upper_bound(*last_) : lists.begin();
        if (at == lists.end()) return false;
        last_ = at->first;
        stream.openArray(at->first, std::make_unique<Rules>(source_, at->first));
        return true;
    }

  private:
    Source source_;
    std::optional<std::string> last_;
};

/// What has no end that matters.
void addSmall(JsonStream& stream, Configuration const& configuration) {
    if (configuration.allowEmpty) stream.add("allow-empty", true);
    if (configuration.keepGroups) stream.add("keep-groups", true);
    if (!configuration.controlGroup.empty())
        stream.add("control", {{"group", configuration.controlGroup}});
    ForwardingTableConfiguration const& table = configuration.forwardingTable;
    json ofTable = json::object();
    if (!table.requireOutput) ofTable["require-output"] = false;
    if (table.incoming == ForwardingTableConfiguration::Incoming::any) ofTable["incoming"] = "any";
    if (!ofTable.empty()) stream.add("forwarding-table", ofTable);
    if (!configuration.metricsListen.empty())
        stream.add("metrics", {{"listen", configuration.metricsListen}});
    json vrfs = json::object();
    for (auto const& [name, where] : configuration.vrfs) {
        vrfs[name] = json::object();
        if (!where.device.empty())
            vrfs[name]["device"] = where.device;
        else if (where.namespaceName != name)
            vrfs[name]["namespace"] = where.namespaceName;
    }
    if (!vrfs.empty()) stream.add("vrf", vrfs);
}

} // namespace

std::unique_ptr<JsonPart>
configurationAnswer(std::string const& file,
                    std::function<Configuration const&()> const& configuration) {
    Source const source = configuration;
    std::vector<Members::Step> const sections{
        [source](JsonStream& stream) { addSmall(stream, source()); },
        [source](JsonStream& stream) {
            if (!source().accessLists.empty())
                stream.open("access-list", std::make_unique<Lists>(source));
        },
        [source](JsonStream& stream) {
            stream.open("interface", std::make_unique<Interfaces>(source));
        }};
    return std::make_unique<Members>(std::vector<Members::Step>{
        [=](JsonStream& stream) {
            json patterns = json::array();
            for (auto const& each : source().patterns) patterns.push_back(each.pattern);
            stream.add("file", printable(file));
            stream.add("patterns", patterns);
        },
        [sections](JsonStream& stream) {
            stream.open("configuration", std::make_unique<Members>(sections));
        }});
}

void FileAnswers::answer(std::string const& file, RpcReply const& reply) {
    if (loader_.reading()) throw RpcError(RpcError::refused, "the file is being read for another");
    loader_.begin(file, [=](ConfigurationReading found, std::exception_ptr const& failure) {
        if (failure) {
            reply.error(RpcError(RpcError::refused, fmt::format("{} cannot be read", file)));
            std::rethrow_exception(failure);
        }
        if (!found.valid())
            return reply.error(RpcError(RpcError::refused,
                                        fmt::format("{} would not be taken over", file),
                                        {{"diagnostics", toJson(found.diagnostics)}}));
        auto const held = std::make_shared<Configuration const>(std::move(found.configuration));
        reply.result(configurationAnswer(file, [held]() -> Configuration const& { return *held; }));
    });
}

} // namespace Agent
