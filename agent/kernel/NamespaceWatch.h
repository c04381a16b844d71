// Watches for a network namespace by its name: it may be absent at first, vanish, and come back as
// another namespace of the same name.
//
// The name of a namespace is a file on which the kernel's namespace is mounted; before that mount
// the file is empty, and unmounting takes the namespace away. So the process's table of mounts
// tells when to look. Names that are links or lie in /proc change without a mount: a slow poll
// finds those, and tries again what failed.
#pragma once

#include "agent/loop/Alarm.h"
#include "agent/loop/FileDescriptor.h"

#include <functional>
#include <optional>
#include <string>

namespace Agent {

class NamespaceWatch {
  public:
    /// Told after namespaceFd() has changed. One namespace is told to be gone before another of the
    /// same name is told to be there. Must not destroy the watch.
    using Observer = std::function<void()>;

    /// `name` as in `ip netns`, or a path if it holds a '/'. Looks at once, without telling.
    /// `loop` outlives this. Throws std::system_error where the kernel refuses to be watched.
    NamespaceWatch(EventLoop& loop, std::string name, Observer observer);
    ~NamespaceWatch();
    NamespaceWatch(NamespaceWatch const&) = delete;
    NamespaceWatch& operator=(NamespaceWatch const&) = delete;

    std::string const& name() const { return name_; }
    /// The namespace, which can be entered; negative while there is none. One that goes is closed
    /// once the observer has been told.
    int namespaceFd() const { return namespace_.get(); }
    /// Whether there is none of that name, as far as the last look could tell.
    bool absent() const { return namespaceFd() < 0 && failure_.empty(); }
    /// Why there is none; empty while there is one.
    std::string obstacle() const;

  private:
    void doLook();
    /// Nothing where the name cannot tell, because of a failure.
    std::optional<FileDescriptor> doOpen();
    std::optional<FileDescriptor> doFail(std::string const& text);

    EventLoop& loop_;
    std::string name_;
    Observer observer_;
    FileDescriptor mounts_;
    FileDescriptor namespace_;
    std::string failure_; ///< of the last look; empty for none
    Alarm poll_;
};

} // namespace Agent
