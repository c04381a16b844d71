// Tests that are written down as text: files of scenarios, each a title and lines.
#pragma once

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace Support {

using Words = std::vector<std::string>;

/// The parts of a text, without the spaces around them.
inline Words parts(std::string const& text, char separator) {
    Words all;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) {
        part.erase(0, part.find_first_not_of(' '));
        part.erase(part.find_last_not_of(' ') + 1);
        all.push_back(part);
    }
    return all;
}

inline Words words(std::string const& text) {
    Words all = parts(text, ' ');
    std::erase(all, "");
    return all;
}

struct Line {
    std::string file;
    int number;
    std::string text;
};
struct Scenario {
    std::string title;
    std::vector<Line> lines;
    friend void PrintTo(Scenario const& scenario, std::ostream* out) { *out << scenario.title; }
};

/// Those of all files of a directory, in the order of their names. "== " and a title begin one;
/// what a file has before its first is part of each. "#" begins a comment.
inline std::vector<Scenario> scenariosIn(std::filesystem::path const& directory) {
    std::vector<Scenario> all;
    std::vector<std::filesystem::path> paths;
    for (auto const& entry : std::filesystem::directory_iterator(directory))
        paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    for (auto const& path : paths) {
        std::vector<Line> ofEach;
        auto* lines = &ofEach;
        std::ifstream file(path);
        int number = 0;
        for (std::string text; std::getline(file, text);) {
            ++number;
            text.erase(std::min(text.find('#'), text.size()));
            if (text.starts_with("== ")) {
                all.push_back({text.substr(3), ofEach});
                lines = &all.back().lines;
            } else if (!words(text).empty()) {
                lines->push_back({path, number, text});
            }
        }
    }
    return all;
}

/// A scenario's title as the name of a test.
struct NameOfScenario {
    std::string operator()(auto const& info) const {
        std::string name;
        for (std::string word : words(info.param.title)) {
            word[0] = char(std::toupper(word[0]));
            std::erase_if(word, [](char c) { return !std::isalnum(c); });
            name += word;
        }
        return name;
    }
};

} // namespace Support
