// The multicast routes of one network namespace as the kernel's messages tell them, and which of
// them are announced.
//
// The kernel tells of changes by notifications, of everything by a dump, and of single routes when
// asked. A reading begins with a dump. Its pieces are older than notifications that have overtaken
// them, so while it lasts, what a notification says of a route holds against the dump. And the
// kernel finds the place to go on by counting: a deletion of a route that it has told makes it skip
// another. So what the dump has not told is asked for before it is dropped. Where fewer turn up
// than were skipped, another dump is read, for a route that nobody knows cannot be asked for; that
// this one skips the same routes is so unlikely that it is the last, or a busy network would never
// be read to the end.
//
// Every route stands in one of several rings: that of its incoming interface; that of routes which
// the reading has not told yet; that of those which the kernel was asked for; that of routes to
// judge anew; that of routes to drop. Whole rings change their purpose at once, and the last two
// are emptied in bounded steps by doReview.
#pragma once

#include "agent/kernel/RouteRing.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <libmnl/libmnl.h>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Agent {

/// Which routes are announced. Unresolved ones, whose packets the kernel queues, never are.
struct RouteFilter {
    /// A route without outputs exists because its traffic arrives; announced, it would keep the
    /// traffic coming.
    bool requireOutput = true;
    /// Whether traffic may come in by any interface, or only by one of `proxyInterfaces`.
    bool anyIncoming = false;
    std::set<int> proxyInterfaces; ///< by kernel index
    friend bool operator==(RouteFilter const&, RouteFilter const&) = default;
};

class RouteTable {
  public:
    /// Told of a route whose announced state has changed, after it is stored. The source is 0.0.0.0
    /// for any. Must not throw, nor call this table.
    using Observer = std::function<void(Lox::IpAddr source, Lox::IpAddr group, bool announced)>;

    /// `number` is that of the kernel's table.
    explicit RouteTable(Observer onRoute, std::uint32_t number = defaultNumber);
    static constexpr std::uint32_t defaultNumber = 253; ///< RT_TABLE_DEFAULT
    RouteTable(RouteTable const&) = delete;
    RouteTable& operator=(RouteTable const&) = delete;

    /// Has the routes concerned judged anew by doReview. Those that a reading has not told yet
    /// follow as it tells them.
    void setFilter(RouteFilter filter);
    /// The same for one interface.
    void setProxyInterface(int ifindex, bool proxy);

    /// Takes in an RTM_NEWROUTE or RTM_DELROUTE of the multicast table; others change nothing. For
    /// a malformed one throws Nex::ParseException and stays as it was.
    void readMessage(nlmsghdr const& message, bool ofDump);

    /// Begins a reading: routes are about to be told anew.
    void beginReading();
    /// What to ask the kernel for next.
    struct Question {
        bool all = false;             ///< by a dump
        std::vector<RouteName> names; ///< otherwise; none at the end of the reading
    };
    /// What was asked for has been told, and so have all notifications that came before its end.
    /// The answers to this question are told as a dump.
    Question questionTake(std::size_t mostNames);
    /// Ends the reading. `whole`: nothing that the kernel sent was lost meanwhile; otherwise the
    /// routes that were not told are kept for another reading.
    void endReading(bool whole);
    bool reading() const { return reading_; }

    /// Judges or drops up to `most` of the routes that wait for it. Returns whether none is left.
    bool doReview(std::size_t most);
    /// The same, without doing anything.
    bool reviewed() const { return toDrop_.empty() && toJudge_.empty(); }

    /// Null for a route that the kernel has not, or not resolved.
    RouteEntry const* route(RouteName const& name) const;
    /// Why a route is not announced.
    enum class Withheld { noOutput, incomingGone, foreignIncoming };
    struct WithheldRoute {
        Lox::IpAddr source;
        Withheld why;
        int incoming; ///< by kernel index, 0 for none
    };
    /// The first route to the group that is not announced, or the next one behind that source,
    /// however many other routes there are. Nothing at the end.
    std::optional<WithheldRoute> nextWithheld(Lox::IpAddr group,
                                              std::optional<Lox::IpAddr> after) const;

    /// Tells the announced routes once more.
    void doTellAll() const;
    /// Whether any route has ever come in or gone out by that interface.
    bool uses(int ifindex) const;
    /// Of all that the kernel has, unresolved ones aside.
    std::size_t routeCount() const { return routeCount_; }

  private:
    using Routes = std::unordered_map<RouteName, RouteEntry, RouteName::Hash>;
    static std::size_t mapOf(RouteName const& name);
    RouteNode* find(RouteName const& name);

    void handleRoute(RouteName const& name, int incoming, RouteOutputs const& outputs, bool ofDump);
    void handleOvertaken(RouteName const& name, bool unresolved);
    void handleGone(RouteName const& name);
    /// Where the route leads. Throws Nex::ParseException.
    RouteOutputs handleOutputs(std::span<std::uint8_t const> nextHops);
    /// Of the routes that come in there. Asked for while the route is still in another ring: it may
    /// find no memory.
    RouteRing& ringOf(int incoming);
    /// Puts the route, which is in no ring, into its own, and tells if its state has changed.
    void doJudge(RouteNode& node, RouteRing& ring);
    /// Forgets the route, and tells if it was announced.
    void doDrop(RouteNode& node);
    bool passes(RouteEntry const& route) const;
    Withheld whyWithheld(RouteEntry const& route) const;

    Observer onRoute_;
    std::uint32_t number_;
    RouteFilter filter_;
    /// Several maps: one would hold the loop for long as it grows.
    std::array<Routes, 64> routes_;
    std::size_t routeCount_ = 0;
    /// By group and source: for whoever asks why a group is not announced.
    std::set<std::pair<Lox::IpAddr, Lox::IpAddr>> withheld_;
    std::uint16_t dumpNumber_ = 0; ///< of the last one, over all readings
    std::map<int, RouteRing> byIncoming_;
    RouteRing untold_;
    RouteRing asked_;
    RouteRing toJudge_;
    RouteRing toDrop_;
    std::set<int> interfaces_; ///< that routes have used
    // Of the reading that lasts.
    bool reading_ = false;
    unsigned dumps_ = 0;
    bool dumping_ = false;
    std::size_t skipped_ = 0; ///< by this dump, and not found yet
    /// What a dump says of these is ignored. Whether the route has gone, and this dump had not told
    /// it: where it tells it yet, that may be from before, so that it has skipped another.
    std::unordered_map<RouteName, bool, RouteName::Hash> notified_;
};

} // namespace Agent
