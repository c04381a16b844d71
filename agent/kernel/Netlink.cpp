#include "agent/kernel/Netlink.h"

#include "agent/kernel/NetworkNamespace.h"
#include "agent/loop/EventLoop.h"
#include "agent/loop/SystemError.h"

#include <cerrno>
#include <cstring>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>

namespace Agent {

namespace {

std::uint64_t lossCount = 0;

/// Room for the burst of notifications when thousands of links or routes change at once.
constexpr int receiveBufferBytes = 8 << 20;
constexpr int mostDatagramsInTurn = 256;

void joinGroup(mnl_socket* socket, int group) {
    if (mnl_socket_setsockopt(socket, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0)
        errnoThrow("subscribing to a netlink group");
}

void enlargeBuffer(mnl_socket const* socket, int octets) {
    // Beyond the system's limit if the capability allows it, otherwise up to it.
    int const fd = mnl_socket_get_fd(socket);
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &octets, sizeof octets) < 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &octets, sizeof octets);
}

nlattr const* wellFormed(nlattr const* attribute, mnl_attr_data_type type) {
    if (attribute && mnl_attr_validate(attribute, type) < 0)
        throw Nex::ParseException("netlink attribute of the wrong length");
    return attribute;
}

/// What follows the fixed part of a message. Not up to libmnl's tail, which lies up to three octets
/// beyond a message of uneven length.
std::span<std::uint8_t const> attributeOctets(nlmsghdr const& message, std::size_t headerSize) {
    if (mnl_nlmsg_get_payload_len(&message) < headerSize)
        throw Nex::ParseException("netlink message without its header");
    auto const* const first =
        static_cast<std::uint8_t const*>(mnl_nlmsg_get_payload_offset(&message, headerSize));
    auto const* const tail = reinterpret_cast<std::uint8_t const*>(&message) + message.nlmsg_len;
    return first < tail ? std::span(first, tail) : std::span<std::uint8_t const>();
}

} // namespace

NetlinkAttributes::NetlinkAttributes(nlmsghdr const& message, std::size_t headerSize)
    : NetlinkAttributes(attributeOctets(message, headerSize)) {}

NetlinkAttributes::NetlinkAttributes(std::span<std::uint8_t const> octets) {
    auto const* const tail = octets.data() + octets.size();
    auto const* attribute = reinterpret_cast<nlattr const*>(octets.data());
    // The last one may lack its padding, so that the step may lead beyond the tail.
    while (reinterpret_cast<std::uint8_t const*>(attribute) < tail) {
        if (!mnl_attr_ok(attribute, int(tail - reinterpret_cast<std::uint8_t const*>(attribute))))
            throw Nex::ParseException("netlink attribute beyond the end of its message");
        std::uint16_t const type = mnl_attr_get_type(attribute);
        if (type < attributes_.size()) attributes_[type] = attribute;
        attribute = mnl_attr_next(attribute);
    }
}

NetlinkAttributes NetlinkAttributes::nested(std::uint16_t type) const {
    return NetlinkAttributes(octets(type));
}

std::optional<std::uint8_t> NetlinkAttributes::u8(std::uint16_t type) const {
    nlattr const* const attribute = wellFormed(attributes_[type], MNL_TYPE_U8);
    return attribute ? std::optional(mnl_attr_get_u8(attribute)) : std::nullopt;
}

std::optional<std::uint32_t> NetlinkAttributes::u32(std::uint16_t type) const {
    nlattr const* const attribute = wellFormed(attributes_[type], MNL_TYPE_U32);
    return attribute ? std::optional(mnl_attr_get_u32(attribute)) : std::nullopt;
}

std::optional<std::string_view> NetlinkAttributes::text(std::uint16_t type) const {
    nlattr const* const attribute = wellFormed(attributes_[type], MNL_TYPE_NUL_STRING);
    return attribute ? std::optional<std::string_view>(mnl_attr_get_str(attribute)) : std::nullopt;
}

std::span<std::uint8_t const> NetlinkAttributes::octets(std::uint16_t type) const {
    nlattr const* const attribute = attributes_[type];
    if (!attribute) return {};
    return {static_cast<std::uint8_t const*>(mnl_attr_get_payload(attribute)),
            mnl_attr_get_payload_len(attribute)};
}

NetlinkSocket netlinkOpen(int service, int namespaceFd, int receiveBufferOctets) {
    NamespaceScope const scope(namespaceFd);
    NetlinkSocket socket(mnl_socket_open2(service, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket) errnoThrow("opening a netlink socket");
    if (mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0)
        errnoThrow("binding a netlink socket");
    enlargeBuffer(socket.get(), receiveBufferOctets);
    return socket;
}

ssize_t netlinkReceive(mnl_socket const& socket, std::span<std::uint8_t> buffer) {
    sockaddr_nl sender{};
    iovec part{buffer.data(), buffer.size()};
    msghdr header{};
    header.msg_name = &sender;
    header.msg_namelen = sizeof sender;
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    ssize_t length = -1;
    do length = recvmsg(mnl_socket_get_fd(&socket), &header, 0);
    while (length < 0 && errno == EINTR);
    if (length < 0) return -errno;
    if (header.msg_flags & MSG_TRUNC) return -ENOBUFS;
    return sender.nl_pid == 0 ? length : 0;
}

Netlink::Netlink(int service, Observer& observer, int namespaceFd)
    : service_(service),
      namespaceFd_(namespaceFd),
      receiveBufferOctets_(receiveBufferBytes),
      socket_(newSocket()),
      observer_(observer) {}

NetlinkSocket Netlink::newSocket() const {
    NetlinkSocket socket = netlinkOpen(service_, namespaceFd_, receiveBufferOctets_);
    for (int const group : groups_) joinGroup(socket.get(), group);
    return socket;
}

void Netlink::setReceiveBuffer(int octets) {
    receiveBufferOctets_ = octets;
    enlargeBuffer(socket_.get(), octets);
}

void Netlink::subscribe(int group) {
    joinGroup(socket_.get(), group);
    groups_.push_back(group);
}

bool Netlink::stalled() const {
    pollfd taken{fd(), POLLIN, 0};
    return dumping() && poll(&taken, 1, 0) == 0;
}

bool Netlink::doReopen() {
    try {
        socket_ = newSocket();
    } catch (std::system_error const& error) {
        doLogFailure(error.what());
        return false;
    }
    dumps_.clear();
    incomplete_ = false;
    return true;
}

void Netlink::doQueueDump(Dump dump) {
    dumps_.push_back(std::move(dump));
    if (dumps_.size() == 1) doSendDump();
}

void Netlink::doSendDump() {
    Dump const& dump = dumps_.front();
    std::vector<std::uint8_t> bytes(MNL_NLMSG_HDRLEN + MNL_ALIGN(dump.header.size()));
    nlmsghdr* const request = mnl_nlmsg_put_header(bytes.data());
    request->nlmsg_type = dump.type;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request->nlmsg_seq = ++sequence_;
    void* const body = mnl_nlmsg_put_extra_header(request, dump.header.size());
    std::memcpy(body, dump.header.data(), dump.header.size());
    if (mnl_socket_sendto(socket_.get(), request, request->nlmsg_len) < 0)
        doLogFailure(fmt::format("dump {} not sent: {}", dump.type, std::strerror(errno)));
}

void Netlink::doLogFailure(std::string const& what) {
    if (auto const heldBack = failureLimit_.admitted(EventLoop::now()))
        log(LogLevel::error, "netlink: {} ({} more not shown)", what, *heldBack);
}

void Netlink::doEndDump() {
    dumps_.pop_front();
    if (dumping()) return doSendDump();
    if (std::exchange(incomplete_, false))
        observer_.onReadAgain();
    else
        observer_.onDumpsDone();
}

bool Netlink::receive() {
    for (int i = 0; i < mostDatagramsInTurn; ++i)
        if (!doReceiveDatagram()) return true;
    return false;
}

bool Netlink::doReceiveDatagram() {
    ssize_t const length = netlinkReceive(*socket_, *buffer_);
    if (length == -ENOBUFS) handleLoss();
    if (length > 0) handleDatagram(std::size_t(length));
    return length >= 0 || length == -ENOBUFS;
}

void Netlink::handleDatagram(std::size_t length) {
    auto const* message = reinterpret_cast<nlmsghdr const*>(buffer_->data());
    int left = int(length);
    for (; netlinkMessageOk(message, left); message = mnl_nlmsg_next(message, &left))
        handleMessage(*message);
    if (left > 0) log(LogLevel::warning, "netlink message of a wrong length dropped");
}

void Netlink::handleMessage(nlmsghdr const& message) {
    // Notifications carry the port of whoever caused them, never ours.
    bool const answer = message.nlmsg_pid == mnl_socket_get_portid(socket_.get());
    if (answer && (!dumping() || message.nlmsg_seq != sequence_)) return;
    if (answer && (message.nlmsg_flags & NLM_F_DUMP_INTR)) incomplete_ = true;
    if (message.nlmsg_type >= NLMSG_MIN_TYPE)
        observer_.onMessage(message, answer);
    else if (answer && (message.nlmsg_type == NLMSG_DONE || message.nlmsg_type == NLMSG_ERROR))
        handleDumpEnd(message);
}

void Netlink::handleDumpEnd(nlmsghdr const& message) {
    // Both kinds of ending begin with a negative error number, or 0.
    std::int32_t status = 0;
    if (mnl_nlmsg_get_payload_len(&message) >= sizeof status)
        std::memcpy(&status, mnl_nlmsg_get_payload(&message), sizeof status);
    if (status < 0)
        doLogFailure(
            fmt::format("dump {} refused: {}", dumps_.front().type, std::strerror(-status)));
    else
        doEndDump();
}

std::uint64_t Netlink::losses() { return lossCount; }

void Netlink::handleLoss() {
    ++lossCount;
    if (auto const heldBack = lossLimit_.admitted(EventLoop::now()))
        log(LogLevel::warning,
            "netlink notifications were lost, reading everything again ({} more not shown)",
            *heldBack);
    // A dump under way still comes to its end: only then is the socket free for the next.
    if (dumping())
        incomplete_ = true;
    else
        observer_.onReadAgain();
}

} // namespace Agent
