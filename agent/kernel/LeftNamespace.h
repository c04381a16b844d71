// The interfaces of a namespace that no VRF of the configuration is in any more: groups announced
// there may have to be left yet. Writes no state.
//
// One alarm: it tries again what the kernel has refused.
#pragma once

#include "agent/kernel/KernelInterfaces.h"
#include "agent/kernel/NamespaceWatch.h"

#include <functional>
#include <memory>
#include <string>

namespace Agent {

class LeftNamespace {
  public:
    /// Told that the whereabouts of any interface may have changed. Must not destroy this.
    using Observer = std::function<void()>;

    /// `name` as NamespaceWatch takes it. `loop` outlives this.
    LeftNamespace(EventLoop& loop, std::string name, Observer observer);
    ~LeftNamespace();

    /// Of a namespace that is gone, it is known that no interface is in it.
    Whereabouts whereabouts(std::string const& interface) const;

  private:
    void handleNamespace();
    void doStart();
    void doStop();

    EventLoop& loop_;
    std::string name_;
    Observer observer_;
    LogLimit failureLimit_;
    Alarm retry_;
    std::unique_ptr<NamespaceWatch> watch_;
    std::unique_ptr<KernelInterfaces> interfaces_;
};

} // namespace Agent
