// Files of one test.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

namespace Support {

/// A directory that goes away with all that is in it.
class Folder {
  public:
    Folder() {
        if (!mkdtemp(path_.data())) throw std::system_error(errno, std::generic_category(), path_);
    }
    ~Folder() { std::filesystem::remove_all(path_); }
    Folder(Folder const&) = delete;
    Folder& operator=(Folder const&) = delete;

    std::string file(std::string const& name) const { return path_ + "/" + name; }
    /// Empty for a file that does not exist.
    std::string read(std::string const& name) const {
        std::ostringstream text;
        text << std::ifstream(file(name)).rdbuf();
        return text.str();
    }
    void write(std::string const& name, std::string const& text) const {
        std::filesystem::create_directories(std::filesystem::path(file(name)).parent_path());
        std::ofstream(file(name)) << text;
    }

  private:
    std::string path_ = std::filesystem::temp_directory_path() / "ihproxyd-XXXXXX";
};

} // namespace Support
