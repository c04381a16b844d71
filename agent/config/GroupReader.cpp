#include "agent/config/GroupReader.h"

#include "agent/config/AddressText.h"
#include "agent/config/TomlSection.h"

#include <algorithm>
#include <bit>
#include <fmt/format.h>
#include <functional>
#include <optional>
#include <tuple>

namespace Agent {

namespace {

/// Each group costs memory and report space; a slip in a mask should not ask for millions.
constexpr std::uint64_t mostGroupsUnasked = 65536;
/// Of prefixes in any case: each group is one in memory before the file is in force.
constexpr std::uint64_t mostGroupsOfPrefixes = 1 << 20;

/// 224.0.0.0/24, which routers never forward; IGMP hosts do not report 224.0.0.1 (RFC 3376, 5).
bool isLinkLocal(Lox::IpAddrWithFullMask range) {
    return range.address().host() >> 8 == 0xE00000 && range.mask() >= 0xFFFFFF00;
}

/// What is wanted of a group, or of all of a prefix; in host order, the last one included.
struct Entry {
    TomlText key;
    std::uint32_t first;
    std::uint32_t last;
    GroupConfiguration wanted;

    bool isPrefix() const { return first != last; }
    std::uint64_t count() const { return std::uint64_t(last) - first + 1; }
};

class GroupReader {
  public:
    GroupReader(InterfaceConfiguration& interface, Diagnostics& diagnostics)
        : interface_(interface), diagnostics_(diagnostics) {}

    void doRead(TomlSection const& groups) {
        groups.forSections(groupKeys, [&](TomlText const& key, auto const& section) {
            auto const range = parseRange(key.value);
            if (!range && section && doReportUnquoted(*section, key.value)) return;
            if (!isGood(key, range) || !section) return;
            std::uint32_t const first = range->address().host() & range->mask();
            Entry& entry = entries_.emplace_back(Entry{key, first, first | ~range->mask(), {}});
            doReadEntry(key, *section, *range, entry.wanted);
            if (entry.isPrefix())
                diagnostics_.addInfo(key.position,
                                     fmt::format("selects {}", countText(entry.count(), "group")));
        });
    }

    /// Of the groups that prefixes select.
    std::uint64_t count() const {
        std::uint64_t groups = 0;
        for (Entry const& entry : entries_)
            if (entry.isPrefix()) groups += entry.count();
        return groups;
    }
    void doDropPrefixes() { std::erase_if(entries_, std::mem_fn(&Entry::isPrefix)); }

    /// Gives each group that has no entry of its own that with the longest prefix.
    void doExpand() {
        std::vector<Entry*> sorted; // an entry is long, and would be moved often
        sorted.reserve(entries_.size());
        for (Entry& entry : entries_) sorted.push_back(&entry);
        std::ranges::stable_sort(sorted, [](Entry const* a, Entry const* b) {
            return std::tuple(a->first, b->last) < std::tuple(b->first, a->last);
        });
        // Those that hold the group at hand: each lies within the one before it.
        std::vector<Entry*> around;
        interface_.groups.reserve(entries_.size() + count());
        auto at = sorted.begin();
        for (std::uint64_t group = 0;; ++group) {
            while (!around.empty() && around.back()->last < group) around.pop_back();
            if (around.empty() && at == sorted.end()) return;
            if (around.empty()) group = (*at)->first;
            for (; at != sorted.end() && (*at)->first == group; ++at) {
                if (!around.empty() && around.back()->first == (*at)->first &&
                    around.back()->last == (*at)->last)
                    reportTwice((*at)->key);
                around.push_back(*at);
            }
            Entry& least = *around.back();
            interface_.groups.add(Lox::IpAddr::fromHost(std::uint32_t(group)),
                                  least.isPrefix() ? least.wanted : std::move(least.wanted));
        }
    }

  private:
    bool isGood(TomlText const& text, std::optional<Lox::IpAddrWithFullMask> range) {
        if (!range || !isWhollyMulticast(*range) ||
            std::countl_one(range->mask()) != std::popcount(range->mask())) {
            reportFound(text,
                        "a multicast address or prefix in quotes, such as \"239.1.1.1\" or "
                        "\"239.1.1.0/24\"",
                        diagnostics_);
            return false;
        }
        if (*range == Lox::IpAddrWithFullMask(Lox::IpAddr::fromHost(0xE0000001), ~0u)) {
            reportFound(text,
                        "a group that hosts announce; 224.0.0.1 is joined always, and silently",
                        diagnostics_);
            return false;
        }
        return true;
    }

    /// Finds addresses that lack their quotes, and so are tables within tables. Returns whether
    /// there are any; `name` is that of the table.
    bool doReportUnquoted(TomlSection const& table, std::string const& name) {
        if (name.find_first_not_of("0123456789.") != std::string::npos) return false;
        bool any = false;
        for (TomlText const& key : table.keys()) {
            std::string const whole = fmt::format("{}.{}", name, key.value);
            if (parseAddress(whole)) {
                any = true;
                reportFound({whole, key.position}, "the group in quotes", diagnostics_);
            } else if (auto const inner = table.tableAt(key.value)) {
                any |= doReportUnquoted(*inner, whole);
            }
        }
        return any;
    }

    void reportTwice(TomlText const& key) {
        reportFound(key, "each group and prefix once", diagnostics_);
    }

    void doReadEntry(TomlText const& key, TomlSection const& section, Lox::IpAddrWithFullMask range,
                     GroupConfiguration& group) {
        group.entry = {Line(key.position), unsigned(std::popcount(range.mask()))};
        if (section.empty()) { // most are
            group.exclude = {Lox::IpAddr()};
            return doCheck(key, range, group);
        }
        section.checkKeys();
        doReadSourceList(section, "include", group.include, group.exclude);
        doReadSourceList(section, "exclude", group.exclude, group.include);
        if (!section.has("include") && !section.has("exclude")) group.exclude = {Lox::IpAddr()};
        doCheck(key, range, group);
    }

    void doReadSourceList(TomlSection const& section, char const* key,
                          GroupConfiguration::Sources& sources,
                          GroupConfiguration::Sources const& others) {
        auto const texts = section.texts(key);
        if (section.has(key) && texts.empty())
            diagnostics_.addError(section.positionOf(key),
                                  fmt::format("{} holds no source, expected at least one (a group "
                                              "from any source is written {{}})",
                                              key));
        for (TomlText const& text : texts) {
            auto const source = parseAddress(text.value);
            auto const at = source ? std::ranges::lower_bound(sources, *source) : sources.end();
            if (!source || !isUnicastHost(*source))
                reportFound(text, "the unicast address of a source", diagnostics_);
            else if (std::ranges::binary_search(others, *source))
                reportFound(text, "a source that is not in the include list of the group too",
                            diagnostics_);
            else if (at != sources.end() && *at == *source)
                reportFound(text, "each source once", diagnostics_);
            else
                sources.insert(at, *source);
        }
    }

    /// What is legal and yet may not work.
    void doCheck(TomlText const& key, Lox::IpAddrWithFullMask range,
                 GroupConfiguration const& wanted) {
        auto const first = Lox::IpAddr::fromHost(range.address().host() & range.mask());
        bool const anySource = wanted.anySource();
        auto const warn = [&](std::string const& text) { warnFound(key, text, diagnostics_); };
        if (isLinkLocal(range))
            warn("is link-local: routers never forward it, expected no need to announce it");
        if (first.isSourceSpecific() && !wanted.exclude.empty())
            warn("is a source-specific group, expected included sources only (RFC 4604)");
        else if (!anySource && !wanted.exclude.empty())
            warn("excludes sources: some routers ignore exclude lists (RFC 5790)");
        if (!anySource && interface_.igmpVersion < 3)
            warn(fmt::format("lists sources, which IGMP version {} cannot announce: the group will "
                             "come from any source",
                             interface_.igmpVersion));
    }

    InterfaceConfiguration& interface_;
    Diagnostics& diagnostics_;
    std::vector<Entry> entries_;
};

} // namespace

void readGroups(TomlSection const& section, InterfaceConfiguration& interface,
                Diagnostics& diagnostics) {
    auto const groups = section.section("group");
    if (!groups) return;
    GroupReader reader(interface, diagnostics);
    reader.doRead(*groups);
    if (!checkGroupCount(section, "group", reader.count(), interface, diagnostics)) {
        reader.doDropPrefixes();
    } else if (reader.count() > mostGroupsOfPrefixes) {
        diagnostics.addError(section.positionOf("group"),
                             fmt::format("group selects {} groups, expected up to {}",
                                         reader.count(), mostGroupsOfPrefixes));
        reader.doDropPrefixes();
    }
    reader.doExpand();
}

bool checkGroupCount(TomlSection const& section, std::string_view key, std::uint64_t groups,
                     InterfaceConfiguration const& interface, Diagnostics& diagnostics) {
    if (groups <= mostGroupsUnasked || interface.largeRanges) return true;
    diagnostics.addError(section.positionOf(key),
                         fmt::format("{} {} {} groups, expected up to {}, or large-ranges = true",
                                     key, key == "group" ? "selects" : "select", groups,
                                     mostGroupsUnasked));
    return false;
}

} // namespace Agent
