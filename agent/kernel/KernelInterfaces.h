// Follows the links and IPv4 addresses of one network namespace through rtnetlink.
#pragma once

#include "agent/kernel/InterfaceTable.h"
#include "agent/kernel/Netlink.h"

#include <functional>
#include <string_view>

namespace Agent {

class KernelInterfaces final : private Netlink::Observer {
  public:
    /// Told the index of an interface that is new, changed or gone; looks its state up again. What
    /// it throws is logged.
    using InterfaceObserver = std::function<void(int ifindex)>;

    /// Follows the namespace `namespaceFd`, or the caller's if negative. Asks the kernel for
    /// everything; the answers arrive through receive(). Throws std::system_error.
    explicit KernelInterfaces(InterfaceObserver onInterface, int namespaceFd = -1);

    /// To wait for; call receive() when it is readable.
    int fd() const { return netlink_.fd(); }
    void receive() { netlink_.receive(); }
    /// Whether the kernel has given up a reading, which only doReopen takes up again.
    bool stalled() const { return netlink_.stalled(); }
    /// Begins another reading on another socket; fd() changes. What is known stays meanwhile. Where
    /// the kernel refuses that, too, it is logged, and nothing has changed.
    void doReopen();

    /// Whether everything has been read once. Before, the table is empty.
    bool synchronized() const { return synchronized_; }
    /// What it shows is valid until the next receive().
    InterfaceTable const& table() const { return table_; }

  private:
    void onMessage(nlmsghdr const& message, bool ofDump) override;
    void onDumpsDone() override;
    void onReadAgain() override;
    std::optional<int> apply(nlmsghdr const& message, InterfaceTable& table);
    void doNotify(int ifindex);

    InterfaceObserver onInterface_;
    InterfaceTable table_;
    // What the dumps under way have told; replaces table_ when they are done.
    InterfaceTable reading_;
    bool synchronized_ = false;
    // A notification came during the dumps. A piece of a dump may be older than it, and is then
    // corrected by another reading.
    bool overtaken_ = false;
    Netlink netlink_;
};

} // namespace Agent
