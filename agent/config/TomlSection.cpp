#include "agent/config/TomlSection.h"

#include "agent/loop/Printable.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <fmt/format.h>
#include <numeric>
#include <sstream>
#include <string>
#include <utility>

namespace Agent {

namespace {

// TOML limits neither the depth of dotted keys nor does the parser, which builds a table in a
// table for each dot and tears them down by recursion; a line of some 100,000 dots would exhaust
// the stack. Other nesting is limited by the parser, and line ends bound what it multiplies.
constexpr unsigned mostDotsInLine = 32;

/// Walks TOML text and finds the dots outside strings and comments.
class DotCounter {
  public:
    explicit DotCounter(std::string_view text) : text_(text) {}

    /// The first line with more than mostDotsInLine of them, or 0.
    unsigned tooDeepLine() {
        unsigned dots = 0;
        while (at_ < text_.size()) {
            char const c = text_[at_];
            if (c == '"' || c == '\'') {
                unsigned const before = line_;
                doSkipString(c);
                if (line_ != before) dots = 0;
                continue;
            }
            if (c == '#') {
                at_ = std::min(text_.find('\n', at_), text_.size());
                continue;
            }
            if (c == '\n') {
                ++line_;
                dots = 0;
            }
            if (c == '.' && ++dots > mostDotsInLine) return line_;
            ++at_;
        }
        return 0;
    }

  private:
    bool tripleAt(char mark) const {
        return text_.size() - at_ >= 3 && text_[at_] == mark && text_[at_ + 1] == mark &&
               text_[at_ + 2] == mark;
    }

    void doSkipString(char mark) {
        bool const multiline = tripleAt(mark);
        at_ += multiline ? 3 : 1;
        for (; at_ < text_.size(); ++at_) {
            if (text_[at_] == '\n') {
                if (!multiline) return; // a syntax error, which the parser will find here too
                ++line_;
            } else if (text_[at_] == '\\' && mark == '"') {
                // Only what is escaped on this line, so that line ends are always seen.
                if (at_ + 1 < text_.size() && text_[at_ + 1] != '\n') ++at_;
            } else if (multiline ? tripleAt(mark) : text_[at_] == mark) {
                at_ += multiline ? 3 : 1;
                // Up to two quotation marks may stand before the closing three.
                for (int i = 0; multiline && i < 2 && at_ < text_.size() && text_[at_] == mark; ++i)
                    ++at_;
                return;
            }
        }
    }

    std::string_view text_;
    std::size_t at_ = 0;
    unsigned line_ = 1;
};

char const* typeName(toml::node const& node) {
    switch (node.type()) {
    case toml::node_type::table:
        return "a table";
    case toml::node_type::array:
        return "an array";
    case toml::node_type::string:
        return "a string";
    case toml::node_type::integer:
        return "an integer";
    case toml::node_type::floating_point:
        return "a floating-point number";
    case toml::node_type::boolean:
        return "a boolean";
    default:
        return "a date or time";
    }
}

/// What the parser says, in words that help. It quotes a key that stands in quotes with the first
/// two characters repeated, for it has looked for three quotation marks there.
std::string wordsOf(toml::parse_error const& error, std::string_view text) {
    std::string words(error.description());
    auto const name = words.find('\'') + 1;
    if (words.find("cannot redefine") != std::string::npos && name != 0) {
        // The blanks before the equals sign are part of it, too.
        auto end = words.rfind('\'');
        while (end > name && std::isspace(static_cast<unsigned char>(words[end - 1])))
            words.erase(--end, 1);
        bool const verbatim =
            text.find(std::string_view(words).substr(name, end - name)) != std::string_view::npos;
        for (std::size_t at = name; !verbatim && at + 5 < words.size(); ++at)
            if ((words[at] == '"' || words[at] == '\'') &&
                words.compare(at + 1, 2, words, at + 3, 2) == 0)
                words.erase(at + 1, 2);
    }
    for (char const* const unquoted :
         {"floating-point", "determine value type", "expected '='", "expected ']'"})
        if (words.find(unquoted) != std::string::npos)
            return words + " (addresses, names with a dot and patterns stand in quotes)";
    return words;
}

/// How many letters have to be added, left out or replaced to make one of the other.
std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1); // from the beginning of `a` to those of `b`
    std::iota(row.begin(), row.end(), std::size_t(0));
    for (char const letter : a) {
        std::size_t diagonal = row[0]++;
        for (std::size_t i = 0; i < b.size(); ++i)
            diagonal = std::exchange(
                row[i + 1], std::min({row[i] + 1, row[i + 1] + 1, diagonal + (letter != b[i])}));
    }
    return row.back();
}

} // namespace

Position positionOf(toml::source_region const& region) {
    return {unsigned(region.begin.line), unsigned(region.begin.column), region.path};
}

void reportFound(TomlText const& found, std::string_view expected, Diagnostics& diagnostics) {
    diagnostics.addError(found.position,
                         fmt::format("{} found, expected {}", inQuotes(found.value), expected));
}

void warnFound(TomlText const& found, std::string const& text, Diagnostics& diagnostics) {
    diagnostics.addWarning(found.position, fmt::format("{} {}", inQuotes(found.value), text));
}

std::optional<toml::table> tomlParse(std::string_view text, std::string const& file,
                                     Diagnostics& diagnostics) {
    if (unsigned const line = DotCounter(text).tooDeepLine()) {
        diagnostics.addError({line, 1, std::make_shared<std::string const>(file)},
                             fmt::format("more than {} dots outside strings, expected "
                                         "keys of a few parts",
                                         mostDotsInLine));
        return std::nullopt;
    }
    try {
        // Not the text itself: for that the parser keeps the name of the file in a function that
        // must not throw, and so ends the program where there is no memory.
        std::istringstream stream{std::string(text)};
        return toml::parse(stream, file);
    } catch (toml::parse_error const& error) {
        diagnostics.addError(Agent::positionOf(error.source()), wordsOf(error, text));
    }
    return std::nullopt;
}

Position TomlSection::position() const { return Agent::positionOf(table_->source()); }

std::vector<TomlText> TomlSection::keys() const {
    std::vector<TomlText> keys;
    keys.reserve(table_->size());
    for (auto const& [key, node] : *table_)
        keys.push_back({std::string(key.str()), Agent::positionOf(key.source())});
    return keys;
}

/// What may have been meant by a key that is not known.
std::string TomlSection::adviceFor(std::string_view key, std::string_view named) const {
    Key const& near = *std::ranges::min_element(
        known_->keys, {}, [&](Key const& known) { return distance(key, known.name); });
    if (distance(key, near.name) <= std::max<std::size_t>(key.size() / 3, 1))
        return fmt::format("; did you mean {}?", inQuotes(near.name));
    if (!named.empty() && table_->get(key)->is_table())
        return fmt::format("; a name with a dot stands in quotes: {}",
                           inQuotes(fmt::format("{}.{}", named, key)));
    std::vector<std::string_view> names;
    for (Key const& known : known_->keys) names.push_back(known.name);
    return fmt::format(", expected one of {}", fmt::join(names, ", "));
}

void TomlSection::checkKeys(std::string_view named) const {
    for (TomlText const& key : keys())
        if (!known_->find(key.value))
            diagnostics_->addError(
                key.position,
                fmt::format("unknown key {}{}", inQuotes(key.value), adviceFor(key.value, named)));
    for (Key const& key : known_->keys)
        if (key.required && !has(key.name))
            diagnostics_->addError(position(),
                                   fmt::format("no key {} found, expected one", key.name));
}

std::optional<TomlSection> TomlSection::tableAt(std::string_view key) const {
    toml::node const* const node = table_->get(key);
    toml::table const* const table = node ? node->as_table() : nullptr;
    return table ? std::optional(TomlSection(*table, *diagnostics_)) : std::nullopt;
}

Key const& TomlSection::described(std::string_view key) const {
    Key const* const found = known_ ? known_->find(key) : nullptr;
    if (!found) throw std::logic_error(fmt::format("the key {} is not described", key));
    return *found;
}

Position TomlSection::positionOf(std::string_view key) const {
    toml::node const* const node = table_->get(key);
    return Agent::positionOf(node ? node->source() : table_->source());
}

bool TomlSection::boolean(std::string_view key) const {
    bool const standard = described(key).standard != 0;
    toml::node const* const node = table_->get(key);
    if (!node) return standard;
    if (auto const* const value = node->as_boolean()) return value->get();
    doReportType(key, *node, "true or false");
    return standard;
}

std::optional<std::int64_t> TomlSection::givenInteger(std::string_view key) const {
    Key const& range = described(key);
    toml::node const* const node = table_->get(key);
    if (!node) return std::nullopt;
    auto const* const value = node->as_integer();
    if (!value)
        doReportType(key, *node, rangeText(range).c_str());
    else if (value->get() >= std::int64_t(range.low) && value->get() <= std::int64_t(range.high))
        return value->get();
    else
        doReportRange(range, *node, value->get());
    return std::nullopt;
}

std::int64_t TomlSection::integer(std::string_view key) const {
    return givenInteger(key).value_or(std::int64_t(described(key).standard));
}

double TomlSection::number(std::string_view key) const {
    Key const& range = described(key);
    toml::node const* const node = table_->get(key);
    if (!node) return range.standard;
    auto const value = node->is_number() ? node->value<double>() : std::nullopt;
    if (!value)
        doReportType(key, *node, rangeText(range).c_str());
    else if (*value > range.low && *value <= range.high)
        return *value;
    else
        doReportRange(range, *node, *value);
    return range.standard;
}

std::optional<TomlText> TomlSection::text(std::string_view key) const {
    toml::node const* const node = table_->get(key);
    if (!node) return std::nullopt;
    if (auto const* const value = node->as_string())
        return TomlText{value->get(), Agent::positionOf(node->source())};
    doReportType(key, *node, "a string");
    return std::nullopt;
}

std::optional<TomlSection> TomlSection::section(std::string_view key, KeyTable const* known) const {
    toml::node const* const node = table_->get(key);
    return node ? sectionOf(key, *node, known) : std::nullopt;
}

std::optional<TomlSection> TomlSection::sectionOf(std::string_view key, toml::node const& node,
                                                  KeyTable const* known) const {
    if (auto const* const table = node.as_table()) return TomlSection(*table, *diagnostics_, known);
    doReportType(key, node, "a table");
    return std::nullopt;
}

std::vector<TomlText> TomlSection::texts(std::string_view key) const {
    std::vector<TomlText> texts;
    toml::array const* const elements = array(key, "an array of strings");
    if (!elements) return texts;
    for (toml::node const& element : *elements)
        if (auto const* const value = element.as_string())
            texts.push_back({value->get(), Agent::positionOf(element.source())});
        else
            doReportType(key, element, "only strings in the array");
    return texts;
}

std::vector<TomlSection> TomlSection::sections(std::string_view key, KeyTable const* known) const {
    std::vector<TomlSection> sections;
    toml::array const* const elements = array(key, "an array of tables");
    if (!elements) return sections;
    for (toml::node const& element : *elements)
        if (auto const* const table = element.as_table())
            sections.emplace_back(*table, *diagnostics_, known);
        else
            doReportType(key, element, "only tables in the array");
    return sections;
}

void TomlSection::doReportType(std::string_view key, toml::node const& found,
                               char const* expected) const {
    diagnostics_->addError(
        Agent::positionOf(found.source()),
        fmt::format("{} is {}, expected {}", inQuotes(key), typeName(found), expected));
}

template <class Value>
void TomlSection::doReportRange(Key const& key, toml::node const& found, Value value) const {
    diagnostics_->addError(Agent::positionOf(found.source()),
                           fmt::format("{} is {}, expected {}", key.name, value, rangeText(key)));
}

toml::array const* TomlSection::array(std::string_view key, char const* expected) const {
    toml::node const* const node = table_->get(key);
    if (!node) return nullptr;
    toml::array const* const found = node->as_array();
    if (!found) doReportType(key, *node, expected);
    return found;
}

} // namespace Agent
