#include "agent/config/FilesReader.h"

#include "agent/config/TomlSection.h"
#include "agent/loop/FileDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <glob.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace Agent {

namespace {

constexpr std::size_t mostBytes = 64 << 20;
/// To read files that are being written, a millisecond apart.
constexpr unsigned mostAttempts = 50;
/// Tables that may come from several files, name by name.
constexpr std::string_view namedTables[] = {"access-list", "interface", "vrf"};

[[noreturn]] void fail(int error) { throw std::system_error(error, std::generic_category()); }

bool sameFile(struct stat const& a, struct stat const& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool unchanged(struct stat const& a, struct stat const& b) {
    return sameFile(a, b) && a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

/// Reads up to `most` bytes. Throws std::runtime_error with the reason.
std::string readContent(std::string const& path, std::size_t most, struct stat& status) {
    // To open a pipe would wait for a writer, and to read it again find it empty.
    FileDescriptor const file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0 || fstat(file.get(), &status) < 0) fail(errno);
    if (!S_ISREG(status.st_mode)) throw std::runtime_error("not a regular file");
    std::string content;
    std::string chunk(64 << 10, '\0');
    while (ssize_t const got = read(file.get(), chunk.data(), chunk.size())) {
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) fail(errno);
        content.append(chunk, 0, std::size_t(got));
        if (content.size() > most) fail(EFBIG);
    }
    return content;
}

/// The files that a pattern matches, in the order of their names. Throws std::runtime_error.
std::vector<std::string> matches(std::string const& pattern) {
    glob_t found{};
    int const failure = glob(pattern.c_str(), GLOB_ERR, nullptr, &found);
    std::vector<std::string> paths(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    globfree(&found);
    if (failure != 0 && failure != GLOB_NOMATCH)
        throw std::runtime_error("a folder cannot be read");
    return paths;
}

/// `name` as seen from `file`; a pattern matches nothing in the folder's own name.
std::string pathFrom(std::string const& file, std::string const& name) {
    std::string folder = std::filesystem::path(file).parent_path();
    if (folder.empty() || name.starts_with('/')) return name;
    if (isPattern(name))
        for (auto at = folder.find_first_of("*?[\\"); at != std::string::npos;
             at = folder.find_first_of("*?[\\", at + 2))
            folder.insert(at, 1, '\\');
    return folder + (folder.back() == '/' ? "" : "/") + name;
}

void doMergeTables(toml::table& into, toml::table& from, bool named, Diagnostics& diagnostics) {
    for (auto&& [key, node] : from) {
        toml::node* const there = into.get(key);
        bool const merges = !named && there && there->is_table() && node.is_table() &&
                            std::ranges::find(namedTables, key.str()) != std::end(namedTables);
        if (merges) {
            doMergeTables(*there->as_table(), *node.as_table(), true, diagnostics);
        } else if (there) {
            Position const other = positionOf(into.find(key)->first.source());
            reportFound({std::string(key.str()), positionOf(key.source())},
                        fmt::format("it in one file only: it is in \"{}:{}:{}\", too", *other.file,
                                    other.line, other.column),
                        diagnostics);
        } else {
            into.insert(key, std::move(node));
        }
    }
}

/// One attempt.
class FilesReader {
  public:
    FilesReader(std::string const& file, Diagnostics& diagnostics)
        : file_(file), diagnostics_(diagnostics) {}

    std::optional<toml::table> read() {
        auto root = readFile(file_, {});
        if (!root) return std::nullopt;
        bool good = true;
        for (TomlText const& name : TomlSection(*root, diagnostics_, &fileKeys).texts("include")) {
            for (std::string const& path : pathsOf(name)) {
                auto table = readFile(path, name.position);
                good &= table.has_value();
                if (!table) continue;
                doRefuseInclude(*table);
                doMergeTables(*root, *table, false, diagnostics_);
            }
        }
        return good ? std::move(root) : std::nullopt;
    }

    /// Whether all files are still what has been read.
    bool unchanged() const {
        return std::ranges::all_of(files_,
                                   [](File const& file) {
                                       struct stat now {};
                                       return stat(file.path.c_str(), &now) == 0 &&
                                              file.length == std::size_t(now.st_size) &&
                                              Agent::unchanged(file.status, now);
                                   }) &&
               std::ranges::all_of(patterns_, [](auto const& pattern) {
                   return matches(pattern.first) == pattern.second;
               });
    }

  private:
    struct File {
        std::string path;
        struct stat status;
        std::size_t length; ///< of what was read
    };

    std::vector<std::string> pathsOf(TomlText const& name) {
        std::string const path = pathFrom(file_, name.value);
        if (!isPattern(name.value)) return {path};
        try {
            return patterns_.emplace_back(path, matches(path)).second;
        } catch (std::runtime_error const& error) {
            doReportUnreadable(path, name.position, error);
            return {};
        }
    }

    std::optional<toml::table> readFile(std::string const& path, Position const& included) {
        try {
            struct stat status {};
            std::string const content = readContent(path, mostBytes - bytes_, status);
            if (std::ranges::any_of(
                    files_, [&](auto const& file) { return sameFile(file.status, status); })) {
                reportFound({path, included}, "each file once", diagnostics_);
                return std::nullopt;
            }
            bytes_ += content.size();
            files_.push_back({path, status, content.size()});
            return tomlParse(content, path, diagnostics_);
        } catch (std::runtime_error const& error) {
            doReportUnreadable(path, included, error);
            return std::nullopt;
        }
    }

    void doReportUnreadable(std::string const& path, Position const& included,
                            std::runtime_error const& error) {
        std::string const which = included.line == 0 ? "" : fmt::format("\"{}\" ", path);
        diagnostics_.addError(included, fmt::format("{}cannot be read: {}", which, error.what()));
    }

    void doRefuseInclude(toml::table& table) {
        auto const found = table.find("include");
        if (found == table.end()) return;
        reportFound({"include", positionOf(found->first.source())},
                    "it in the file that includes this one only", diagnostics_);
        table.erase(found);
    }

    std::string const& file_;
    Diagnostics& diagnostics_;
    std::vector<File> files_;
    std::vector<std::pair<std::string, std::vector<std::string>>> patterns_; ///< and their files
    std::size_t bytes_ = 0;
};

} // namespace

bool isPattern(std::string_view name) {
    return name.find_first_of("*?[") != std::string_view::npos;
}

std::optional<toml::table> filesRead(std::string const& file, Diagnostics& diagnostics) {
    for (unsigned attempt = 0; attempt < mostAttempts; ++attempt) {
        Diagnostics found(file);
        FilesReader reader(file, found);
        auto root = reader.read();
        if (reader.unchanged()) {
            diagnostics = std::move(found);
            return root;
        }
        usleep(1000);
    }
    diagnostics.addError({}, "cannot be read: it keeps changing");
    return std::nullopt;
}

} // namespace Agent
