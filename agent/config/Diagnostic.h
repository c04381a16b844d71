// What reading a file has found: each finding with its place, so that an editor can jump to it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace Agent {

/// Shared by all that stands in the file.
using FileName = std::shared_ptr<std::string const>;

/// A place in a text, both counted from 1; line 0 stands for the file as a whole.
struct Position {
    unsigned line = 0;
    unsigned column = 0;
    /// Null for the one that was asked for.
    FileName file = {};
};

/// The line, from 1, where something stands; 0 for nowhere. That is no part of what it means, so
/// all compare equal.
struct Line {
    unsigned number = 0;
    FileName file = {};

    Line() = default;
    explicit Line(Position const& position) : number(position.line), file(position.file) {}
    friend bool operator==(Line const&, Line const&) { return true; }
};

struct Diagnostic {
    /// Only errors keep a configuration from being used.
    enum class Level { info, warning, error };

    Level level = Level::error;
    std::string file;
    Position position;
    /// What was found and what was expected; printable ASCII only.
    std::string text;
    /// How many more of its kind there are, which are not shown.
    std::size_t more = 0;

    /// FILE:LINE:COLUMN: LEVEL: TEXT, or FILE: LEVEL: TEXT for the file as a whole.
    std::string stringValue() const;
    /// The same without the level.
    std::string textInFile() const;
};

/// As programs read them: "level", "file", "line", "column" and "text" of each.
nlohmann::json toJson(std::vector<Diagnostic> const& diagnostics);

/// "info", "warning" or "error".
char const* nameOf(Diagnostic::Level level);

/// "1 group", "2 groups".
std::string countText(std::uint64_t count, std::string const& what);

/// Collects the findings about one file and those that it includes.
class Diagnostics {
  public:
    explicit Diagnostics(std::string file) : file_(std::move(file)) {}

    void add(Diagnostic::Level level, Position position, std::string const& text);
    void addError(Position position, std::string const& text) {
        add(Diagnostic::Level::error, position, text);
    }
    void addWarning(Position position, std::string const& text) {
        add(Diagnostic::Level::warning, position, text);
    }
    void addInfo(Position position, std::string const& text) {
        add(Diagnostic::Level::info, position, text);
    }

    /// Hands over the findings in the order of their places, infos behind all others. Of one kind
    /// that is found again and again, with other names or numbers, only the first 20, and how many
    /// more there are.
    std::vector<Diagnostic> take();
    /// Whether `a` stands before `b`: the file before those that it includes, these by their names.
    bool before(Position const& a, Position const& b) const;

  private:
    std::string file_;
    std::vector<Diagnostic> found_;
};

} // namespace Agent
