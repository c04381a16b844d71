// The interfaces of one VRF as the kernel tells of them, followed for as long as this is there.
#pragma once

#include "agent/kernel/KernelInterfaces.h"
#include "agent/loop/EventLoop.h"
#include "agent/records/InterfaceWriter.h"

namespace Agent {

class FollowedInterfaces final : public InterfaceWriter {
  public:
    /// Throws std::system_error where the kernel refuses. `state` and `loop` outlive this.
    FollowedInterfaces(IgmpHostProxy::PlatformState& state, EventLoop& loop, Place const& place,
                       Owns owns, Observer observer);
    ~FollowedInterfaces() override;

    InterfaceTable const& links() const override { return kernel_.table(); }
    bool synchronized() const override { return kernel_.synchronized(); }
    /// Begins a reading again that the kernel has given up; to be called every few seconds.
    void doRetry();
    /// Writes everything once more, and reads it again from the kernel: memory ran out.
    void doRenew();

  private:
    void doFollow();
    void doReopen();
    void handleInterface(int ifindex);

    EventLoop& loop_;
    KernelInterfaces kernel_;
};

} // namespace Agent
