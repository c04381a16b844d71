// Typed access to one table of a TOML file. A value of the wrong type or range is reported with
// its place and then treated as absent, so that one reading finds every error.
#pragma once

#include "agent/config/Diagnostic.h"

#include <cstdint>
#include <initializer_list>
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

/// Parses `text`. A syntax error is reported, and nothing returned. Never throws, whatever the
/// text.
std::optional<toml::table> tomlParse(std::string_view text, Diagnostics& diagnostics);

/// Refers to a table and to the collector of findings; both must outlive it.
class TomlSection {
  public:
    TomlSection(toml::table const& table, Diagnostics& diagnostics)
        : table_(&table), diagnostics_(&diagnostics) {}

    /// Where the table begins.
    Position position() const;
    /// All keys, in the order of their texts.
    std::vector<TomlText> keys() const;
    /// Reports every key that is not among `known`. A table `named` by the operator may hold one
    /// because its name has a dot and no quotes.
    void keysAre(std::initializer_list<std::string_view> known, std::string_view named = {}) const;
    /// Reports every one of `required` that is absent.
    void doRequire(std::initializer_list<std::string_view> required) const;
    bool has(std::string_view key) const { return table_->contains(key); }
    /// The place of the value of `key`, or of the table where it is absent.
    Position positionOf(std::string_view key) const;

    // Each returns nothing where the key is absent, and where its value was reported.

    std::optional<bool> boolean(std::string_view key) const;
    /// From `low` to `high`, both included.
    std::optional<std::int64_t> integer(std::string_view key, std::int64_t low,
                                        std::int64_t high) const;
    /// A finite number above 0 and up to `high`, written with or without decimals.
    std::optional<double> positiveNumber(std::string_view key, double high) const;
    std::optional<TomlText> text(std::string_view key) const;
    std::optional<TomlSection> section(std::string_view key) const;

    /// The strings of an array. One string of the wrong type is left out.
    std::vector<TomlText> texts(std::string_view key) const;
    /// The tables of an array of tables, as [[key]] writes it.
    std::vector<TomlSection> sections(std::string_view key) const;

  private:
    void doReportType(std::string_view key, toml::node const& found, char const* expected) const;
    toml::array const* array(std::string_view key, char const* expected) const;

    toml::table const* table_;
    Diagnostics* diagnostics_;
};

} // namespace Agent
