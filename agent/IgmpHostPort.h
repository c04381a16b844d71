// The IGMP host on one interface: a host entity's settings and group records on one side, a packet
// socket on the other, the engine between them. Changes are gathered and given to the engine at the
// end of the turn, so that what ends a turn as it began is not told to anybody.
//
// Timers: the engine's, and one to try again to open the socket or to send into a full queue.
#pragma once

#include "agent/Configuration.h"
#include "agent/EventLoop.h"
#include "agent/HostEngine.h"
#include "agent/NamespaceInterfaces.h"
#include "agent/PacketSocket.h"

#include "Igmp/IgmpHost.h"
#include "Nex/Machine.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

namespace Agent {

class IgmpHostPort : public Nex::PtrInterface, private HostEngine::Output {
  public:
    static constexpr char nexTypeName[] = "Agent::IgmpHostPort";
    /// Where the interface is now, the namespace to open sockets in, and what the operator wants of
    /// the interface, null for nothing.
    struct Location {
        Device device;
        int namespaceFd = -1;
        InterfaceConfiguration const* configuration = nullptr;
    };
    using Locate = std::function<Location(Igmp::IgmpHost const&)>;

    /// `loop` outlives this.
    IgmpHostPort(EventLoop& loop, Nex::Ptr<Igmp::IgmpHost> host, Locate locate);
    ~IgmpHostPort() override;

    /// The counters go here from now on.
    void statusIs(Nex::Ptr<Igmp::IgmpHostStatus> status) { status_ = std::move(status); }

    /// The kernel interface or its part of the configuration changed: the socket and the engine's
    /// settings follow at the end of the turn.
    void handleLocation();
    /// The end of a turn of the event loop.
    void handleTurn(double now);
    double nextExpiry() const;
    void timeIs(double now);
    /// Leaves every group, if the interface can still be heard, and goes silent. Waits up to a
    /// second from `now` for the interface to take the packets. `repeated`: tells it as often as
    /// any other change, for nobody will answer for the groups later.
    void doLeave(double now, bool repeated);
    /// What the engine and the socket have counted.
    nlohmann::json statusJson() const;

  private:
    class NexIgmpHost : public Nex::Reactor<Igmp::IgmpHost::Notifiee, IgmpHostPort> {
      public:
        using Reactor::Reactor;
        void onDeviceName() override { machine()->settingsChanged_ = true; }
        void onIpAddr() override { machine()->settingsChanged_ = true; }
        void onIgmpVersion() override { machine()->settingsChanged_ = true; }
        void onUnsolicitedReportInterval() override { machine()->settingsChanged_ = true; }
        void onV3group(Lox::IpAddr group) override { machine()->handleGroup(group); }
    };
    /// One group record: whoever changes it raises its version afterwards.
    class NexV3group : public Nex::Reactor<Igmp::IgmpV3GroupRecord::Notifiee, IgmpHostPort> {
      public:
        using Reactor::Reactor;
        void onVersion() override { machine()->doMarkChanged(notifier()->group()); }
    };

    void handleGroup(Lox::IpAddr group);
    void doMarkChanged(Lox::IpAddr group) { changedGroups_.findOrInsert(group); }
    void doApplySettings(double now);
    void doApplyGroups();
    void doApplyGroup(Lox::IpAddr group);
    void doOpen(Location const& location, double now);
    void doClose(double now);
    void doFlushSocket(double now);
    void doDrainSocket();
    void doLogDrops(double now);
    void handleSocket(std::uint32_t events);
    void doPublishCounters();

    // HostEngine::Output
    void send(std::span<std::uint8_t const> ipPacket) override;
    void warn(std::string const& text) override;

    EventLoop& loop_;
    Locate locate_;
    Nex::Ptr<Igmp::IgmpHostStatus> status_;
    HostEngine engine_;
    std::unique_ptr<PacketSocket> socket_;
    int openIfindex_ = 0;
    std::uint32_t awaited_ = 0; ///< events that the loop watches the socket for
    /// When to try again what failed: to open the socket, or to send into a full queue.
    double retryTime_ = Nex::never;
    double leaveDeadline_ = -Nex::never; ///< until when sending waits for room
    std::uint64_t loggedDrops_ = 0;      ///< of those of the socket
    LogLimit sendWarnings_;
    LogLimit openErrors_;
    bool settingsChanged_ = true;
    Nex::Set<Lox::IpAddr> changedGroups_;
    std::vector<Lox::IpAddr> sources_; ///< scratch
    NEX_WATCHED(Igmp::IgmpHost, host, NexIgmpHost)
    NEX_REACTORS(Lox::IpAddr, NexV3group, v3group, Igmp::IgmpV3GroupRecord, group)
};

} // namespace Agent
