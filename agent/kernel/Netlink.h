// A netlink socket: dumps, one after the other, and notifications meanwhile. It finds out when the
// picture that both draw has holes, and then asks its observer to read everything again.
#pragma once

#include "Nex/Error.h"
#include "agent/loop/Log.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <libmnl/libmnl.h>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace Agent {

/// The attributes of one message, every length checked. Refers to the message.
class NetlinkAttributes {
  public:
    /// `headerSize`: of the fixed part before the attributes. Throws Nex::ParseException if the
    /// message is shorter, or an attribute does not end where the next begins.
    NetlinkAttributes(nlmsghdr const& message, std::size_t headerSize);

    // Nothing where the attribute is absent; Nex::ParseException for one of the wrong length.

    std::optional<std::uint8_t> u8(std::uint16_t type) const;
    /// In host order, as the kernel's numbers are.
    std::optional<std::uint32_t> u32(std::uint16_t type) const;
    /// Without the terminating zero, which must be there.
    std::optional<std::string_view> text(std::uint16_t type) const;
    /// Empty where the attribute is absent.
    std::span<std::uint8_t const> octets(std::uint16_t type) const;
    /// The attributes inside an attribute; none where it is absent.
    NetlinkAttributes nested(std::uint16_t type) const;

  private:
    explicit NetlinkAttributes(std::span<std::uint8_t const> octets);

    // By type; those of higher types have no reader here.
    std::array<nlattr const*, 64> attributes_{};
};

struct NetlinkCloser {
    void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};
using NetlinkSocket = std::unique_ptr<mnl_socket, NetlinkCloser>;

/// Opens a non-blocking socket to a kernel service such as NETLINK_ROUTE, in a namespace if
/// `namespaceFd` is not negative. The kernel keeps messages that fill so many octets for it; far
/// fewer of them in content, for it counts its own expense. Throws std::system_error.
NetlinkSocket netlinkOpen(int service, int namespaceFd, int receiveBufferOctets);

/// Whether a whole message lies in the `left` octets that begin with this one. What libmnl asks,
/// and that the length is no number that it takes for a negative one.
inline bool netlinkMessageOk(nlmsghdr const* message, int left) {
    return mnl_nlmsg_ok(message, left) && message->nlmsg_len <= std::uint32_t(left);
}

/// Takes a datagram of the kernel's: its octets; 0 for one of another process, which has nothing to
/// tell us; or a negative error number, ENOBUFS where one was lost, EAGAIN where there is none.
ssize_t netlinkReceive(mnl_socket const& socket, std::span<std::uint8_t> buffer);

class Netlink {
  public:
    /// Told what arrives while receive() runs. The calls must not throw.
    class Observer {
      public:
        /// One message, part of a dump or a notification. Only the header is known to be sound.
        virtual void onMessage(nlmsghdr const& message, bool ofDump) = 0;
        /// All dumps that were asked for have arrived in full.
        virtual void onDumpsDone() = 0;
        /// Messages were lost, or a dump was changed under way: dumps that were asked for are over
        /// and worth nothing. The observer asks for all that it needs.
        virtual void onReadAgain() = 0;

      protected:
        ~Observer() = default;
    };

    /// Opens a non-blocking socket to a kernel service such as NETLINK_ROUTE, in a namespace if
    /// `namespaceFd` is not negative. The observer and `namespaceFd` must outlive it. Throws
    /// std::system_error.
    Netlink(int service, Observer& observer, int namespaceFd = -1);
    Netlink(Netlink const&) = delete;
    Netlink& operator=(Netlink const&) = delete;

    /// To wait for; readable when receive() has something to do.
    int fd() const { return mnl_socket_get_fd(socket_.get()); }

    /// Subscribes to the notifications of an RTNLGRP_ group. Throws std::system_error.
    void subscribe(int group);

    /// Asks for a dump of `type` (RTM_GETLINK), with the request's fixed part. Queued behind the
    /// dumps that are under way, for a socket carries one at a time.
    template <typename Header>
    void requestDump(std::uint16_t type, Header const& header) {
        auto const* const octets = reinterpret_cast<std::uint8_t const*>(&header);
        doQueueDump({type, {octets, octets + sizeof header}});
    }
    /// Whether any dump has been asked for and not ended.
    bool dumping() const { return !dumps_.empty(); }
    /// Whether dumps were asked for and will never end: the kernel refused one, which is logged, or
    /// had no memory to go on. It puts the next piece of a dump on the socket as the last one is
    /// taken, so nothing to take means nothing to come. The owner looks after each receive() or now
    /// and then, and calls doReopen().
    bool stalled() const;
    /// Opens another socket in place of this one, with the same subscriptions; fd() changes. Its
    /// dumps are over, and nobody is told. Returns false where the kernel refuses; that is logged,
    /// and nothing has changed.
    bool doReopen();

    /// The kernel keeps notifications that fill so many octets; far fewer of them in content, for
    /// it counts its own expense. Less where the system's limit stands in the way.
    void setReceiveBuffer(int octets);

    /// How often any of these sockets has lost notifications.
    static std::uint64_t losses();

    /// Takes what has arrived, up to a limit that keeps a flood from starving others. Returns
    /// whether nothing is left.
    bool receive();

  private:
    struct Dump {
        std::uint16_t type;
        std::vector<std::uint8_t> header;
    };

    NetlinkSocket newSocket() const;
    void doQueueDump(Dump dump);
    void doSendDump();
    void doLogFailure(std::string const& what);
    void doEndDump();
    /// False when nothing is left.
    bool doReceiveDatagram();
    void handleDatagram(std::size_t length);
    void handleMessage(nlmsghdr const& message);
    void handleDumpEnd(nlmsghdr const& message);
    void handleLoss();

    int service_;
    int namespaceFd_;
    std::vector<int> groups_;
    int receiveBufferOctets_;
    NetlinkSocket socket_;
    Observer& observer_;
    /// The first is under way and answers to sequence_.
    std::deque<Dump> dumps_;
    std::uint32_t sequence_ = 0;
    bool incomplete_ = false; ///< one of the dumps since the queue was last empty
    LogLimit failureLimit_;
    LogLimit lossLimit_;
    // The kernel builds dumps in pieces of up to 32 KiB.
    std::unique_ptr<std::array<std::uint8_t, 65536>> buffer_ =
        std::make_unique<std::array<std::uint8_t, 65536>>();
};

} // namespace Agent
