#include "agent/IgmpHostPort.h"

#include "agent/Log.h"
#include "agent/StatusJson.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <poll.h>
#include <sys/epoll.h>
#include <system_error>

namespace Agent {

namespace {

/// How soon a packet that the interface's queue had no room for is offered again, in seconds.
constexpr double retrySeconds = 0.005;
/// How soon opening a socket is tried again, in seconds.
constexpr double openRetrySeconds = 1;
/// How long leaving waits for the interface to take the packets, in seconds.
constexpr double leaveSeconds = 1;

std::mt19937 seededRandom() {
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device()};
    return std::mt19937(seed);
}

std::uint8_t prefixLengthOf(KernelInterface const& kernel, Lox::IpAddr address) {
    for (KernelAddress const& candidate : kernel.addresses)
        if (candidate.local == address) return candidate.prefixLength;
    return 0;
}

} // namespace

IgmpHostPort::IgmpHostPort(EventLoop& loop, Nex::Ptr<Igmp::IgmpHost> host, Locate locate)
    : loop_(loop), locate_(std::move(locate)), engine_(*this, seededRandom()) {
    Nex::watch(host_, host, this);
    for (auto const& item : host->v3group()) handleGroup(item.key);
}

IgmpHostPort::~IgmpHostPort() {
    nexDoZombieReactors(true);
    if (socket_) loop_.descriptorDel(socket_->fd());
}

void IgmpHostPort::handleGroup(Lox::IpAddr group) {
    if (Igmp::IgmpV3GroupRecord* const record = host()->v3group(group)) {
        v3groupIs(record);
    } else {
        v3groupDel(group);
    }
    doMarkChanged(group);
}

void IgmpHostPort::handleLocation() { settingsChanged_ = true; }

void IgmpHostPort::handleTurn(double now) {
    if (settingsChanged_) doApplySettings(now);
    if (!changedGroups_.empty()) doApplyGroups();
    engine_.flush(now);
    doFlushSocket(now);
    doPublishCounters();
}

double IgmpHostPort::nextExpiry() const { return std::min(engine_.nextExpiry(), retryTime_); }

void IgmpHostPort::timeIs(double now) {
    if (!socket_ && retryTime_ <= now) {
        retryTime_ = Nex::never;
        doApplySettings(now);
    }
    engine_.timeIs(now);
    doFlushSocket(now);
    doPublishCounters();
}

void IgmpHostPort::doLeave(double now, bool repeated) {
    // An interface that lost its address has none to speak from.
    Location const location = locate_(*host());
    bool const usable = socket_ && location.device.kernel && location.device.kernel->up &&
                        location.device.ifindex == openIfindex_ &&
                        !location.device.kernel->primaryAddress().isZero();
    if (!usable) return doClose(now);
    leaveDeadline_ = now + leaveSeconds;
    engine_.leaveAll(now, repeated);
    doDrainSocket();
    if (std::uint64_t const lost = socket_->queued() + socket_->dropped() - loggedDrops_)
        log(LogLevel::warning, "{}: gave up on {} packets while leaving", host()->deviceName(),
            lost);
    doPublishCounters();
    doClose(now);
}

nlohmann::json IgmpHostPort::statusJson() const {
    nlohmann::json json = toJson(engine_.counters());
    json["version"] = engine_.version();
    json["sendDropped"] = socket_ ? socket_->dropped() : 0;
    json["receivedTooLong"] = socket_ ? socket_->truncated() : 0;
    return json;
}

// Settings and link

void IgmpHostPort::doApplySettings(double now) {
    settingsChanged_ = false;
    Location const location = locate_(*host());
    KernelInterface const* const kernel = location.device.kernel;
    bool const up = kernel && kernel->up;
    if (socket_ && (!up || location.device.ifindex != openIfindex_)) doClose(now);
    if (!up) return;
    HostEngine::Settings settings;
    settings.version = unsigned(host()->igmpVersion());
    settings.unsolicitedReportIntervalSeconds = host()->unsolicitedReportInterval();
    settings.address = host()->ipAddr();
    for (KernelAddress const& address : kernel->addresses)
        settings.localAddresses.push_back(address.local);
    settings.prefixLength = prefixLengthOf(*kernel, settings.address);
    settings.mtu = kernel->mtu;
    if (InterfaceConfiguration const* const wanted = location.configuration) {
        settings.robustness = wanted->robustness;
        settings.requireRouterAlert = wanted->requireRouterAlert;
        settings.ssmOnly = wanted->ssmOnly;
        settings.packetsPer100ms = wanted->packetsPer100ms;
    }
    engine_.settingsIs(now, settings);
    if (!socket_) doOpen(location, now);
}

void IgmpHostPort::doOpen(Location const& location, double now) {
    try {
        socket_ = std::make_unique<PacketSocket>(location.device.ifindex, location.namespaceFd);
    } catch (std::system_error const& error) {
        if (auto const heldBack = openErrors_.admitted(now))
            log(LogLevel::error, "{}: {} ({} more like this)", host()->deviceName(), error.what(),
                *heldBack);
        retryTime_ = now + openRetrySeconds;
        return;
    }
    openIfindex_ = location.device.ifindex;
    awaited_ = 0;
    loggedDrops_ = 0;
    doFlushSocket(now); // also has the loop watch it
    engine_.linkUp(now);
}

void IgmpHostPort::doClose(double now) {
    engine_.linkDown(now);
    if (socket_) loop_.descriptorDel(socket_->fd());
    socket_ = nullptr;
    openIfindex_ = 0;
    retryTime_ = Nex::never;
}

// Groups

void IgmpHostPort::doApplyGroups() {
    for (Lox::IpAddr const group : changedGroups_.walk()) {
        changedGroups_.take(group);
        doApplyGroup(group);
    }
}

void IgmpHostPort::doApplyGroup(Lox::IpAddr group) {
    Igmp::IgmpV3GroupRecord const* const record = host()->v3group(group);
    if (!record) return engine_.groupDel(group);
    sources_.clear();
    if (record->source())
        for (auto const& item : record->source()->sourceIp())
            if (item.value != 0) sources_.push_back(item.key);
    bool const include = record->filterMode() == Lox::IgmpV3GroupRecordType::modeIsInclude;
    engine_.groupIs(group, include ? FilterMode::include : FilterMode::exclude, sources_);
}

// Packets

void IgmpHostPort::handleSocket(std::uint32_t events) {
    double const now = EventLoop::now();
    if (events & ~std::uint32_t(EPOLLOUT))
        socket_->receive([&](PacketSocket::Bytes packet) { engine_.received(now, packet); });
    doFlushSocket(now);
    doPublishCounters();
}

void IgmpHostPort::send(std::span<std::uint8_t const> ipPacket) {
    if (!socket_) return;
    if (socket_->queued() == PacketSocket::longestQueue) doDrainSocket();
    socket_->packetIs(ipPacket);
}

void IgmpHostPort::warn(std::string const& text) {
    log(LogLevel::warning, "{}: {}", host()->deviceName(), text);
}

void IgmpHostPort::doFlushSocket(double now) {
    if (!socket_) return;
    int const error = socket_->flush(now);
    retryTime_ = error == ENOBUFS ? now + retrySeconds : Nex::never;
    std::uint32_t const events = error == EAGAIN ? EPOLLIN | EPOLLOUT : EPOLLIN;
    if (events != std::exchange(awaited_, events))
        loop_.descriptorIs(socket_->fd(), events, [this](std::uint32_t e) { handleSocket(e); });
    doLogDrops(now);
}

/// Sends what is queued; while leaving, also waits for the interface to take it.
void IgmpHostPort::doDrainSocket() {
    for (;;) {
        double const now = EventLoop::now();
        int const error = socket_->flush(now);
        double const left = leaveDeadline_ - now;
        if (error == 0 || left <= 0) return;
        // While the interface's queue is full, the socket is writable.
        pollfd writable{socket_->fd(), POLLOUT, 0};
        double const wait = error == ENOBUFS ? retrySeconds : left;
        poll(&writable, error == ENOBUFS ? 0 : 1, int(std::ceil(wait * 1000)));
    }
}

void IgmpHostPort::doLogDrops(double now) {
    std::uint64_t const fresh = socket_->dropped() - loggedDrops_;
    if (fresh == 0 || !sendWarnings_.admitted(now)) return;
    loggedDrops_ += fresh;
    log(LogLevel::warning, "{}: {} packets were not sent, the last one because of: {}",
        host()->deviceName(), fresh, std::strerror(socket_->dropError()));
}

void IgmpHostPort::doPublishCounters() {
    if (!status_) return;
    HostCounters const& counters = engine_.counters();
    status_->igmpVersionIs(Igmp::IgmpVersion(engine_.version()));
#define AGENT_PUBLISH(NAME) status_->NAME##Is(counters.NAME);
    AGENT_PUBLISH(v1QueryReceived)
    AGENT_PUBLISH(v1ReportsSent)
    AGENT_PUBLISH(v12ReportReceived)
    AGENT_PUBLISH(v2GeneralQueryReceived)
    AGENT_PUBLISH(v2GroupQueryReceived)
    AGENT_PUBLISH(v2ReportsSent)
    AGENT_PUBLISH(v2LeavesSent)
    AGENT_PUBLISH(v3GeneralQueryReceived)
    AGENT_PUBLISH(v3GroupQueryReceived)
    AGENT_PUBLISH(v3GroupSourceQueryReceived)
    AGENT_PUBLISH(v3ReportReceived)
    AGENT_PUBLISH(v3CurrentStateReportSent)
    AGENT_PUBLISH(v3StateChangeReportSent)
#undef AGENT_PUBLISH
}

} // namespace Agent
