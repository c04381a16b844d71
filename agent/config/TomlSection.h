// Typed access to one table of a TOML file, by the keys that Keys.h lists for it. A value of the
// wrong type or range is reported with its place and then treated as absent, so that one reading
// finds every error.
#pragma once

#include "agent/config/Diagnostic.h"
#include "agent/config/Keys.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <toml++/toml.h>
#include <vector>

namespace Agent {

/// A key or a string value, with the place to complain about.
struct TomlText {
    std::string value;
    Position position;
};

/// Reports that `found` was found where `expected` was.
void reportFound(TomlText const& found, std::string_view expected, Diagnostics& diagnostics);

/// Warns that what was found `text`: "has no effect" for example.
void warnFound(TomlText const& found, std::string const& text, Diagnostics& diagnostics);

/// Where something of the parser begins.
Position positionOf(toml::source_region const& region);

/// Parses the `text` of a file. A syntax error is reported, and nothing returned. Never throws,
/// whatever the text.
std::optional<toml::table> tomlParse(std::string_view text, std::string const& file,
                                     Diagnostics& diagnostics);

/// Refers to a table, its keys and the collector of findings; all must outlive it.
class TomlSection {
  public:
    /// Without keys where the operator chooses their names.
    TomlSection(toml::table const& table, Diagnostics& diagnostics, KeyTable const* known = nullptr)
        : table_(&table), diagnostics_(&diagnostics), known_(known) {}

    /// Where the table begins.
    Position position() const;
    /// All keys, in the order of their texts.
    std::vector<TomlText> keys() const;
    /// Reports every key that is not known, and every one that must be there and is not. A table
    /// `named` by the operator may hold an unknown one because its name has a dot and no quotes.
    void checkKeys(std::string_view named = {}) const;
    bool empty() const { return table_->empty(); }
    /// Calls `visit(key, section)` for each key, in the order of their texts. Where there is no
    /// table, that is reported, and there is no section.
    template <class Visit>
    void forSections(KeyTable const& known, Visit visit) const {
        for (auto const& [key, node] : *table_)
            visit(TomlText{std::string(key.str()), Agent::positionOf(key.source())},
                  sectionOf(key.str(), node, &known));
    }
    /// Nothing, and no report, where there is anything else.
    std::optional<TomlSection> tableAt(std::string_view key) const;
    bool has(std::string_view key) const { return table_->contains(key); }
    /// The place of the value of `key`, or of the table where it is absent.
    Position positionOf(std::string_view key) const;

    // Where the key is absent, and where its value was reported: its standard, or nothing.

    bool boolean(std::string_view key) const;
    /// Of its range.
    std::int64_t integer(std::string_view key) const;
    /// The same, and nothing where integer() takes the standard.
    std::optional<std::int64_t> givenInteger(std::string_view key) const;
    /// Of its range, written with or without decimals.
    double number(std::string_view key) const;
    std::optional<TomlText> text(std::string_view key) const;
    std::optional<TomlSection> section(std::string_view key, KeyTable const* known = nullptr) const;

    /// The strings of an array. One string of the wrong type is left out.
    std::vector<TomlText> texts(std::string_view key) const;
    /// The tables of an array of tables, as [[key]] writes it.
    std::vector<TomlSection> sections(std::string_view key, KeyTable const* known) const;

  private:
    /// Throws std::logic_error for a key that the table does not list.
    Key const& described(std::string_view key) const;
    std::optional<TomlSection> sectionOf(std::string_view key, toml::node const& node,
                                         KeyTable const* known) const;
    std::string adviceFor(std::string_view key, std::string_view named) const;
    void doReportType(std::string_view key, toml::node const& found, char const* expected) const;
    template <class Value>
    void doReportRange(Key const& key, toml::node const& found, Value value) const;
    toml::array const* array(std::string_view key, char const* expected) const;

    toml::table const* table_;
    Diagnostics* diagnostics_;
    KeyTable const* known_;
};

} // namespace Agent
