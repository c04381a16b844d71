#include "agent/files/FileReplacement.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace Agent {

namespace {

[[noreturn]] void fail(std::string const& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

FileReplacement::FileReplacement(std::string path)
    : path_(std::move(path)), freshPath_(path_ + ".new") {
    // What is there may be of an earlier run that was cut off, or a pipe, which would be waited
    // for.
    unlink(freshPath_.c_str());
    fresh_ =
        FileDescriptor(open(freshPath_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (fresh_.get() < 0) fail(freshPath_);
}

FileReplacement::~FileReplacement() {
    if (!finished_) unlink(freshPath_.c_str());
}

void FileReplacement::add(std::string_view text) {
    while (!text.empty()) {
        ssize_t const written = write(fresh_.get(), text.data(), text.size());
        if (written < 0 && errno != EINTR) fail(freshPath_);
        if (written > 0) text.remove_prefix(std::size_t(written));
    }
}

void FileReplacement::finish() {
    if (std::rename(freshPath_.c_str(), path_.c_str()) != 0) fail(path_);
    finished_ = true;
}

} // namespace Agent
