// Opening sockets in other network namespaces. A socket stays in the namespace in which it was
// opened, so one thread can serve several: it enters only to open.
#pragma once

#include "agent/loop/FileDescriptor.h"

#include <fcntl.h>
#include <string>

namespace Agent {

/// Opens a namespace that `ip netns` names so, or the file itself if `name` holds a '/'. Throws
/// std::system_error. With other `flags` than these the namespace cannot be entered.
FileDescriptor namespaceOpen(std::string const& name, int flags = O_RDONLY);

/// While it lives, the calling thread is in another network namespace.
class NamespaceScope {
  public:
    /// Negative: stays where it is. Throws std::system_error, without CAP_SYS_ADMIN for example.
    explicit NamespaceScope(int namespaceFd);
    /// Aborts where there is no way back: whatever followed would act on the wrong network.
    ~NamespaceScope();
    NamespaceScope(NamespaceScope const&) = delete;
    NamespaceScope& operator=(NamespaceScope const&) = delete;

  private:
    FileDescriptor outside_;
};

} // namespace Agent
