#include "agent/reload/Rehearsal.h"

#include "agent/kernel/PacketSocket.h"
#include "agent/loop/SystemError.h"

#include <cstdlib>
#include <dirent.h>
#include <linux/magic.h>
#include <memory>
#include <set>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Agent {

namespace {

/// How long a copy may take, in seconds.
constexpr unsigned longestRehearsal = 15;
constexpr std::size_t bufferOctets = 64 << 10;

void writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        ssize_t const written = write(fd, text.data(), text.size());
        if (written < 0 && errno != EINTR) errnoThrow("write");
        if (written > 0) text.remove_prefix(std::size_t(written));
    }
}

std::vector<int> openDescriptors() {
    std::vector<int> open;
    std::unique_ptr<DIR, int (*)(DIR*)> const folder(opendir("/proc/self/fd"), closedir);
    if (!folder) errnoThrow("/proc/self/fd");
    while (dirent const* const entry = readdir(folder.get()))
        if (int const fd = std::atoi(entry->d_name);
            entry->d_name[0] != '.' && fd != dirfd(folder.get()))
            open.push_back(fd);
    return open;
}

/// Of the kernel's: to look into it disturbs nobody.
bool leadsToNamespace(int fd) {
    struct statfs status {};
    return fstatfs(fd, &status) == 0 && status.f_type == NSFS_MAGIC;
}

} // namespace

Rehearsal::~Rehearsal() {
    if (busy()) loop_.unwatch(pipe_.get());
}

bool Rehearsal::begin(Done done) {
    int ends[2];
    checked(pipe2(ends, O_CLOEXEC), "pipe2");
    FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    FileDescriptor found(checked(memfd_create("rehearsal", MFD_CLOEXEC), "memfd_create"));
    checked(fcntl(reading.get(), F_SETFL, O_NONBLOCK), "fcntl");
    loop_.watch(reading.get(), EPOLLIN, [this](std::uint32_t) { handlePipe(); });
    // Nobody waits for the end of the copy: its pipe tells it.
    signal(SIGCHLD, SIG_IGN);
    pid_t const original = getpid();
    pid_t const copy = fork();
    if (copy < 0) {
        int const error = errno;
        loop_.unwatch(reading.get());
        errno = error;
        errnoThrow("fork");
    }
    text_.clear();
    found_ = std::move(found);
    pipe_ = std::move(copy == 0 ? writing : reading);
    if (copy > 0) {
        done_ = std::move(done);
        return false;
    }
    try {
        checked(prctl(PR_SET_PDEATHSIG, SIGKILL), "prctl");
        if (getppid() != original) _exit(1);
        alarm(longestRehearsal);
        doCutOff();
    } catch (...) {
        _exit(1);
    }
    return true;
}

/// Its descriptors stay open, for whoever holds them, and lead nowhere.
void Rehearsal::doCutOff() {
    unsetenv("NOTIFY_SOCKET");
    PacketSocket::doMute();
    FileDescriptor const null(checked(open("/dev/null", O_RDWR | O_CLOEXEC), "/dev/null"));
    // Can be waited for, as a socket can.
    FileDescriptor const nowhere(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd"));
    std::set const kept{null.get(), nowhere.get(), pipe_.get(), found_.get()};
    for (int const fd : openDescriptors())
        if (fd <= STDERR_FILENO)
            checked(dup2(null.get(), fd), "dup2");
        else if (!kept.contains(fd) && !leadsToNamespace(fd))
            checked(dup3(nowhere.get(), fd, O_CLOEXEC), "dup3");
    loop_.doBecomeCopy();
}

void Rehearsal::add(std::string_view line) {
    text_ += line;
    text_ += '\n';
    if (text_.size() >= bufferOctets) writeAll(found_.get(), std::exchange(text_, {}));
}

void Rehearsal::end(std::string_view summary) {
    try {
        writeAll(found_.get(), text_);
        writeAll(pipe_.get(), summary);
    } catch (...) {
        _exit(1);
    }
    _exit(0);
}

void Rehearsal::handlePipe() {
    char octets[4096];
    ssize_t const count = read(pipe_.get(), octets, sizeof octets);
    if (count > 0) text_.append(octets, std::size_t(count));
    if (count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR))) return;
    loop_.unwatch(pipe_.get());
    pipe_ = FileDescriptor();
    std::exchange(done_, nullptr)(std::exchange(text_, {}), std::move(found_));
}

} // namespace Agent
