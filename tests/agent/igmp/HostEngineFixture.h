// A host engine with time by hand and packets kept in memory. Every packet is checked for what all
// packets have in common.
#pragma once

#include "agent/igmp/HostEngine.h"
#include "agent/igmp/IgmpTestPackets.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Agent {

struct SentPacket {
    double time;
    std::string text;
};

class HostEngineFixture : public testing::Test, public HostEngine::Output {
  protected:
    HostEngineFixture() {
        settings.address = ip("10.0.0.2");
        settings.unsolicitedReportInterval = 1;
        settings.packetsPer100ms = 1'000'000;
        settingsApply();
        engine->linkUp(now);
    }

    void settingsApply() { engine->setSettings(now, settings); }
    void speak(unsigned version) {
        settings.version = version;
        settingsApply();
    }
    void limit(unsigned packetsPer100ms) {
        settings.packetsPer100ms = packetsPer100ms;
        settingsApply();
        serve(30);
    }

    void include(Sources const& groups, Sources const& sources) {
        for (Lox::IpAddr group : groups) engine->setGroup(group, FilterMode::include, sources);
    }
    void exclude(Sources const& groups, Sources const& sources = {}) {
        for (Lox::IpAddr group : groups) engine->setGroup(group, FilterMode::exclude, sources);
    }
    /// What routers may hold, told one by one.
    RecordList held() const {
        RecordList records;
        for (HostEngine::HeldPlace place; engine->addHeldRecords(records, place, 1);) {
        }
        return records;
    }
    void hear(Bytes const& payload, Envelope const& envelope = {}) {
        engine->received(now, packetOf(payload, envelope));
    }
    /// Lets `seconds` pass, serving the engine.
    void serve(double seconds) {
        double end = now + seconds;
        for (unsigned wakeUps = 0; engine->nextExpiry() <= end; ++wakeUps) {
            ASSERT_LT(wakeUps, 100'000u) << "the engine does not rest";
            engine->advance(now = std::max(now, engine->nextExpiry()));
        }
        now = end;
    }
    /// The texts of the packets since the last call, with "; " between them.
    std::string taken() {
        std::string all;
        for (SentPacket const& packet : std::exchange(sent, {}))
            all += (all.empty() ? "" : "; ") + packet.text;
        return all;
    }
    /// What leaves in that time.
    std::string pass(double seconds) {
        serve(seconds);
        return taken();
    }
    /// Ends the turn and lets everything pending leave.
    void settle() {
        engine->flush(now);
        pass(30);
    }

    void send(std::span<std::uint8_t const> packet) override {
        EXPECT_LE(packet.size(), settings.mtu);
        EXPECT_EQ(packet[2] * 256u + packet[3], packet.size());
        EXPECT_EQ(Lox::IpAddr::fromOctets(&packet[12]), settings.address);
        EXPECT_EQ(checksum(packet.first(24)), 0);
        EXPECT_EQ(checksum(packet.subspan(24)), 0);
        sent.push_back({now, packetText(packet)});
    }
    void warn(std::string const& text) override { warnings.push_back(text); }

    double now = 1000;
    HostEngine::Settings settings;
    std::vector<SentPacket> sent;
    std::vector<std::string> warnings;
    std::optional<HostEngine> engine{std::in_place, *this, std::mt19937(7)};
};

} // namespace Agent
