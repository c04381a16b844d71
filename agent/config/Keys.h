// The keys of the configuration file, one table of them for each kind of section. From here the
// reader has what a key takes and what holds without it, and docs/configuration.md its rows.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace Agent {

struct Key {
    enum class Type { boolean, integer, number, text, texts, table, tables };

    std::string_view name;
    Type type;
    /// The range of an integer, both included; of a number, without the low end.
    double low = 0, high = 0;
    /// What else it takes, in words.
    std::string_view takes = {};
    /// What holds where the key is absent, for booleans (0 or 1), integers and numbers.
    double standard = 0;
    /// The same in words, for other types and where the number does not say it.
    std::string_view standardText = {};
    /// Must be there.
    bool required = false;
    /// What it is for, and what it does on the wire. Markdown.
    std::string_view effect = {};
};

/// The keys of one kind of section, and its header as a file writes it, empty for the file itself.
struct KeyTable {
    std::string_view header;
    std::span<Key const> keys;

    /// Null for a name that is not among them.
    Key const* find(std::string_view name) const;
};

extern KeyTable const fileKeys, interfaceKeys, groupKeys, ruleKeys, controlKeys,
    forwardingTableKeys, metricsKeys, vrfKeys;

/// What an integer or a number takes, as diagnostics and the reference say it.
std::string rangeText(Key const& key);

/// The reference of all keys: a heading and a table in Markdown for each kind of section.
std::string keyReference();

} // namespace Agent
