// How queries are answered in version 3, and which are not.
#include "agent/igmp/HostEngineFixture.h"

#include <array>
#include <malloc.h>

namespace Agent {
namespace {

class HostEngineQueryTest : public HostEngineFixture {
  protected:
    HostEngineQueryTest() {
        include(g1, {a, b});
        exclude(g2, {a});
        settle();
        warnings.clear();
    }
    std::string const whole1 = "IS_IN 239.1.1.1 10.0.0.11 10.0.0.12";
    std::string const all = whole1 + ", IS_EX 239.1.1.2 10.0.0.11";
};

TEST_F(HostEngineQueryTest, GeneralQueryIsAnsweredAtRandomWithinTheResponseTime) {
    std::pair<std::uint8_t, double> const cases[] = {
        {1, 0.1}, {100, 10}, {127, 12.7}, {128, 12.8}, {255, 3174.4}};
    for (auto [code, seconds] : cases) {
        unsigned quarters[4] = {};
        for (unsigned i = 0; i < 40; ++i) {
            hear(v3Query(code));
            EXPECT_EQ(flush(), "") << "never at once";
            double part = (engine.nextExpiry() - now) / seconds;
            ASSERT_GT(part, 0);
            ASSERT_LT(part, 1);
            ++quarters[unsigned(4 * part)];
            EXPECT_EQ(pass(seconds), all);
            EXPECT_EQ(engine.nextExpiry(), never);
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

TEST_F(HostEngineQueryTest, AnswersAreMadeFromTheStateWhenTheyAreDue) {
    hear(v3Query(255, g1));
    hear(v3Query(250, g2, {a, b}));
    engine.groupDel(g1);
    flush();
    double repeat = engine.nextExpiry();
    hear(v3Query(0, g1));
    EXPECT_EQ(engine.nextExpiry(), repeat) << "nothing to report of a group left";
    EXPECT_EQ(pass(1), "BLOCK 239.1.1.1 10.0.0.11 10.0.0.12");
    EXPECT_EQ(answer(v3Query(1)), "IS_EX 239.1.1.2 10.0.0.11");
    engine.groupDel(g2);
    settle();
    include(g2, {a});
    settle();
    EXPECT_EQ(pass(3200), "IS_IN 239.1.1.2 10.0.0.11");
    engine.groupDel(g2);
    settle();
    hear(v3Query(1));
    EXPECT_EQ(engine.nextExpiry(), never);
}

TEST_F(HostEngineQueryTest, SpecificQueriesAreAnsweredForWhatIsWantedAndMergeWhilePending) {
    Sources const many = range("10.9.0.0", HostGroup::maxAsked);
    struct Case {
        Lox::IpAddr group;
        std::vector<Sources> queries;
        std::string answer;
    } const cases[] = {
        {g1, {{}}, whole1},
        {g2, {{}}, "IS_EX 239.1.1.2 10.0.0.11"},
        {g1, {{c, b}}, "IS_IN 239.1.1.1 10.0.0.12"},
        {g2, {{c, a, b}}, "IS_IN 239.1.1.2 10.0.0.12 10.0.0.13"},
        {g1, {{c}}, ""},
        {g2, {{a}}, ""},
        {ip("239.9.9.9"), {{}}, ""},
        {g1, {{b}, {a, c}}, whole1},
        {g1, {{c}, {}}, whole1},
        {g1, {{}, {c}}, whole1},
        {g1, {many}, ""},
        {g1, {many, {c}}, whole1}, // more sources than are kept
        {g1, {{c}}, ""},
    };
    for (Case const& c : cases) {
        for (Sources const& sources : c.queries)
            hear(v3Query(10, c.group, sources), {.destination = c.group});
        EXPECT_EQ(pass(1), c.answer) << &c - cases;
        EXPECT_EQ(engine.nextExpiry(), never) << &c - cases;
    }
    EXPECT_EQ(counters().v3GroupQueryReceived, 5u);
    EXPECT_EQ(counters().v3GroupSourceQueryReceived, 12u);
}

TEST_F(HostEngineQueryTest, SourcesAreKeptUpToALimitAndUntilTheAnswer) {
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
}

TEST_F(HostEngineQueryTest, EarlierOfTwoTimesHolds) {
    hear(v3Query(255, g1));
    EXPECT_GT(engine.nextExpiry(), now + 1);
    hear(v3Query(10, g1));
    double soon = engine.nextExpiry();
    EXPECT_LE(soon, now + 1);
    hear(v3Query(255, g1));
    hear(v3Query(255));
    EXPECT_EQ(engine.nextExpiry(), soon);
    EXPECT_EQ(pass(1), whole1);
    EXPECT_EQ(answer(v3Query(10)), all) << "replaces the general timer far away";
    EXPECT_EQ(engine.nextExpiry(), never);
    hear(v3Query(10));
    hear(v3Query(255));
    hear(v3Query(255, g2));
    EXPECT_EQ(pass(1), all) << "one answer is enough for all";
    EXPECT_EQ(engine.nextExpiry(), never);
}

TEST_F(HostEngineQueryTest, QueriesMayGoToAllSystemsToUsOrToAGroupOfOurs) {
    Lox::IpAddr us = settings.address, second = ip("10.0.7.2"), left = ip("239.9.9.9"), general;
    settings.localAddresses = {us, second};
    settingsApply();
    auto answered = [&](Lox::IpAddr group, Lox::IpAddr destination) {
        hear(v3Query(10, group), {.destination = destination});
        return pass(1) != "";
    };
    for (Lox::IpAddr group : {general, g1}) {
        for (Lox::IpAddr ours : {allSystems, us, second}) EXPECT_TRUE(answered(group, ours));
        for (Lox::IpAddr other :
             {ip("192.0.2.9"), ip("10.0.0.255"), ip("255.255.255.255"), general, allRouters, left})
            EXPECT_FALSE(answered(group, other)) << other;
        EXPECT_EQ(answered(group, g2), group == g1) << "a general one to all systems alone";
    }
    EXPECT_TRUE(answered(g1, g1));
    EXPECT_EQ(dropped(DropReason::strayDestination), 13u);
    EXPECT_EQ(counters().v3GeneralQueryReceived, 3u) << "what is dropped does not count";

    hear(message(IgmpType::query, {}), {.destination = ip("192.0.2.9"), .ttl = 60});
    EXPECT_EQ(engine.version(), 3u) << "a query in transit";
    settings.address = {};
    settings.localAddresses = {second};
    settingsApply();
    settle();
    EXPECT_FALSE(answered(general, {}));
    EXPECT_FALSE(answered(general, us)) << "not ours any more";
    EXPECT_TRUE(answered(general, second));
}

TEST_F(HostEngineQueryTest, OddQueriesAreUsedAndCounted) {
    settings.prefixLength = 24;
    settingsApply();
    for (Envelope const& odd : {Envelope{.source = {}, .options = {}, .ttl = 64},
                                Envelope{.source = ip("10.0.1.1"), .options = {}}, Envelope{}}) {
        hear(v3Query(10), odd);
        EXPECT_EQ(pass(1), all);
    }
    std::array const odd{counters().oddSource, counters().oddTtl, counters().oddRouterAlert};
    EXPECT_EQ(odd, (std::array{2u, 1u, 2u}));
    EXPECT_EQ(warnings.size(), 1u);
}

TEST_F(HostEngineQueryTest, WhatIsNoneOfOurBusinessIsIgnored) {
    hear(v3Query(10), {.source = settings.address});
    for (Bytes const& payload : {message(IgmpType(0x13), g1), message(IgmpType::v2Leave, g1),
                                 message(IgmpType::v3Report, {})})
        hear(payload);
    hearReport(IgmpType::v2Report, ip("10.1.1.1"));
    engine.received(now, {});
    EXPECT_EQ(engine.nextExpiry(), never);
    for (DropReason why : {DropReason::ownPacket, DropReason::badGroup, DropReason::badLength})
        EXPECT_EQ(dropped(why), 1u);
    EXPECT_EQ(counters().v3ReportReceived, 1u);

    engine.groupDel(g2);
    flush();
    hear(v3Query(10, g1));
    hearReport(IgmpType::v2Report, g2); // suppresses no repeat in version 3,
    hearReport(IgmpType::v1Report, g1); // nor an answer
    EXPECT_EQ(pass(1).size(), ("TO_IN 239.1.1.2; " + whole1).size());
    EXPECT_EQ(counters().v12ReportReceived, 2u);
}

TEST_F(HostEngineQueryTest, RobustnessOfTheQuerierIsAdoptedUntilItTellsNone) {
    std::pair<std::uint8_t, unsigned> const cases[] = {{5, 5}, {1, 2}, {7, 7}, {0, 2}};
    for (auto [told, times] : cases) {
        answer(v3Query(10, {}, {}, told));
        exclude(ip("239.3.3.3"));
        engine.flush(now);
        serve(10);
        EXPECT_EQ(sent.size(), times) << int(told);
        engine.groupDel(ip("239.3.3.3"));
        settle();
    }
}

} // namespace
} // namespace Agent
