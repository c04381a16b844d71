// Sole ownership of a file descriptor.
#pragma once

#include <fcntl.h>
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
    /// Leaves it to the caller.
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_ = -1;
};

/// Sees to it that no file or socket gets the number of standard input, output or error, where what
/// is printed would end up in it. To be called before the first is opened.
inline void standardDescriptorsReserve() {
    int fd = 0;
    do fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) close(fd);
}

} // namespace Agent
