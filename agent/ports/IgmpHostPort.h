// The IGMP host on one interface: a host entity's settings and group records on one side, a packet
// socket on the other, the engine between them. Changes are gathered and given to the engine at the
// end of the turn, so that what ends a turn as it began is not told to anybody; but of many changes
// the first groups that join are told at once.
//
// It outlives the entity: without one it leaves its groups, at once or once the link and an address
// are back, and may be given an entity again at any time.
//
// Timers: the engine's, one to try again to open the socket, to leave, or to send into a full
// queue, one that ends the wait for the forwarding table, one that ends an attempt to leave, one to
// tell everything once more, and one for what is written to the log of groups that came and went.
#pragma once

#include "Igmp/IgmpHost.h"
#include "Nex/Machine.h"
#include "agent/config/Configuration.h"
#include "agent/igmp/HostEngine.h"
#include "agent/kernel/PacketSocket.h"
#include "agent/loop/EventLoop.h"
#include "agent/ports/GroupChanges.h"
#include "agent/ports/PortSchedule.h"
#include "agent/records/InterfaceWriter.h"

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace Agent {

/// Of packets, by the socket that an interface has at the moment.
struct SocketCounters {
    std::uint64_t sendDropped = 0; ///< not taken by the interface
    std::uint64_t tooLong = 0;     ///< received, and not looked at
    std::uint64_t missed = 0;      ///< received when there was no room
    std::uint64_t queued = 0;      ///< to be sent, now
};

class IgmpHostPort : public Nex::PtrInterface, private HostEngine::Output {
  public:
    static constexpr char nexTypeName[] = "Agent::IgmpHostPort";
    /// Where the interface is, and what the operator wants of it there, null for nothing.
    struct Location : Whereabouts {
        InterfaceConfiguration const* configuration = nullptr;
        /// What the forwarding table asks for is known, too, as far as it was there at the start.
        bool settled = false;
    };
    /// Told the names of the interface and of its namespace, empty for the agent's own.
    using Locate = std::function<Location(std::string const& name, std::string const& space)>;

    /// Tells shortly, for the log, on whose behalf a group of an interface has come or gone just
    /// now.
    using Cause =
        std::function<std::string(std::string const& name, Lox::IpAddr group, bool joined)>;

    /// Without an entity. `loop`, `schedule`, and `changes`, which is told of groups, outlive this.
    IgmpHostPort(EventLoop& loop, PortSchedule& schedule, GroupChanges& changes, std::string name,
                 std::string namespaceName, Locate locate, Cause cause);
    ~IgmpHostPort() override;

    std::string const& name() const { return name_; }
    std::string const& namespaceName() const { return namespaceName_; }
    /// Whether an entity of the interface in that namespace may use this port: it speaks to the
    /// same network, or to none.
    bool fits(std::string const& namespaceName) const;
    /// Announces what the entity asks for, in that namespace, in place of whatever was announced
    /// before.
    void attach(Nex::Ptr<Igmp::IgmpHost> host, std::string const& namespaceName);
    /// The counters go here from now on.
    void setStatus(Nex::Ptr<Igmp::IgmpHostStatus> status) { status_ = std::move(status); }
    /// The entity is gone: leaves every group, if the interface can still be heard.
    void detach(double now);
    /// Whether there is no entity and nothing that could still be left. `ending`: nor will be.
    bool finished(double now, bool ending);
    /// Whether it is finished all the same, and a later run may leave what this one could not.
    bool owes() const { return engine_.hasFormer() && !forgotten_; }
    /// Whether it owes leaves in a namespace that nobody follows.
    bool seeks() const { return seeking_; }

    /// What routers may hold from an earlier run that ended without leaving.
    void addFormer(RecordList const& groups);
    bool addHeldRecords(RecordList& groups, HostEngine::HeldPlace& place, std::size_t most) const {
        return engine_.addHeldRecords(groups, place, most);
    }
    bool takeHeldChange() { return engine_.takeHeldChange(); }
    HostEngine const& engine() const { return engine_; }

    /// The kernel interface or its part of the configuration changed: the socket and the engine's
    /// settings follow at the end of the turn.
    void handleLocation();
    /// The end of a turn of the event loop in which this was stirred. What fails is tried again at
    /// the end of the next turn.
    void handleTurn(double now);
    /// A time of this has come.
    void advance(double now);
    /// What the engine and the socket have counted since doResetCounters().
    nlohmann::json statusJson() const;
    void doResetCounters();
    /// Since the socket was opened.
    SocketCounters socketCounters() const;

  private:
    class NexIgmpHost : public Nex::Reactor<Igmp::IgmpHost::Notifiee, IgmpHostPort> {
      public:
        using Reactor::Reactor;
        void onDeviceName() override { machine()->handleLocation(); }
        void onIpAddr() override { machine()->handleLocation(); }
        void onIgmpVersion() override { machine()->handleLocation(); }
        void onUnsolicitedReportInterval() override { machine()->handleLocation(); }
        void onV3group(Lox::IpAddr group) override { machine()->handleGroup(group); }
    };
    /// One group record: whoever changes it raises its version afterwards.
    class NexV3group : public Nex::Reactor<Igmp::IgmpV3GroupRecord::Notifiee, IgmpHostPort> {
      public:
        using Reactor::Reactor;
        void onVersion() override { machine()->doMarkChanged(notifier()->group()); }
    };

    void handleGroup(Lox::IpAddr group);
    void doMarkChanged(Lox::IpAddr group);
    double nextExpiry() const;
    Location location() const { return locate_(name_, namespaceName_); }
    void doApplySettings(double now);
    void doGiveSettings(Location const& here, double now);
    void doApplyAbsence(Location const& here, double now);
    bool endsFormer() const { return engine_.hasFormer() && host() && socket_; }
    void doEndFormer(double now);
    void doLeave(double now);
    void doNoteAll();
    void doApplyGroups();
    void doApplyGroup(Lox::IpAddr group);
    void doTellFirst(Lox::IpAddr last);
    void doNoteNews(Lox::IpAddr group, bool joined);
    void doLogGroups(double now);
    void doOpen(Location const& here, double now);
    void doClose(double now);
    void doCloseSocket();
    void doFlushSocket(double now);
    std::uint64_t untold() const;
    void doKeepUntold();
    /// Whether leaving waits for the interface to take packets.
    bool congested() const { return socket_ && !engine_.hasLeft() && socket_->queued() > 0; }
    void doLogDrops(double now);
    void doRetell(double now);
    void handleSocket(std::uint32_t events);
    void doPublishCounters();

    // HostEngine::Output
    void send(std::span<std::uint8_t const> ipPacket) override;
    void warn(std::string const& text) override;
    void note(std::string_view text) override;
    void noteRoutine(std::string_view text) override;

    EventLoop& loop_;
    GroupChanges& changes_;
    PortSchedule::Place place_;
    std::string name_;
    std::string namespaceName_;
    Locate locate_;
    Cause cause_;
    Nex::Ptr<Igmp::IgmpHostStatus> status_;
    HostEngine engine_;
    HostEngine::Settings settings_; ///< as the last entity had them
    HostCounters earlier_;          ///< what operators do not want to see any longer
    SocketCounters earlierSocket_;
    std::unique_ptr<PacketSocket> socket_;
    int openIfindex_ = 0;
    double openTime_ = 0;
    std::pair<dev_t, ino_t> openNamespace_; ///< zero for the agent's own
    std::uint32_t awaited_ = 0;             ///< events that the loop watches the socket for
    /// When to try again what failed: to open the socket, or to send into a full queue.
    double retryTime_ = Nex::never;
    double leaveDeadline_ = Nex::never; ///< when to give up leaving
    RecordList leaving_;                ///< what routers held as leaving began
    std::uint64_t leavingDrops_ = 0;    ///< of the socket by then
    std::uint64_t loggedDrops_ = 0;     ///< of those of the socket
    std::uint64_t retoldDrops_ = 0;     ///< the same
    double retellTime_ = Nex::never;    ///< when to tell everything, of which a part was dropped
    double retellFrom_ = -Nex::never;   ///< not before
    LogLimit sendWarnings_;
    LogLimit notes_{1};
    LogLimit routineNotes_{1};
    LogLimit openErrors_;
    LogLimit leaveWarnings_;
    bool settingsChanged_ = true;
    bool forgotten_ = false; ///< nobody will ever hear what is owed
    bool seeking_ = false;
    Nex::Set<Lox::IpAddr> changedGroups_;
    /// Groups that came or went and were not written to the log yet.
    struct GroupNews {
        std::size_t count = 0;
        std::string names; ///< the first of them; a cause stands behind those that have it
        std::string cause; ///< of the last one of these
    };
    GroupNews joined_;
    GroupNews left_;
    double newsTime_ = -Nex::never;    ///< when the log last told of groups
    std::vector<Lox::IpAddr> sources_; ///< scratch
    NEX_WATCHED(Igmp::IgmpHost, host, NexIgmpHost)
    NEX_REACTORS(Lox::IpAddr, NexV3group, v3group, Igmp::IgmpV3GroupRecord, group)
};

} // namespace Agent
