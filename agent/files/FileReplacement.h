// A file that is written anew beside the old one and takes its place as a whole: whoever reads the
// path finds the old or the new content, never a part.
#pragma once

#include "agent/loop/FileDescriptor.h"

#include <string>
#include <string_view>

namespace Agent {

class FileReplacement {
  public:
    /// Begins with an empty file. Throws std::system_error, as all calls do.
    explicit FileReplacement(std::string path);
    /// Leaves nothing behind of what was not finished.
    ~FileReplacement();
    FileReplacement(FileReplacement const&) = delete;
    FileReplacement& operator=(FileReplacement const&) = delete;

    void add(std::string_view text);
    /// Puts it in place. Nothing is added afterwards.
    void finish();

  private:
    std::string path_;
    std::string freshPath_;
    FileDescriptor fresh_;
    bool finished_ = false;
};

} // namespace Agent
