#include "agent/kernel/NetworkNamespace.h"

#include "Nex/Error.h"
#include "agent/loop/SystemError.h"

#include <cerrno>
#include <sched.h>

namespace Agent {

namespace {

FileDescriptor openFile(std::string const& path, int flags = O_RDONLY) {
    // What is no namespace after all, such as a pipe, must not be waited for.
    FileDescriptor file(open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0) errnoThrow(path.c_str());
    return file;
}

} // namespace

FileDescriptor namespaceOpen(std::string const& name, int flags) {
    return openFile(name.find('/') == std::string::npos ? "/run/netns/" + name : name, flags);
}

NamespaceScope::NamespaceScope(int namespaceFd) {
    if (namespaceFd < 0) return;
    outside_ = openFile("/proc/thread-self/ns/net");
    if (setns(namespaceFd, CLONE_NEWNET) < 0) errnoThrow("entering a network namespace");
}

NamespaceScope::~NamespaceScope() {
    if (outside_.get() < 0) return;
    // The kernel makes a record of the thread's namespaces anew, for which it may lack memory.
    while (setns(outside_.get(), CLONE_NEWNET) < 0)
        if (errno != ENOMEM) Nex::assertionFailed("the way back from a network namespace");
}

} // namespace Agent
