// Packets of any kind to a host engine, in any order and at any times, while groups come and go.
// Each step is an octet that says what it is, one for the time that passes before it, and one for
// the settings that it brings, or for a packet the length of its payload and this, and up to three
// octets of the packet that are others. The first settings stand in front.
#include "agent/igmp/HostEngine.h"
#include "agent/igmp/IgmpTestPackets.h"

#include <algorithm>
#include <cstdlib>

namespace {

using namespace Agent;

/// Whatever leaves must be a packet that another host can read.
struct Checked : HostEngine::Output {
    void send(std::span<std::uint8_t const> packet) override {
        DropReason reason;
        auto const datagram = IgmpDatagram::decode(packet, reason);
        if (!datagram || datagram->ttl != 1 || !datagram->routerAlert) std::abort();
    }
    void warn(std::string const&) override {}
};

/// Few strangers' packets come through with their checksums wrong.
void mendChecksums(std::span<std::uint8_t> packet) {
    std::size_t const header = packet.empty() ? 0 : (packet[0] & 0x0f) * std::size_t(4);
    if (header < 20 || packet.size() < header + 8) return;
    setChecksum(packet.first(header), 10);
    std::size_t const total = std::size_t(packet[2]) << 8 | packet[3];
    if (total >= header + 8 && total <= packet.size())
        setChecksum(packet.subspan(header, total - header), 2);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::span<std::uint8_t const> rest(data, size);
    auto const octet = [&] {
        if (rest.empty()) return std::uint8_t(0);
        std::uint8_t const first = rest[0];
        rest = rest.subspan(1);
        return first;
    };
    Checked output;
    HostEngine engine(output, std::mt19937(1));
    double now = 1;
    auto const applySettings = [&](std::uint8_t choice) {
        HostEngine::Settings settings;
        settings.version = choice % 3 + 1;
        settings.ssmOnly = choice & 4;
        settings.requireRouterAlert = choice & 8;
        settings.packetsPer100ms = choice & 16 ? 1 : 100;
        settings.mtu = choice & 32 ? 68 : 1500;
        settings.prefixLength = choice & 64 ? 24 : 0;
        settings.address = Lox::IpAddr::fromHost(0x0A000002);
        engine.setSettings(now, settings);
    };
    applySettings(octet());
    engine.linkUp(now);
    while (!rest.empty()) {
        std::uint8_t const step = octet();
        now += octet() * 0.05;
        while (engine.nextExpiry() <= now) engine.advance(engine.nextExpiry());
        auto const group = Lox::IpAddr::fromHost(0xEF010100 + step % 8);
        Lox::IpAddr const sources[] = {Lox::IpAddr::fromHost(0x0A000100 + step),
                                       Lox::IpAddr::fromHost(0x0A000200 + step % 16)};
        switch (step >> 5) {
        case 0:
            engine.setGroup(group, FilterMode::exclude, {});
            break;
        case 1:
            engine.setGroup(group, FilterMode::include, sources);
            break;
        case 2:
            engine.removeGroup(group);
            break;
        case 3:
            if (step & 2)
                applySettings(octet());
            else
                step & 1 ? engine.linkDown(now) : engine.linkUp(now);
            break;
        default: {
            std::size_t const length = std::min<std::size_t>(octet(), rest.size());
            Lox::IpAddr const to = step & 16 ? group : allSystems;
            Bytes packet = packetOf({rest.begin(), rest.begin() + std::ptrdiff_t(length)},
                                    {.source = sources[0], .destination = to});
            rest = rest.subspan(length);
            for (unsigned others = step >> 5 & 3; others > 0; --others) {
                std::size_t const at = octet() % packet.size();
                packet[at] = octet();
            }
            if (step & 8) mendChecksums(packet);
            engine.received(now, packet);
        }
        }
        engine.flush(now);
    }
    engine.leaveAll(now);
    for (int i = 0; i < 1000 && !engine.hasLeft(); ++i) engine.advance(now += 0.01);
    if (!engine.hasLeft()) std::abort();
    return 0;
}
