#include "agent/files/FileReplacement.h"

#include "agent/loop/SystemError.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace Agent {

FileReplacement::FileReplacement(std::string path)
    : path_(std::move(path)), freshPath_(path_ + ".new") {
    // What is there may be of an earlier run that was cut off, or a pipe, which would be waited
    // for.
    unlink(freshPath_.c_str());
    fresh_ =
        FileDescriptor(open(freshPath_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (fresh_.get() < 0) errnoThrow(freshPath_.c_str());
}

FileReplacement::~FileReplacement() {
    if (!finished_) unlink(freshPath_.c_str());
}

void FileReplacement::add(std::string_view text) {
    while (!text.empty()) {
        ssize_t const written = write(fresh_.get(), text.data(), text.size());
        if (written < 0 && errno != EINTR) errnoThrow(freshPath_.c_str());
        if (written > 0) text.remove_prefix(std::size_t(written));
    }
}

void FileReplacement::finish() {
    if (std::rename(freshPath_.c_str(), path_.c_str()) != 0) errnoThrow(path_.c_str());
    finished_ = true;
}

} // namespace Agent
