#include "agent/control/MetricsServer.h"

#include "agent/config/AddressText.h"
#include "agent/loop/SystemError.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <microhttpd.h>
#include <netinet/in.h>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <utility>

namespace Agent {

namespace {

constexpr unsigned mostConnections = 16;
constexpr unsigned idleSeconds = 30;
/// Of an answer that lie ready to be sent.
constexpr std::size_t pieceOctets = 32 << 10;
constexpr char contentType[] = "application/openmetrics-text; version=1.0.0; charset=utf-8";

/// An answer on its way to one client.
struct Scrape {
    MetricsServer* server;
    MHD_Connection* connection;
    MetricsServer::Pieces pieces;
    std::string text;
    bool more = true;
};

/// Called by the library, which knows no exceptions.
ssize_t readPiece(void* context, std::uint64_t, char* buffer, std::size_t room) {
    auto& scrape = *static_cast<Scrape*>(context);
    try {
        double const end = EventLoop::now() + sliceSeconds;
        while (scrape.more && scrape.text.size() < room && EventLoop::now() < end)
            scrape.more = scrape.pieces(scrape.text);
        if (scrape.text.empty() && scrape.more) {
            scrape.server->doPutOff(scrape.connection);
            return 0;
        }
    } catch (std::exception const&) {
        return MHD_CONTENT_READER_END_WITH_ERROR;
    }
    if (scrape.text.empty()) return MHD_CONTENT_READER_END_OF_STREAM;
    std::size_t const size = std::min(room, scrape.text.size());
    std::memcpy(buffer, scrape.text.data(), size);
    scrape.text.erase(0, size);
    return ssize_t(size);
}

void freeScrape(void* context) { delete static_cast<Scrape*>(context); }

MHD_Result respond(MHD_Connection* connection, unsigned status, MHD_Response* response) {
    if (!response) return MHD_NO;
    MHD_Result const result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

MHD_Result refuse(MHD_Connection* connection, unsigned status, std::string_view text) {
    return respond(connection, status,
                   MHD_create_response_from_buffer(text.size(), const_cast<char*>(text.data()),
                                                   MHD_RESPMEM_PERSISTENT));
}

MHD_Result handleRequest(void* context, MHD_Connection* connection, char const* url,
                         char const* method, char const*, char const*, std::size_t*, void**) {
    using std::string_view;
    if (string_view(method) != MHD_HTTP_METHOD_GET && string_view(method) != MHD_HTTP_METHOD_HEAD)
        return refuse(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET\n");
    if (string_view(url) != "/metrics")
        return refuse(connection, MHD_HTTP_NOT_FOUND, "only /metrics\n");
    try {
        auto* const server = static_cast<MetricsServer*>(context);
        auto scrape = std::make_unique<Scrape>(Scrape{server, connection, server->begin(), {}});
        MHD_Response* const response = MHD_create_response_from_callback(
            MHD_SIZE_UNKNOWN, pieceOctets, readPiece, scrape.get(), freeScrape);
        if (!response) return MHD_NO;
        [[maybe_unused]] Scrape* const freedLater = scrape.release();
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, contentType);
        return respond(connection, MHD_HTTP_OK, response);
    } catch (std::exception const&) {
        return MHD_NO;
    }
}

FileDescriptor listeningSocket(SocketAddress const& at) {
    FileDescriptor socket(checked(
        ::socket(at.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket"));
    int const on = 1;
    checked(setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), "setsockopt");
    checked(bind(socket.get(), reinterpret_cast<sockaddr const*>(&at.address), at.size), "bind");
    checked(listen(socket.get(), mostConnections), "listen");
    return socket;
}

} // namespace

void MetricsServer::End::operator()(MHD_Daemon* daemon) const { MHD_stop_daemon(daemon); }

MetricsServer::MetricsServer(EventLoop& loop, std::string const& address, Begin begin)
    : loop_(loop), begin_(std::move(begin)), patience_(loop, [this] { doServe(); }) {
    auto const at = parseSocketAddress(address);
    if (!at) throw std::system_error(EINVAL, std::generic_category(), address);
    FileDescriptor socket = listeningSocket(*at);
    daemon_.reset(MHD_start_daemon(MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr,
                                   handleRequest, this, MHD_OPTION_LISTEN_SOCKET, socket.get(),
                                   MHD_OPTION_CONNECTION_LIMIT, mostConnections,
                                   MHD_OPTION_CONNECTION_TIMEOUT, idleSeconds, MHD_OPTION_END));
    if (!daemon_) throw std::system_error(ENOMEM, std::generic_category(), "microhttpd");
    socket.release(); // closed by the daemon
    fd_ = MHD_get_daemon_info(daemon_.get(), MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
    loop_.watch(fd_, EPOLLIN, [this](std::uint32_t) { doServe(); });
}

MetricsServer::~MetricsServer() {
    loop_.unwatch(fd_);
    doResume(); // or the daemon could not be stopped
}

void MetricsServer::doPutOff(MHD_Connection* connection) {
    putOff_.push_back(connection);
    MHD_suspend_connection(connection);
}

void MetricsServer::doResume() {
    for (MHD_Connection* const connection : std::exchange(putOff_, {}))
        MHD_resume_connection(connection);
}

void MetricsServer::doServe() {
    doResume();
    MHD_run(daemon_.get());
    MHD_UNSIGNED_LONG_LONG milliseconds = 0;
    if (!putOff_.empty())
        patience_.arm(0);
    else if (MHD_get_timeout(daemon_.get(), &milliseconds) == MHD_YES)
        patience_.arm(double(milliseconds) / 1000);
    else
        patience_.disarm();
}

} // namespace Agent
