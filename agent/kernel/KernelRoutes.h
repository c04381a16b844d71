// Follows the kernel's multicast routes of one network namespace through rtnetlink, whoever writes
// them: which of them are announced, by a filter.
//
// The kernel's dump of a long table takes minutes of work that grows with the square of its length,
// and its notifications hardly any. So the table is read once and its changes are followed; it is
// read again only where notifications were lost, or where a multicast interface came or went, which
// changes routes without a word. Readings take one piece in each turn of the loop, and pause
// between each other for as long as the last one took.
//
// A dump that the kernel refuses or gives up counts as a reading in which something was lost.
//
// Two alarms: one goes on with routes that wait for their review, in the next turn; one ends the
// pause between readings.
#pragma once

#include "agent/kernel/Netlink.h"
#include "agent/kernel/RouteTable.h"
#include "agent/loop/Alarm.h"

namespace Agent {

class KernelRoutes final : private Netlink::Observer {
  public:
    /// Follows the namespace `namespaceFd`, or the caller's if negative, and tells `onRoute` of
    /// every announced route from within the loop's turns; what it throws is logged. Nothing passes
    /// the filter before filterIs. `loop` outlives this. Throws std::system_error.
    KernelRoutes(EventLoop& loop, RouteTable::Observer onRoute, int namespaceFd = -1);
    ~KernelRoutes();
    KernelRoutes(KernelRoutes const&) = delete;
    KernelRoutes& operator=(KernelRoutes const&) = delete;

    /// Routes whose announced state it changes are told in the turns that follow.
    void filterIs(RouteFilter filter);

    /// Tells all announced routes once more, and reads the kernel's table again.
    void doRenew();

    /// Whether the kernel's table has been read once.
    bool synchronized() const { return synchronized_; }
    /// Whether, moreover, no route waits to be told.
    bool told() const { return synchronized_ && table_.reviewed(); }
    /// Of all that the kernel has, unresolved ones aside.
    std::size_t routeCount() const { return table_.routeCount(); }
    /// Octets that notifications may fill before they are lost.
    void receiveBufferIs(int octets) { notifications_.receiveBufferIs(octets); }

  private:
    void onMessage(nlmsghdr const& message, bool ofDump) override;
    void onDumpsDone() override;
    void onReadAgain() override;

    void doFollowDumps();
    void handleNotifications();
    void handleDumpPiece();
    void handleDumpEnd();
    void handleInterface(nlmsghdr const& message);
    void handleInterfaceDel(nlmsghdr const& message);
    /// Ends a reading that has come to its end, begins one that is needed and may begin.
    void doAdvance();
    void doRead();
    void doDump();
    void doReview();

    EventLoop& loop_;
    RouteTable table_;
    bool synchronized_ = false;
    bool readAgain_ = true;
    bool drained_ = true;  ///< of notifications
    bool dumped_ = false;  ///< in full, by the dump that has ended
    bool damaged_ = false; ///< the reading that lasts
    double pauseUntil_ = 0;
    LogLimit malformedLimit_;
    Alarm review_;
    Alarm pause_;
    // A dump would fill the buffer of notifications, and they would fill its own.
    Netlink notifications_;
    Netlink dumps_;
};

} // namespace Agent
