// Sole ownership of a file descriptor.
#pragma once

#include <unistd.h>
#include <utility>

namespace Agent {

class FileDescriptor {
  public:
    /// None.
    FileDescriptor() = default;
    /// Takes over `fd`; a negative one, as failed calls return it, means none.
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~FileDescriptor() {
        if (fd_ >= 0) close(fd_);
    }

    int get() const { return fd_; }

  private:
    int fd_ = -1;
};

} // namespace Agent
