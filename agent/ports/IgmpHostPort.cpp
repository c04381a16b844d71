#include "agent/ports/IgmpHostPort.h"

#include "agent/loop/Json.h"
#include "agent/loop/Log.h"
#include "agent/records/StatusJson.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <system_error>

namespace Agent {

namespace {

/// How soon a packet that the interface's queue had no room for is offered again, in seconds.
constexpr double resendSeconds = 0.005;
/// How soon opening a socket is tried again, in seconds.
constexpr double openRetrySeconds = 1;
/// How soon what failed otherwise, most likely for want of memory, is tried again, in seconds.
constexpr double failureRetrySeconds = 1;
/// When leaving is given up, in seconds: a little after the engine has told everything, if the
/// interface takes the packets.
constexpr double leaveSeconds = 0.95;
/// How soon leaving is tried again then, in seconds.
constexpr double leaveRetrySeconds = 3;
/// How long groups that were announced before wait for the forwarding table to ask for them again,
/// in seconds: about as long as routers keep them (RFC 9776, 8.4).
constexpr double settlingSeconds = 260;
/// Between two times that everything is told because something was dropped: some packets may never
/// be taken.
constexpr double retellSeconds = 60;
/// After so many changed groups in one turn those that join are told: about what a packet holds.
constexpr std::size_t mostUntold = 180;
/// Between two lines of the log about groups that came or went.
constexpr double newsSeconds = 1;
/// Of such groups, in one line.
constexpr std::size_t mostNames = 4;

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

bool hasAddress(IgmpHostPort::Location const& location) {
    KernelInterface const* const kernel = location.device.kernel;
    return kernel && kernel->up && !kernel->primaryAddress().isZero();
}

/// What tells a namespace from others while a socket of it is open.
std::pair<dev_t, ino_t> identityOf(int namespaceFd) {
    struct stat status {};
    if (namespaceFd < 0 || fstat(namespaceFd, &status) < 0) return {};
    return {status.st_dev, status.st_ino};
}

} // namespace

IgmpHostPort::IgmpHostPort(EventLoop& loop, PortSchedule& schedule, GroupChanges& changes,
                           std::string name, std::string namespaceName, Locate locate, Cause cause)
    : loop_(loop),
      changes_(changes),
      place_(schedule, *this),
      name_(std::move(name)),
      namespaceName_(std::move(namespaceName)),
      locate_(std::move(locate)),
      cause_(std::move(cause)),
      engine_(*this, seededRandom()) {}

IgmpHostPort::~IgmpHostPort() {
    nexDoZombieReactors(true);
    doCloseSocket();
}

bool IgmpHostPort::fits(std::string const& namespaceName) const {
    // Leaves are owed to one network.
    if (!socket_) return namespaceName == namespaceName_ || !engine_.hasFormer();
    Location const there = locate_(name_, namespaceName);
    return there.device.ifindex == openIfindex_ && identityOf(there.namespaceFd) == openNamespace_;
}

void IgmpHostPort::attach(Nex::Ptr<Igmp::IgmpHost> host, std::string const& namespaceName) {
    namespaceName_ = namespaceName;
    doKeepUntold();
    leaveDeadline_ = Nex::never;
    // What the entity before it asked for and this one does not is left.
    v3groupDelAll();
    for (Lox::IpAddr const group : changedGroups_.walk()) changedGroups_.take(group);
    doNoteAll();
    engine_.removeAllGroups();
    handleLocation();
    Nex::watch(host_, host, this);
    for (auto const& item : host->v3group()) handleGroup(item.key);
}

void IgmpHostPort::addFormer(RecordList const& groups) {
    engine_.addFormer(groups);
    place_.stir();
}

void IgmpHostPort::detach(double now) {
    place_.stir();
    doNoteAll();
    // First what may fail: as long as there is a host, it is tried again.
    Location const here = location();
    host_.del();
    v3groupDelAll();
    status_ = nullptr;
    // An interface that lost its address has none to speak from.
    if (here.followed && (here.device.ifindex != openIfindex_ || !hasAddress(here))) doClose(now);
    doLeave(now);
}

void IgmpHostPort::doLeave(double now) {
    try {
        leaving_ = {};
        HostEngine::HeldPlace place;
        while (socket_ && engine_.addHeldRecords(leaving_, place, 1000)) {
        }
        leavingDrops_ = socket_ ? socket_->dropped() : 0;
        if (engine_.memberCount() > 0)
            logAbout(name_, LogLevel::debug, "leaves all {} groups", engine_.memberCount());
        engine_.leaveAll(now);
    } catch (...) { // tried again as if the link had been away
        doClose(now);
        retryTime_ = now + openRetrySeconds;
        throw;
    }
    if (socket_) leaveDeadline_ = now + leaveSeconds;
    doFlushSocket(now);
}

bool IgmpHostPort::finished(double now, bool ending) {
    if (host()) return false;
    if (!socket_) return ending || forgotten_ || !engine_.hasFormer();
    bool const told = engine_.hasLeft() && socket_->queued() == 0;
    if (!told && now < leaveDeadline_) return false;
    if (std::uint64_t const lost = untold(); lost > 0 && leaveWarnings_.admitted(now))
        logAbout(name_, LogLevel::warning, "gave up on {} packets while leaving", lost);
    doClose(now);
    if (engine_.hasFormer()) retryTime_ = now + leaveRetrySeconds;
    place_.rest(nextExpiry());
    return ending || !engine_.hasFormer();
}

/// Packets that the interface has not taken since leaving began.
std::uint64_t IgmpHostPort::untold() const {
    return leaving_.size() == 0 ? 0 : socket_->queued() + socket_->dropped() - leavingDrops_;
}

/// Nobody knows which groups those packets name: all are owed their leaves again.
void IgmpHostPort::doKeepUntold() {
    if (untold() > 0) engine_.addFormer(leaving_);
    leaving_ = {};
}

void IgmpHostPort::handleGroup(Lox::IpAddr group) {
    if (Igmp::IgmpV3GroupRecord* const record = host()->v3group(group))
        v3groupIs(record);
    else
        v3groupDel(group);
    doMarkChanged(group);
}

void IgmpHostPort::doMarkChanged(Lox::IpAddr group) {
    bool const fresh = changedGroups_.findOrInsert(group).second;
    place_.stir();
    if (fresh && changedGroups_.size() == mostUntold) doTellFirst(group);
}

void IgmpHostPort::handleLocation() {
    settingsChanged_ = true;
    place_.stir();
}

void IgmpHostPort::handleTurn(double now) {
    place_.attempt(now + failureRetrySeconds);
    if (!changedGroups_.empty()) doApplyGroups();
    if (settingsChanged_) {
        doApplySettings(now);
        settingsChanged_ = false;
    }
    if (!congested()) engine_.flush(now);
    doLogGroups(now);
    if (endsFormer()) doEndFormer(now);
    doFlushSocket(now);
    doPublishCounters();
    place_.rest(nextExpiry());
    // Nobody tells when all that is asked for is known.
    if (endsFormer()) place_.stir();
}

double IgmpHostPort::nextExpiry() const {
    double const engine = congested() ? Nex::never : engine_.nextExpiry();
    double const settling = endsFormer() ? openTime_ + settlingSeconds : Nex::never;
    double const news = joined_.count + left_.count > 0 ? newsTime_ + newsSeconds : Nex::never;
    double const retell = congested() ? Nex::never : retellTime_;
    return std::min({engine, settling, retryTime_, leaveDeadline_, news, retell});
}

void IgmpHostPort::advance(double now) {
    place_.attempt(now + failureRetrySeconds);
    if (!socket_ && retryTime_ <= now) {
        retryTime_ = Nex::never;
        doApplySettings(now);
    }
    if (!congested()) engine_.advance(now);
    doRetell(now);
    doLogGroups(now);
    doFlushSocket(now);
    doPublishCounters();
}

nlohmann::json IgmpHostPort::statusJson() const {
    SocketCounters const socket = socketCounters();
    nlohmann::json json = toJson(engine_.counters().since(earlier_));
    json["version"] = engine_.version();
    json["sendDropped"] = socket.sendDropped - earlierSocket_.sendDropped;
    json["receivedTooLong"] = socket.tooLong - earlierSocket_.tooLong;
    json["receivedMissed"] = socket.missed - earlierSocket_.missed;
    return json;
}

void IgmpHostPort::doResetCounters() {
    earlier_ = engine_.counters();
    earlierSocket_ = socketCounters();
}

SocketCounters IgmpHostPort::socketCounters() const {
    if (!socket_) return {};
    return {socket_->dropped(), socket_->truncated(), socket_->missed(), socket_->queued()};
}

// Settings and link

void IgmpHostPort::doApplySettings(double now) {
    Location const here = location();
    KernelInterface const* const kernel = here.device.kernel;
    bool const up = kernel && kernel->up;
    bool const lost = !up || here.device.ifindex != openIfindex_;
    if (socket_ && here.followed && (lost || (!host() && !hasAddress(here)))) doClose(now);
    bool const unwanted = !here.configuration && here.settled;
    // A device that went away with the operator's wish for it takes its network along.
    forgotten_ = here.followed && !kernel && unwanted;
    seeking_ = !here.followed && unwanted && !socket_ && engine_.hasFormer();
    if (!up) return;
    if (!host()) return doApplyAbsence(here, now);
    doGiveSettings(here, now);
    if (!socket_) doOpen(here, now);
}

/// All that the engine is to know: what the entity has of the configuration, what the engine alone
/// needs of it, and what the kernel says. Without an entity, its part stays as it was.
void IgmpHostPort::doGiveSettings(Location const& here, double now) {
    KernelInterface const& kernel = *here.device.kernel;
    settings_.address = kernel.primaryAddress();
    if (host()) {
        settings_.version = unsigned(host()->igmpVersion());
        settings_.unsolicitedReportInterval = host()->unsolicitedReportInterval();
        settings_.address = host()->ipAddr();
    }
    if (InterfaceConfiguration const* const wanted = here.configuration) {
        settings_.robustness = wanted->robustness;
        settings_.requireRouterAlert = wanted->requireRouterAlert;
        settings_.ssmOnly = wanted->ssmOnly;
        settings_.packetsPer100ms = wanted->packetsPer100ms;
    }
    settings_.prefixLength = prefixLengthOf(kernel, settings_.address);
    settings_.mtu = kernel.mtu;
    settings_.localAddresses.clear();
    for (KernelAddress const& address : kernel.addresses)
        settings_.localAddresses.push_back(address.local);
    engine_.setSettings(now, settings_);
}

/// Leaves what could not be left before. An interface that is configured waits for its entity,
/// which may want the groups.
void IgmpHostPort::doApplyAbsence(Location const& here, double now) {
    if (socket_ || here.configuration || !here.settled || !hasAddress(here)) return;
    if (!engine_.hasFormer()) return;
    doGiveSettings(here, now);
    doOpen(here, now);
    if (socket_) doLeave(now);
}

/// A machine that has just been made, or an agent that has just been started, takes some time to
/// know what the forwarding table asks for; but it may never be read.
void IgmpHostPort::doEndFormer(double now) {
    if (!location().settled && now < openTime_ + settlingSeconds) return;
    engine_.formerEnd(now);
    doFlushSocket(now);
}

void IgmpHostPort::doOpen(Location const& here, double now) {
    try {
        socket_ = std::make_unique<PacketSocket>(here.device.ifindex, here.namespaceFd);
        openIfindex_ = here.device.ifindex;
        openNamespace_ = identityOf(here.namespaceFd);
        openTime_ = now;
        awaited_ = 0;
        loggedDrops_ = retoldDrops_ = 0;
        doFlushSocket(now); // also has the loop watch it
        engine_.linkUp(now);
        logAbout(name_, LogLevel::debug, "can be spoken on, for {} groups so far",
                 engine_.memberCount());
    } catch (std::exception const& error) {
        // A socket that nobody reads, or an engine that told a part, would stay so.
        doCloseSocket();
        retryTime_ = now + openRetrySeconds;
        if (auto const heldBack = openErrors_.admitted(now))
            logAbout(name_, LogLevel::error, "{} ({} more like this)", error.what(), *heldBack);
    }
}

void IgmpHostPort::doClose(double now) {
    engine_.linkDown(now);
    doKeepUntold();
    doCloseSocket();
    retryTime_ = leaveDeadline_ = retellTime_ = Nex::never;
}

void IgmpHostPort::doCloseSocket() {
    if (socket_) loop_.descriptorClose(socket_->descriptorTake());
    socket_ = nullptr;
    earlierSocket_ = {};
    openIfindex_ = 0;
}

// Groups

void IgmpHostPort::doApplyGroups() {
    for (Lox::IpAddr const group : changedGroups_.walk()) {
        doApplyGroup(group);
        changedGroups_.take(group);
    }
}

/// A large change takes a while: what joins by it first need not wait for all of it. What else has
/// changed may yet be as it was, and the last group is still being made. Without memory all wait.
void IgmpHostPort::doTellFirst(Lox::IpAddr last) {
    if (!socket_ || settingsChanged_ || congested()) return;
    try {
        double const now = EventLoop::now();
        for (Lox::IpAddr const group : changedGroups_.walk())
            if (group != last && !engine_.isMember(group)) doApplyGroup(group);
        engine_.flush(now);
        doFlushSocket(now);
    } catch (std::bad_alloc const&) { // all is applied again at the end of the turn
    }
}

/// Every group is about to go, though it may be back in the same turn.
void IgmpHostPort::doNoteAll() {
    if (changes_.begun())
        engine_.forMembers([this](Lox::IpAddr group) { changes_.note(name_, group, engine_); });
}

void IgmpHostPort::doApplyGroup(Lox::IpAddr group) {
    changes_.note(name_, group, engine_);
    Igmp::IgmpV3GroupRecord const* const record = host() ? host()->v3group(group) : nullptr;
    bool const member = engine_.isMember(group);
    if (!record) {
        if (member) doNoteNews(group, false);
        return engine_.removeGroup(group);
    }
    sources_.clear();
    if (record->source())
        for (auto const& item : record->source()->sourceIp())
            if (item.value != 0) sources_.push_back(item.key);
    bool const include = record->filterMode() == Lox::IgmpV3GroupRecordType::modeIsInclude;
    bool const wanted = !include || !sources_.empty();
    if (wanted != member) doNoteNews(group, wanted);
    engine_.setGroup(group, include ? FilterMode::include : FilterMode::exclude, sources_);
}

/// Finds out the cause of those that are named only: there may be ten thousand others.
void IgmpHostPort::doNoteNews(Lox::IpAddr group, bool joined) {
    GroupNews& news = joined ? joined_ : left_;
    if (++news.count > mostNames) return;
    std::string cause = cause_(name_, group, joined);
    if (!news.names.empty())
        news.names += cause == news.cause ? " " : fmt::format(" ({}), ", news.cause);
    news.names += group.stringValue();
    news.cause = std::move(cause);
}

/// Some of them by name, and how many more there are. Many changes share a line.
void IgmpHostPort::doLogGroups(double now) {
    if (now < newsTime_ + newsSeconds || joined_.count + left_.count == 0) return;
    newsTime_ = now;
    std::string text;
    for (auto const& [what, news] : {std::pair("joined", &joined_), std::pair("left", &left_)}) {
        if (news->count == 0) continue;
        text +=
            fmt::format("{}{} {} ({})", text.empty() ? "" : "; ", what, news->names, news->cause);
        if (news->count > mostNames) text += fmt::format(" and {} more", news->count - mostNames);
        *news = {};
    }
    logAbout(name_, LogLevel::debug, "{}", text);
}

// Packets

void IgmpHostPort::handleSocket(std::uint32_t events) {
    place_.stir();
    double const now = EventLoop::now();
    if (events & ~std::uint32_t(EPOLLOUT))
        socket_->receive([&](PacketSocket::Bytes packet) { engine_.received(now, packet); });
    doFlushSocket(now);
    doPublishCounters();
}

void IgmpHostPort::send(std::span<std::uint8_t const> ipPacket) {
    if (!socket_) return;
    if (socket_->queued() == PacketSocket::longestQueue) socket_->flush(EventLoop::now());
    socket_->enqueue(ipPacket);
}

void IgmpHostPort::warn(std::string const& text) { logAbout(name_, LogLevel::warning, "{}", text); }

void IgmpHostPort::note(std::string_view text) {
    // Two queriers that differ would take turns without end.
    if (auto const heldBack = notes_.admitted(EventLoop::now()))
        logAbout(name_, LogLevel::info, "{}", text);
}

void IgmpHostPort::noteRoutine(std::string_view text) {
    if (auto const heldBack = routineNotes_.admitted(EventLoop::now()))
        logAbout(name_, LogLevel::debug, "{}", text);
}

void IgmpHostPort::doFlushSocket(double now) {
    if (!socket_) return;
    int const error = socket_->flush(now);
    retryTime_ = error == ENOBUFS ? now + resendSeconds : Nex::never;
    std::uint32_t const events = error == EAGAIN ? EPOLLIN | EPOLLOUT : EPOLLIN;
    if (events != awaited_)
        loop_.watch(socket_->fd(), events, [this](std::uint32_t e) { handleSocket(e); });
    awaited_ = events;
    if (host() && std::exchange(retoldDrops_, socket_->dropped()) != socket_->dropped())
        retellTime_ = std::max(now + 1, retellFrom_);
    doLogDrops(now);
}

/// Until the next query routers would not know of what was dropped.
void IgmpHostPort::doRetell(double now) {
    if (now < retellTime_ || congested()) return;
    retellTime_ = Nex::never;
    retellFrom_ = now + retellSeconds;
    engine_.announceAgain(now);
}

void IgmpHostPort::doLogDrops(double now) {
    std::uint64_t const fresh = socket_->dropped() - loggedDrops_;
    if (fresh == 0 || !sendWarnings_.admitted(now)) return;
    loggedDrops_ += fresh;
    logAbout(name_, LogLevel::warning, "{} packets were not sent, the last one because of: {}",
             fresh, std::strerror(socket_->dropError()));
}

void IgmpHostPort::doPublishCounters() {
    if (!status_) return;
    HostCounters const& counters = engine_.counters();
    status_->igmpVersionIs(Igmp::IgmpVersion(engine_.version()));
#define AGENT_PUBLISH(TYPE, NAME, UPPER) status_->NAME##Is(counters.NAME);
    IGMP_PACKET_COUNTERS(AGENT_PUBLISH, AGENT_PUBLISH)
#undef AGENT_PUBLISH
}

} // namespace Agent
