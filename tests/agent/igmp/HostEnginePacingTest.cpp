// When packets leave: at random within the time that a querier waits, and how fast where many are
// wanted.
#include "agent/igmp/HostEngineFixture.h"

#include <map>

namespace Agent {
namespace {

using HostEnginePacingTest = HostEngineFixture;

TEST_F(HostEnginePacingTest, LeavingEndsWithinASecondHoweverManyGroups) {
    struct {
        unsigned told, spoken, groups;
        std::size_t packets;
    } const cases[] = {{3, 3, 65536, 359}, {2, 2, 10000, 10000}, {2, 3, 10000, 10055}};
    for (auto const& [told, spoken, groups, packets] : cases) {
        speak(told);
        limit(1'000'000);
        exclude(range("239.3.0.0", groups));
        settle();
        speak(spoken);
        pass(30);
        limit(1);
        taken();
        double start = now;
        engine->leaveAll(now);
        EXPECT_LE(sent.size(), 184u) << "one report, and the version 2 leaves that go with it";
        serve(0.75);
        EXPECT_TRUE(engine->hasLeft());
        EXPECT_EQ(sent.size(), 2 * packets);
        std::size_t const most = sent.size() / 6 - 1; // in 100 ms
        for (std::size_t i = most; i < sent.size(); ++i)
            ASSERT_GE(sent[i].time - sent[i - most].time, 0.1) << "evenly";
        EXPECT_GE(sent[sent.size() / 2].time, start + HostEngine::leaveSeconds / 2);
        taken();
    }
}

TEST_F(HostEnginePacingTest, Version2GroupsTakeTurnsWhereThePaceIsTooSlowForAll) {
    speak(2);
    limit(10); // 910 reports in the 10 s that the querier waits
    for (unsigned count : {900u, 1200u}) {
        Sources groups = range("239.3.0.0", count);
        exclude(groups);
        settle();
        std::map<std::string, double> last;
        bool late = false;
        for (unsigned i = 0; i < 10; ++i) {
            double asked = now;
            hear(message(IgmpType::query, {}, 100));
            serve(5);
            std::size_t before = sent.size();
            hear(message(IgmpType::query, groups[i * 37], 10));
            serve(1);
            std::string const answer = "v2 " + groups[i * 37].stringValue();
            EXPECT_TRUE(std::any_of(sent.begin() + std::ptrdiff_t(before), sent.end(),
                                    [&](auto& packet) { return packet.text == answer; }))
                << "a query for one group waits for no others";
            serve(14);
            for (SentPacket const& packet : std::exchange(sent, {})) {
                double& known = last.try_emplace(packet.text, packet.time).first->second;
                EXPECT_LT(packet.time, std::exchange(known, packet.time) + 23) << packet.text;
                late |= packet.time > asked + 10;
            }
            EXPECT_EQ(last.size(), count);
        }
        EXPECT_EQ(warnings.size(), count == 900 ? 0 : 1);
        EXPECT_EQ(late, count > 900);
    }
}

TEST_F(HostEnginePacingTest, GeneralAnswerIsSpreadAndEndsInTime) {
    struct {
        unsigned pace, groups, sources; // 183 records, or 3, fit into a packet
    } const cases[] = {{1'000'000, 20000, 1}, {10, 20000, 1}, {10, 300, 121}};
    for (auto const& [pace, groups, sources] : cases) {
        limit(1'000'000);
        include(range("239.3.0.0", groups), range("10.1.0.0", sources));
        settle();
        limit(pace);
        double earliest = 2, latest = 0;
        for (unsigned i = 0; i < 20; ++i) {
            taken();
            double end = now + 2;
            hear(v3Query(20));
            serve(10);
            double first = sent.front().time, last = sent.back().time;
            earliest = std::min(earliest, first - (end - 2));
            latest = std::max(latest, first - (end - 2));
            EXPECT_GE(sent.size(), 100u);
            EXPECT_LE(last, end);
            if (pace == 10) continue; // it begins as late as it may
            EXPECT_GT(last - first, 0.9 * (end - first));
            for (std::size_t at = 1; at < sent.size(); ++at)
                EXPECT_LT(sent[at].time - sent[at - 1].time, (end - first) / 40) << at;
        }
        EXPECT_GT(latest, earliest + 0.1) << "at random";
        for (Lox::IpAddr group : range("239.3.0.0", groups)) engine->removeGroup(group);
    }
}

} // namespace
} // namespace Agent
