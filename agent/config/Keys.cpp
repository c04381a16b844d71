#include "agent/config/Keys.h"

#include <algorithm>
#include <fmt/format.h>
#include <limits>

namespace Agent {

namespace {

using Type = Key::Type;

constexpr Key ofFile[] = {
    {.name = "access-list",
     .type = Type::table,
     .takes = "`[[access-list.NAME]]`",
     .effect = "The rules of access lists, which interfaces name."},
    {.name = "allow-empty",
     .type = Type::boolean,
     .effect = "Whether a reload may take this file over though it has every group left. Otherwise "
               "that passes for a mistake, and is refused."},
    {.name = "control",
     .type = Type::table,
     .takes = "`[control]`",
     .effect = "Who may use the control socket."},
    {.name = "forwarding-table",
     .type = Type::table,
     .takes = "`[forwarding-table]`",
     .effect = "Which multicast routes make their groups wanted."},
    {.name = "include",
     .type = Type::texts,
     .takes = "paths from this file's folder; `*`, `?` and `[...]` match names",
     .standardText = "`[]`",
     .effect = "Files to be read as if they were part of this one. They include no others."},
    {.name = "interface",
     .type = Type::table,
     .takes = "`[interface.NAME]`, `[interface.\"PATTERN\"]`",
     .effect =
         "The upstream interfaces, by the names that the kernel gives them. One that does not "
         "exist is waited for. A pattern such as `\"ppp*\"` holds for all that match."},
    {.name = "keep-groups",
     .type = Type::boolean,
     .effect = "Whether the agent ends without leaving its groups: the one that starts next takes "
               "them over, and leaves those that it does not want. Needs `--state`."},
    {.name = "metrics",
     .type = Type::table,
     .takes = "`[metrics]`",
     .effect = "Figures for monitoring, over HTTP."},
    {.name = "vrf",
     .type = Type::table,
     .takes = "`[vrf.NAME]`",
     .effect = "The network namespaces other than the agent's own, and VRF devices."},
};

constexpr Key ofInterface[] = {
    {.name = "igmp-version",
     .type = Type::integer,
     .low = 1,
     .high = 3,
     .standard = 3,
     .effect = "The highest version to speak. A querier of an older version is answered in its "
               "version until it has been silent for the time that the RFCs give."},
    {.name = "unsolicited-report-interval",
     .type = Type::number,
     .high = 3600,
     .standardText = "1 in version 3, 10 in older ones",
     .effect = "Seconds within which a change is told again, at a random moment."},
    {.name = "robustness",
     .type = Type::integer,
     .low = 2,
     .high = 7,
     .standard = 2,
     .effect = "How often a change is told, until a version 3 querier states its own robustness "
               "variable. One packet less than this may be lost each time."},
    {.name = "packets-per-100-ms",
     .type = Type::integer,
     .low = 1,
     .high = 10000,
     .standard = 100,
     .effect =
         "The most packets that leave within any 100 ms. In version 3 a packet holds some "
         "180 groups, in older ones a single one. Leaving everything as the agent ends has 0.7 s, "
         "however many packets that takes."},
    {.name = "require-router-alert",
     .type = Type::boolean,
     .effect = "Whether version 2 and 3 queries without the Router Alert option are ignored."},
    {.name = "ssm-only",
     .type = Type::boolean,
     .effect =
         "Whether queriers of versions 1 and 2 are ignored, which cannot carry sources. Needs "
         "version 3."},
    {.name = "group",
     .type = Type::table,
     .takes = "`\"239.1.1.1\" = {}` or `\"239.1.1.0/24\" = {}`, a line each",
     .effect =
         "The groups to announce, in quotes. A prefix stands for each group of its range that "
         "no longer prefix and no line of its own names. What is configured here is not "
         "changed by the forwarding table."},
    {.name = "access-lists",
     .type = Type::texts,
     .takes = "names of access lists of this file, each once",
     .standardText = "`[]`",
     .effect = "The lists whose rules add groups and sources."},
    {.name = "large-ranges",
     .type = Type::boolean,
     .effect =
         "Whether these lists, or the prefixes under `group`, may select more than 65,536 groups: "
         "a slip in a mask should not ask for millions. Prefixes up to 1,048,576."},
    {.name = "vrf",
     .type = Type::text,
     .takes = "`\"default\"` or a VRF of this file",
     .standardText = "`\"default\"`",
     .effect = "Where the interface is looked for, and whose routes count for it."},
};

constexpr Key ofGroup[] = {
    {.name = "include",
     .type = Type::texts,
     .takes = "unicast addresses",
     .standardText = "none",
     .effect = "The group from these sources only. Older versions cannot say so and ask for the "
               "group from any source."},
    {.name = "exclude",
     .type = Type::texts,
     .takes = "unicast addresses",
     .standardText = "none",
     .effect = "The group from all sources but these. Without both keys it is wanted from any."},
};

constexpr Key ofRule[] = {
    {.name = "sequence",
     .type = Type::integer,
     .high = std::numeric_limits<std::uint32_t>::max(),
     .required = true,
     .effect = "The rule's place in its list, each number once."},
    {.name = "action",
     .type = Type::text,
     .takes = "`\"permit\"` or `\"deny\"`",
     .required = true,
     .effect = "Permit includes the source in the groups of the destination, or any source; deny "
               "excludes it. To deny any source to any destination keeps the groups of the "
               "forwarding table off the interface."},
    {.name = "source",
     .type = Type::text,
     .takes = "a unicast address, or `\"any\"`",
     .required = true,
     .effect = "The source that the rule is about."},
    {.name = "destination",
     .type = Type::text,
     .takes = "a group, a prefix, an address with a mask, or `\"any\"`",
     .required = true,
     .effect = "The groups that the rule is about, all of them: nobody has to ask for one first. "
               "The mask may have holes. Multicast addresses only; `\"any\"` only to deny it to "
               "any source."},
};

constexpr Key ofControl[] = {
    {.name = "group",
     .type = Type::text,
     .takes = "the name of a group of users",
     .standardText = "the agent's own group",
     .effect = "Whose members may connect. The agent has to be a member, too."},
};

constexpr Key ofForwardingTable[] = {
    {.name = "require-output",
     .type = Type::boolean,
     .standard = 1,
     .effect = "Whether only those routes count that have an outgoing interface."},
    {.name = "incoming",
     .type = Type::text,
     .takes = "`\"proxy-interface\"` or `\"any\"`",
     .standardText = "`\"proxy-interface\"`",
     .effect = "Whether only those routes count that come in on an interface of this file."},
};

constexpr Key ofMetrics[] = {
    {.name = "listen",
     .type = Type::text,
     .takes = "`\"ADDRESS:PORT\"`",
     .standardText = "nowhere",
     .effect =
         "Where `/metrics` is served, in the OpenMetrics text form and to whoever can connect. "
         "`ihproxyctl metrics` shows the same without it."},
};

constexpr Key ofVrf[] = {
    {.name = "device",
     .type = Type::text,
     .takes = "the name of a VRF device",
     .standardText = "none",
     .effect = "In place of a namespace: the VRF's interfaces are the ports of this device in the "
               "agent's own namespace, and its routes are the multicast routes of the device's "
               "table. Needs no CAP_SYS_ADMIN. One that does not exist is waited for."},
    {.name = "namespace",
     .type = Type::text,
     .takes = "a name as in `ip netns`, or a path",
     .standardText = "the VRF's own name",
     .effect = "The network namespace. One that does not exist is waited for; a path in `/proc` "
               "cannot be, `ip netns attach` gives it a name."},
};

std::string takesText(Key const& key) {
    switch (key.type) {
    case Type::boolean:
        return "true or false";
    case Type::integer:
    case Type::number:
        return rangeText(key);
    case Type::texts:
        return fmt::format("array of strings: {}", key.takes);
    default:
        return std::string(key.takes);
    }
}

std::string standardText(Key const& key) {
    if (key.required) return "must be there";
    if (key.type == Type::boolean) return key.standard != 0 ? "`true`" : "`false`";
    if (!key.standardText.empty()) return std::string(key.standardText);
    return key.type == Type::table ? "none" : fmt::format("`{}`", key.standard);
}

} // namespace

KeyTable const fileKeys{"", ofFile};
KeyTable const interfaceKeys{"[interface.NAME]", ofInterface};
KeyTable const groupKeys{"[interface.NAME.group]: \"GROUP\" = { ... }", ofGroup};
KeyTable const ruleKeys{"[[access-list.NAME]]", ofRule};
KeyTable const controlKeys{"[control]", ofControl};
KeyTable const forwardingTableKeys{"[forwarding-table]", ofForwardingTable};
KeyTable const metricsKeys{"[metrics]", ofMetrics};
KeyTable const vrfKeys{"[vrf.NAME]", ofVrf};

Key const* KeyTable::find(std::string_view name) const {
    auto const key = std::find_if(keys.begin(), keys.end(),
                                  [&](Key const& candidate) { return candidate.name == name; });
    return key == keys.end() ? nullptr : &*key;
}

std::string rangeText(Key const& key) {
    if (key.type == Type::integer)
        return fmt::format("an integer from {} to {}", std::int64_t(key.low),
                           std::int64_t(key.high));
    return fmt::format("a number above {} and up to {}", key.low, key.high);
}

std::string keyReference() {
    std::string text;
    for (KeyTable const* table : {&fileKeys, &interfaceKeys, &groupKeys, &ruleKeys, &controlKeys,
                                  &forwardingTableKeys, &metricsKeys, &vrfKeys}) {
        text += text.empty() ? "### The file\n\n" : fmt::format("\n### `{}`\n\n", table->header);
        text += "| Key | Takes | Without it | Effect |\n|---|---|---|---|\n";
        for (Key const& key : table->keys)
            text += fmt::format("| `{}` | {} | {} | {} |\n", key.name, takesText(key),
                                standardText(key), key.effect);
    }
    return text;
}

} // namespace Agent
