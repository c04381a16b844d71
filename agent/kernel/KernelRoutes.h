// Follows the kernel's multicast routes of one table in a network namespace through rtnetlink,
// whoever writes them: which of them are announced, by a filter.
//
// The kernel's dump of a long table takes minutes of work that grows with the square of its length,
// and its notifications hardly any. So the table is read once and its changes are followed; it is
// read again only where notifications were lost, or where a multicast interface came or went, which
// changes routes without a word. The kernel is asked beside the loop; what it answers is taken up
// a buffer in each turn. Between two readings is a pause.
//
// A question that the kernel refuses, gives up or cannot be asked ends a reading in which something
// was lost.
//
// Two alarms: one goes on with routes that wait for their review, in the next turn; one ends the
// pause between readings.
#pragma once

#include "agent/kernel/Netlink.h"
#include "agent/kernel/RouteQuery.h"
#include "agent/kernel/RouteTable.h"
#include "agent/loop/Alarm.h"

#include <memory>

namespace Agent {

class KernelRoutes final : private Netlink::Observer {
  public:
    /// Follows the namespace `namespaceFd`, or the caller's if negative, and tells `onRoute` of
    /// every announced route from within the loop's turns; what it throws is logged. Nothing passes
    /// the filter before setFilter(). `loop` outlives this. Throws std::system_error.
    KernelRoutes(EventLoop& loop, RouteTable::Observer onRoute, int namespaceFd = -1,
                 std::uint32_t tableNumber = RouteTable::defaultNumber);
    ~KernelRoutes();
    KernelRoutes(KernelRoutes const&) = delete;
    KernelRoutes& operator=(KernelRoutes const&) = delete;

    /// Routes whose announced state it changes are told in the turns that follow.
    void setFilter(RouteFilter filter);
    void setProxyInterface(int ifindex, bool proxy);

    /// Tells all announced routes once more, and reads the kernel's table again.
    void doRenew();

    /// Whether the kernel's table has been read once.
    bool synchronized() const { return synchronized_; }
    /// Whether, moreover, no route waits to be told.
    bool told() const { return synchronized_ && reviewed(); }
    /// Whether no route waits to be judged or dropped.
    bool reviewed() const { return table_.reviewed(); }
    RouteTable const& table() const { return table_; }
    /// Of all that the kernel has, unresolved ones aside.
    std::size_t routeCount() const { return table_.routeCount(); }
    /// Octets that notifications may fill before they are lost.
    void setReceiveBuffer(int octets) { notifications_.setReceiveBuffer(octets); }

  private:
    // Netlink::Observer
    void onMessage(nlmsghdr const& message, bool ofDump) override;
    void onDumpsDone() override {}
    void onReadAgain() override;

    void handleNotifications();
    void handleInterface(nlmsghdr const& message);
    void handleInterfaceGone(nlmsghdr const& message);
    /// Begins a reading that is needed and may begin.
    void doAdvance();
    void doRead();
    /// Asks the kernel for what the reading needs next, or ends it.
    void doAsk();
    void doExchange();
    void handleAnswers();
    void doEndReading();
    void handleFailure(char const* why);
    void doReview();

    EventLoop& loop_;
    int namespaceFd_;
    std::uint32_t tableNumber_;
    RouteTable table_;
    bool synchronized_ = false;
    bool readAgain_ = true;
    bool drained_ = true;   ///< of notifications
    bool answered_ = false; ///< the question that was asked last
    bool damaged_ = false;  ///< the reading that lasts
    double pauseUntil_ = 0;
    LogLimit malformedLimit_;
    LogLimit failureLimit_;
    Alarm review_;
    Alarm pause_;
    Netlink notifications_;
    /// A thread's until it has the answers; null where it is of no more use.
    std::shared_ptr<RouteQuery> query_;
    std::shared_ptr<EventLoop::Handler const> handleAnswers_ =
        std::make_shared<EventLoop::Handler const>([this] { handleAnswers(); });
};

} // namespace Agent
