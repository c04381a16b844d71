#include "agent/ctl/Views.h"

#include "agent/ctl/Table.h"
#include "agent/ctl/Terminal.h"

#include <algorithm>
#include <arpa/inet.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

namespace Ctl {

namespace {

using nlohmann::json;

/// For numbers of things: "1 group", "2 groups".
std::string countText(std::uint64_t count, char const* what) {
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

std::string orDash(json const& value) { return value.is_null() ? "-" : value.get<std::string>(); }

std::string versionText(json const& version) {
    int const configured = version.at("configured");
    if (version.at("spoken").is_null() || version.at("spoken") == configured)
        return std::to_string(configured);
    return fmt::format("{} ({} conf.)", version.at("spoken").get<int>(), configured);
}

std::string querierText(json const& querier) {
    if (querier.is_null()) return "-";
    return fmt::format("{} v{}, {:.0f}s", querier.at("address").get<std::string>(),
                       querier.at("version").get<int>(), querier.at("heardAgo").get<double>());
}

std::string reasonText(json const& row) {
    std::string const why = row.at("why");
    json const& version = row.at("version");
    auto const newer = version.find("newerIn");
    if (!why.empty() || newer == version.end() || newer->is_null()) return why;
    return fmt::format("older querier, version {} again in {}", version.at("configured").get<int>(),
                       durationText(*newer));
}

std::string sourcesText(json const& row) {
    auto const sources = row.at("sources").get<std::vector<std::string>>();
    bool const include = row.at("mode") == "include";
    if (sources.empty()) return include ? "none" : "any source";
    return fmt::format("{} {}", include ? "only from" : "any source but", fmt::join(sources, " "));
}

/// Of a group that is announced.
std::string fromText(json const& state) {
    std::string const text = sourcesText(state);
    return text.starts_with("any") ? "from " + text : text;
}

struct Change {
    Mood mood;
    char const* sign; ///< of a group that is joined, left or changed
    std::string words;
};

Change changeOf(json const& change) {
    json const& before = change.at("before");
    json const& after = change.at("after");
    if (before.is_null()) return {Mood::good, "+", fromText(after)};
    if (after.is_null()) return {Mood::bad, "-", ""};
    return {Mood::doubtful, "~", fromText(before) + " -> " + fromText(after)};
}

/// 2000 as 2,000.
std::string groupedText(std::uint64_t number) {
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3;) text.insert(at -= 3, ",");
    return text;
}

/// Where something of the configuration stands.
std::string placeText(json const& row) {
    std::string const path = row.at("file");
    return fmt::format("{}:{}", path.substr(path.rfind('/') + 1), row.at("line").dump());
}

std::uint32_t numberOf(json const& address) {
    in_addr number{};
    inet_pton(AF_INET, address.get_ref<std::string const&>().c_str(), &number);
    return ntohl(number.s_addr);
}

} // namespace

std::string statusText(json const& answer) {
    json const& configuration = answer.at("configuration");
    json const& interfaces = answer.at("interfaces");
    std::string text = fmt::format(
        "{} {}, up {}, {} (#{}, since {}), {} of {} up, {}",
        answer.at("program").get<std::string>(), answer.at("version").get<std::string>(),
        durationText(answer.at("uptime")), configuration.at("file").get<std::string>(),
        configuration.at("number").get<unsigned>(), timeText(configuration.at("since")),
        interfaces.at("up").get<std::size_t>(), countText(interfaces.at("total"), "interface"),
        countText(answer.at("groups"), "group"));
    if (auto const within = configuration.find("confirmWithin"); within != configuration.end())
        text += fmt::format(", to be undone in {} unless confirmed", durationText(*within));
    if (answer.at("state") != "ready") text += ", " + answer.at("state").get<std::string>();
    text += '\n';
    for (json const& each : answer.at("obstacles"))
        text += fmt::format("{}: {}\n", each.at("subject").get<std::string>(),
                            coloured(Mood::doubtful, each.at("reason")));
    return text;
}

std::string interfacesText(json const& answer) {
    Table table({"NAME", "VRF", "STATE", "ADDRESS", "IGMP", "QUERIER", "GROUPS", "WHY"});
    for (json const& row : answer.at("interfaces")) {
        auto const groups = row.at("groups").get<std::size_t>();
        std::string const state = row.at("state");
        bool const up = state == "up";
        Mood const mood = up ? Mood::good : state == "waiting" ? Mood::doubtful : Mood::bad;
        table.add(
            {row.at("name"), row.at("vrf"), coloured(mood, state), orDash(row.at("address")),
             versionText(row.at("version")), querierText(row.at("querier")),
             up ? std::to_string(groups)
                : fmt::format("0 of {}",
                              std::max(groups, row.at("configuredGroups").get<std::size_t>())),
             reasonText(row)});
    }
    return table.text();
}

std::string groupsText(json answer) {
    json& rows = answer.at("groups");
    std::stable_sort(rows.begin(), rows.end(), [](json const& a, json const& b) {
        if (a.at("interface") != b.at("interface")) return a.at("interface") < b.at("interface");
        return numberOf(a.at("group")) < numberOf(b.at("group"));
    });
    Table table({"INTERFACE", "VRF", "GROUP", "ORIGIN", "SOURCES"});
    for (json const& row : rows)
        table.add(
            {row.at("interface"), row.at("vrf"), row.at("group"),
             fmt::format("{}", fmt::join(row.at("origins").get<std::vector<std::string>>(), ", ")),
             sourcesText(row)});
    return table.text();
}

std::string metricsText(json const& answer) {
    std::string text;
    for (json const& piece : answer.at("text")) text += piece.get_ref<std::string const&>();
    return text;
}

std::string countersText(json const& answer) {
    if (!answer.contains("counters")) return "counted from 0 again\n";
    Table table({"INTERFACE", "COUNTER", "VALUE"});
    for (json const& row : answer.at("counters"))
        for (json const flat = row.flatten(); auto const& [name, value] : flat.items())
            if (value.is_number() && value != 0)
                table.add({row.at("interface"), name.substr(1), value.dump()});
    return table.empty() ? "nothing has been counted\n" : table.text();
}

std::string eventsText(json const& answer) {
    std::string text;
    for (json const& each : answer.at("events")) {
        std::string const subject = each.at("subject");
        std::string const level = each.at("level");
        std::string grave;
        if (level == "error") grave = coloured(Mood::bad, "error: ");
        if (level == "warning") grave = coloured(Mood::doubtful, "warning: ");
        text +=
            fmt::format("{} {}{}{}\n", preciseTimeText(each.at("time")), grave,
                        subject.empty() ? "" : subject + " ", each.at("text").get<std::string>());
    }
    return text;
}

std::string listsText(json const& answer) {
    Table table(
        {"LIST", "SEQUENCE", "ACTION", "SOURCE", "DESTINATION", "GROUPS", "LINE", "ATTACHED TO"});
    for (json const& row : answer.at("rules")) {
        auto const attached = row.at("interfaces").get<std::vector<std::string>>();
        table.add({row.at("list"), row.at("sequence").dump(), row.at("action"), row.at("source"),
                   row.at("destination"), row.at("groups").dump(), placeText(row),
                   attached.empty() ? "-" : fmt::format("{}", fmt::join(attached, " "))});
    }
    return table.text();
}

std::string routesText(json const& answer) {
    Table table({"VRF", "SOURCE", "GROUP"});
    for (json const& row : answer.at("routes"))
        table.add({row.at("vrf"), row.at("source"), row.at("group")});
    return table.text();
}

std::string routeText(json const& wish, std::string const& group) {
    auto outputs = wish.at("outputs").get<std::vector<std::string>>();
    if (auto const further = wish.at("furtherOutputs").get<unsigned>(); further > 0)
        outputs.push_back(fmt::format("{} more", further));
    std::string text = fmt::format("route ({}, {}) from {}", wish.at("source").get<std::string>(),
                                   group, wish.at("incoming").get<std::string>());
    if (!outputs.empty()) text += fmt::format(" to {}", fmt::join(outputs, ", "));
    if (json const& since = wish.at("since"); !since.is_null())
        text += ", since " + timeText(since);
    return text;
}

/// One line for each wish, under its source.
std::string whyText(json const& answer) {
    bool const announced = answer.at("announced");
    std::string text =
        fmt::format("{} on {}: {}", answer.at("group").get<std::string>(),
                    answer.at("interface").get<std::string>(),
                    announced ? sourcesText(answer) : coloured(Mood::doubtful, "not announced"));
    if (json const& told = answer.at("told"); !told.is_null())
        text += fmt::format("; told {}", timeText(told));
    if (json const& answered = answer.at("answered"); !answered.is_null())
        text += fmt::format(", last answered {}", timeText(answered));
    text += '\n';
    std::string last;
    for (json const& wish : answer.at("wishes")) {
        std::string const kind = wish.at("kind");
        std::string const source = wish.at("source");
        std::string what = kind;
        if (kind == "list")
            what = fmt::format("list {} #{}  {} {} {}", wish.at("list").get<std::string>(),
                               wish.at("sequence").dump(), wish.at("action").get<std::string>(),
                               source, wish.at("destination").get<std::string>());
        else if (kind == "route")
            what = routeText(wish, answer.at("group"));
        if (wish.contains("line")) what += "  " + placeText(wish);
        if (announced && !wish.at("counts").get<bool>()) what += "  (does not count)";
        std::string const head = source == last ? "" : source;
        text += fmt::format("  {:15}  {}\n", head, what);
        last = source;
    }
    for (json const& obstacle : answer.at("obstacles"))
        text += fmt::format("not announced: {}\n", obstacle.get<std::string>());
    return text;
}

std::string traceText(json const& answer) {
    std::string text;
    for (json const& entry : answer.at("entries")) {
        text += fmt::format("{} {} {}\n", preciseTimeText(entry.at("time")),
                            entry.at("level").dump(), entry.at("text").get<std::string>());
        if (auto const times = entry.at("times").get<std::uint64_t>(); times > 1)
            text += fmt::format("{} repeated {}\n", preciseTimeText(entry.at("until")),
                                countText(times - 1, "time"));
    }
    return text;
}

std::string diffText(json const& answer) {
    std::string text = diagnosticsText(answer.at("diagnostics"));
    Table table;
    for (json const& change : answer.at("changes")) {
        auto const [mood, sign, words] = changeOf(change);
        std::string const group = change.at("group");
        table.add(
            {change.at("interface"), coloured(mood, fmt::format("{} {}", sign, group)), words});
    }
    text += table.text();
    std::string counts;
    for (auto const& [kind, what] :
         {std::pair("joined", "join"), std::pair("left", "leave"), std::pair("changed", "change")})
        if (auto const count = answer.at(kind).get<std::uint64_t>(); count > 0)
            counts += fmt::format("{} {}{}, ", groupedText(count), what, count == 1 ? "" : "s");
    if (counts.empty()) counts = "no change, ";
    auto const packets = answer.at("packets").get<std::uint64_t>();
    text += fmt::format("{}{} untouched", counts, groupedText(answer.at("kept")));
    if (packets > 0)
        text += fmt::format("; about {} packet{}", groupedText(packets), packets == 1 ? "" : "s");
    text += '\n';
    if (json const& refused = answer.at("refused"); !refused.is_null())
        text += fmt::format("a reload would be refused: {}\n", refused.get<std::string>());
    return text;
}

std::string stopText(json const& answer) {
    return fmt::format("ended; the groups are {}\n",
                       answer.at("groupsKept").get<bool>() ? "kept for the next run" : "left");
}

std::string reloadText(json const& answer) {
    json const& changes = answer.at("changes");
    auto const number = answer.at("number").get<unsigned>();
    std::string words;
    for (char const* const kind : {"joined", "left", "changed"})
        if (auto const count = changes.at(kind).get<std::size_t>(); count > 0)
            words +=
                fmt::format("{}{} {}", words.empty() ? "" : ", ", countText(count, "group"), kind);
    std::string text =
        diagnosticsText(answer.at("diagnostics")) +
        fmt::format("in force (#{}): {}", number, words.empty() ? "no group changed" : words);
    if (answer.contains("confirmWithin"))
        text += fmt::format("; `ihproxyctl confirm` within {}, or #{} returns",
                            durationText(answer.at("confirmWithin")),
                            answer.at("otherwise").get<unsigned>());
    return text + '\n';
}

std::string diagnosticsText(json const& diagnostics) {
    std::string text;
    for (json const& each : diagnostics) {
        text += each.at("file").get<std::string>();
        if (each.at("line") != 0)
            text += fmt::format(":{}:{}", each.at("line").get<unsigned>(),
                                each.at("column").get<unsigned>());
        text += fmt::format(": {}: {}\n", each.at("level").get<std::string>(),
                            each.at("text").get<std::string>());
    }
    return text;
}

} // namespace Ctl
