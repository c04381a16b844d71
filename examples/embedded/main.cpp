// A product that has interfaces, a forwarding table and an IGMP host of its own, in one process
// with the library: it writes what it knows into the records, gives the time, and hands what comes
// out to its host. docs/embedding.md goes through it.
#include "IgmpHostProxy/PlatformState.h"

#include <algorithm>
#include <exception>
#include <iostream>

namespace {

using namespace IgmpHostProxy;

/// The product's IGMP host on one interface: here it prints what it would announce.
class ProductHost : public Nex::PtrInterface {
    NEX_FIELD_SET(Lox::IpAddr, changed)

  public:
    static constexpr char nexTypeName[] = "ProductHost";
    explicit ProductHost(Nex::Ptr<Igmp::IgmpHost> const& host) { Nex::watch(host_, host, this); }
    ~ProductHost() override { nexDoZombieReactors(true); }

    /// A group came or went: its reactor follows. Inside a callback it only notes what changed.
    void handleGroup(Lox::IpAddr group) {
        if (auto* const record = host()->v3group(group))
            groupIs(record);
        else
            groupDel(group);
        changedIs(group);
    }
    /// At the end of the product's turn, when the records have settled.
    void announce() {
        for (Lox::IpAddr const group : changed()) {
            changedDel(group);
            auto const* const record = host()->v3group(group);
            std::cout << host()->deviceName() << ' ' << group << ':';
            if (!record) {
                std::cout << " left\n";
                continue;
            }
            bool const include = record->filterMode() == Lox::IgmpV3GroupRecordType::modeIsInclude;
            std::cout << (include ? " only from" : " all but from");
            if (record->source())
                for (auto const& item : record->source()->sourceIp()) std::cout << ' ' << item.key;
            std::cout << '\n';
        }
    }

    class NexHost : public Nex::Reactor<Igmp::IgmpHost::Notifiee, ProductHost> {
      public:
        using Reactor::Reactor;
        void onV3group(Lox::IpAddr group) override { machine()->handleGroup(group); }
    };
    /// Whoever changes a group record raises its version afterwards.
    class NexGroup : public Nex::Reactor<Igmp::IgmpV3GroupRecord::Notifiee, ProductHost> {
      public:
        using Reactor::Reactor;
        void onVersion() override { machine()->changedIs(notifier()->group()); }
    };
    NEX_WATCHED(Igmp::IgmpHost, host, NexHost)
    NEX_REACTORS(Lox::IpAddr, NexGroup, group, Igmp::IgmpV3GroupRecord, group)
};

/// The product says what it knows of one interface. The listing comes last: it takes it up.
void interfaceUp(PlatformState& state, Lox::IntfId const& intfId, Lox::IpAddr address) {
    auto const ip = Ip::IpIntfConfig::IpIntfConfigIs(intfId);
    ip->vrfIs(L3::VrfName("default"));
    state.ipStatus->ipIntfStatusIs(intfId)->ipIntfConfigIs(ip);
    state.sourceIntfSm->registerSourceIntf(intfId)->ipAddrIs(address);
    state.kni(Lox::NamespaceName::defaultNamespace())
        ->interfaceIs(KernelNetInfo::InterfaceKey(7),
                      {7, intfId.stringValue(), Lox::EthAddr({2, 0, 0, 0, 0, 7})});
    auto const local = state.allIntfStatusLocalDir->intfStatusLocalIs(intfId);
    local->networkNamespaceIs(Lox::NamespaceName::defaultNamespace());
    local->deviceNameIs(intfId.stringValue());
    state.allIntfStatusDir->intfStatusIs(intfId)->operUpIs(true);
}

/// What the product's loop does: waits for the next expiry, then tells the time. Here the time is
/// moved by hand; without a time source of its own a product goes by the steady clock.
void runUntil(PlatformState& state, Nex::ManualTime& time, double end) {
    for (;;) {
        double const next = std::min(state.clock->nextExpiry(), state.timerWheel->nextExpiry());
        if (next > end) break;
        time.nowIs(std::max(time.now(), next));
        state.clock->timeIs(time.now());
        state.timerWheel->timeIs(time.now());
    }
    time.nowIs(end);
}

void run() {
    Nex::ManualTime time;
    Lox::IntfId const up("up0");
    PlatformState state;
    auto const root = state.makeRoot();
    // The product's host agent: a status for each host entity has the library bind the two.
    Nex::Owned<HostStatusPublisher> publisher;
    publisher.make(state.hostDir, state.hostStatusDir.get());

    auto const tables = state.mfibDir->keshCollIs(L3::VrfName("default"));
    auto const table = Kesh::Multicast::Fib::Status::StatusIs("mroute");
    tables->keshPtrIs(table.get(), table);
    state.config->intfConfigIs(up)
        ->groupSourceListIs(Lox::IpAddr("239.1.1.1"))
        ->includeSourceListIs(Lox::IpAddr("10.0.0.1"));
    interfaceUp(state, up, Lox::IpAddr("192.0.2.2"));

    auto const host = Nex::newObject<ProductHost>(state.hostDir->igmpHost(up.stringValue()));
    for (auto const& item : host->host()->v3group()) host->handleGroup(item.key);
    host->announce();

    Kesh::Multicast::Fib::IpGenRouteKey const route{Lox::IpPrefix(Lox::IpAddr("10.0.0.2"), 32),
                                                    Lox::IpPrefix(Lox::IpAddr("239.2.2.2"), 32)};
    table->routeIs(route, {.present = true});
    runUntil(state, time, 1); // the review of routes is paced
    host->announce();
    table->routeDel(route);
    runUntil(state, time, 2);
    host->announce();
}

} // namespace

int main() {
    try {
        run();
    } catch (std::exception const& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
}
