// The host engine where it takes many rounds to tell: random delays, slices, and memory.
#include "agent/igmp/HostEngineFixture.h"

#include <malloc.h>
#include <set>

namespace Agent {
namespace {

using HostEngineTest = HostEngineFixture;

TEST_F(HostEngineTest, GroupsThatStayAreToldWhateverComesAndGoesBetweenTheSlices) {
    auto const number = [](unsigned i) { return Lox::IpAddr::fromHost(0xEF020000 + i); };
    for (unsigned i = 0; i < 200; ++i) exclude(number(i));
    settle();
    std::set<Lox::IpAddr> told;
    unsigned slice = 0;
    auto const records = held(7, [&] {
        engine->removeGroup(number(slice));
        if (slice++ < 40) // so many that the map grows
            for (unsigned i = 0; i < 50; ++i) exclude(number(200 + 50 * slice + i));
        engine->flush(now);
    });
    for (std::size_t i = 0; i < records.size(); ++i) told.insert(records.record(i).group);
    EXPECT_GT(slice, 200u / 7);
    for (unsigned i = slice; i < 200; ++i) EXPECT_TRUE(told.contains(number(i))) << i;
}

TEST_F(HostEngineTest, GeneralQueryIsAnsweredAtRandomWithinTheResponseTime) {
    include(g1, {a, b});
    settle();
    std::string const all = "IS_IN 239.1.1.1 10.0.0.11 10.0.0.12";
    std::pair<std::uint8_t, double> const cases[] = {
        {1, 0.1}, {100, 10}, {127, 12.7}, {128, 12.8}, {255, 3174.4}};
    for (auto [code, seconds] : cases) {
        unsigned quarters[4] = {};
        for (unsigned i = 0; i < 40; ++i) {
            hear(v3Query(code));
            EXPECT_EQ(flush(), "") << "never at once";
            double part = (engine->nextExpiry() - now) / seconds;
            ASSERT_GT(part, 0);
            ASSERT_LT(part, 1);
            ++quarters[unsigned(4 * part)];
            EXPECT_EQ(pass(seconds), all);
            EXPECT_EQ(engine->nextExpiry(), never);
        }
        for (unsigned quarter : quarters) EXPECT_GT(quarter, 2u);
    }
    hear(v3Query(0));
    EXPECT_EQ(taken(), "");
    EXPECT_EQ(pass(0), all) << "code 0: at the next call";
    EXPECT_EQ(counters().v3GeneralQueryReceived, 201u);
    EXPECT_EQ(counters().v3CurrentStateReportSent, 201u);
    EXPECT_EQ(counters().v3StateChangeReportSent, 2u);
}

TEST_F(HostEngineTest, SourcesAreKeptUpToALimitAndUntilTheAnswer) {
    excludeMany("239.3.0.0", 1000);
    settle();
    auto ask = [&](unsigned sources) {
        for (Lox::IpAddr group : range("239.3.0.0", 1000))
            hear(v3Query(100, group, range("10.9.0.0", sources)));
    };
    std::size_t before = mallinfo2().uordblks; // of the whole process
    auto octetsPerGroup = [&] { return (double(mallinfo2().uordblks) - double(before)) / 1000; };
    for (bool general : {false, true}) {
        ask(HostGroup::maxAsked);
        if (general) hear(v3Query(0));
        EXPECT_LT(octetsPerGroup(), 400);
        ask(255);
        EXPECT_LT(octetsPerGroup(), 100) << "the whole group is asked about";
        pass(10);
        ask(HostGroup::maxAsked);
        if (general) hear(message(IgmpType::query, {}, 1)); // cancels the answers
        pass(10);
        EXPECT_LT(octetsPerGroup(), 30);
    }
    for (unsigned i = 0; i < 1000; ++i) {
        include(g1, range("10.9.0.0", 100 + i % 2));
        flush();
    }
    EXPECT_LT(octetsPerGroup(), 30) << "nor are those of earlier turns";
}

} // namespace
} // namespace Agent
