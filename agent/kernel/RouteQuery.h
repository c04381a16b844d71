// Asks the kernel for multicast routes: for all, by a dump, or for some by their names.
//
// The kernel walks its list from the head for each piece of a dump, which it makes as the piece
// before is taken, and 32 KiB at most: with 300,000 routes some 16 ms for a piece. So a thread asks
// and takes the answers, a buffer at a time, and the event loop reads what is in the buffer.
#pragma once

#include "agent/kernel/Netlink.h"
#include "agent/kernel/RouteRing.h"

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace Agent {

class RouteQuery {
  public:
    /// Of names in one question: their answers fit into the smallest receive buffer.
    static constexpr std::size_t mostNames = 128;

    /// Asks in a namespace if `namespaceFd` is not negative; for names, in the multicast table of
    /// that number, while all are those of all tables. Throws std::system_error.
    RouteQuery(int namespaceFd, std::uint32_t tableNumber);

    // What to ask next, after the answers to the last question have ended.

    void requestAll();
    void requestNames(std::span<RouteName const> names);

    /// Sends the question, or goes on taking the answers. What a thread does; until it returns,
    /// nothing else may be called.
    void doExchange() noexcept;

    enum class Outcome {
        more,   ///< another doExchange() is needed
        ended,  ///< these were all answers
        failed, ///< these will never be all; the query is of no more use
    };
    /// Tells `onRoute` of each RTM_NEWROUTE that the last doExchange() has taken. Of the names that
    /// were asked for, those that the kernel does not have are passed over.
    Outcome doRead(std::function<void(nlmsghdr const& message)> const& onRoute);
    /// Why it has failed, as an error number.
    int error() const { return error_; }

  private:
    void doAsk(std::uint16_t flags, RouteName const* name);
    void handleMessage(nlmsghdr const& message,
                       std::function<void(nlmsghdr const& message)> const& onRoute);

    std::uint32_t tableNumber_;
    NetlinkSocket socket_;
    std::vector<std::uint8_t> request_; ///< not sent yet
    bool dump_ = false;                 ///< was asked for; otherwise, routes by their names
    std::size_t missing_ = 0;           ///< messages, of those that answer for good
    int error_ = 0;
    alignas(nlmsghdr) std::array<std::uint8_t, 65536> answers_;
    std::size_t taken_ = 0; ///< octets of these
};

} // namespace Agent
