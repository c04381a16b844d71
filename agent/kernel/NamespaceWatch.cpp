#include "agent/kernel/NamespaceWatch.h"

#include "agent/kernel/NetworkNamespace.h"
#include "agent/loop/SystemError.h"

#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/nsfs.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <system_error>
#include <utility>

namespace Agent {

namespace {

constexpr double pollSeconds = 5;

struct stat statusOf(FileDescriptor const& file) {
    struct stat status {};
    if (fstat(file.get(), &status) < 0) errnoThrow("fstat");
    return status;
}

/// Whether both are none or the same namespace. While a namespace is held open, no other one gets
/// its number.
bool same(FileDescriptor const& a, FileDescriptor const& b) {
    if (a.get() < 0 || b.get() < 0) return a.get() < 0 && b.get() < 0;
    struct stat const ofA = statusOf(a);
    struct stat const ofB = statusOf(b);
    return ofA.st_dev == ofB.st_dev && ofA.st_ino == ofB.st_ino;
}

/// Whether it is what `ip netns` makes before it mounts the namespace, and leaves for a moment
/// after unmounting it. Namespaces look empty, too.
bool emptyFile(FileDescriptor const& file) {
    struct stat const status = statusOf(file);
    struct statfs system {};
    if (fstatfs(file.get(), &system) < 0) errnoThrow("fstatfs");
    return S_ISREG(status.st_mode) && status.st_size == 0 && system.f_type != NSFS_MAGIC;
}

} // namespace

NamespaceWatch::NamespaceWatch(EventLoop& loop, std::string name, Observer observer)
    : loop_(loop),
      name_(std::move(name)),
      observer_(std::move(observer)),
      mounts_(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)),
      poll_(loop, [this] {
          poll_.arm(pollSeconds);
          doLook();
      }) {
    if (mounts_.get() < 0) errnoThrow("/proc/self/mountinfo");
    // Always readable; a change of the mounts is told as urgent.
    loop_.watch(mounts_.get(), EPOLLPRI, [this](std::uint32_t) { doLook(); });
    poll_.arm(pollSeconds);
    // After the watch has begun, so that nothing falls in between.
    if (auto found = doOpen()) namespace_ = std::move(*found);
}

NamespaceWatch::~NamespaceWatch() { loop_.unwatch(mounts_.get()); }

void NamespaceWatch::doLook() {
    auto found = doOpen();
    if (!found || same(*found, namespace_)) return;
    if (namespace_.get() >= 0) {
        FileDescriptor const gone = std::exchange(namespace_, FileDescriptor());
        observer_();
    }
    if (found->get() < 0) return;
    namespace_ = std::move(*found);
    observer_();
}

std::string NamespaceWatch::obstacle() const {
    if (namespace_.get() >= 0) return {};
    return "namespace " + name_ + (failure_.empty() ? " does not exist" : ": " + failure_);
}

std::optional<FileDescriptor> NamespaceWatch::doOpen() {
    failure_.clear();
    try {
        // That file is nobody's to read. Nothing tells when it goes.
        if (emptyFile(namespaceOpen(name_, O_PATH))) return FileDescriptor();
        FileDescriptor file = namespaceOpen(name_);
        if (same(file, namespace_)) return file;
        if (ioctl(file.get(), NS_GET_NSTYPE) != CLONE_NEWNET)
            return doFail("not a network namespace");
        NamespaceScope const entered(file.get());
        return file;
    } catch (std::system_error const& exception) {
        int const error = exception.code().value();
        if (error == ENOENT || error == ENOTDIR) return FileDescriptor();
        // Of a process with capabilities that the agent has given up.
        if (error == EACCES && name_.starts_with("/proc/"))
            return doFail(std::string(exception.what()) +
                          "; expected a name, as `ip netns attach NAME PID` gives one");
        if (error == EPERM)
            return doFail(std::string(exception.what()) +
                          "; that takes CAP_SYS_ADMIN, which the agent keeps if it starts with it "
                          "and with a VRF in its configuration");
        return doFail(exception.what());
    }
}

std::optional<FileDescriptor> NamespaceWatch::doFail(std::string const& text) {
    failure_ = text;
    return std::nullopt;
}

} // namespace Agent
