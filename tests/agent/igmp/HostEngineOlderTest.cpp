// Older queriers and the older versions of the protocol.
#include "agent/igmp/HostEngineFixture.h"

namespace Agent {
namespace {

class HostEngineOlderTest : public HostEngineFixture {
  protected:
    static Bytes v1Query() { return message(IgmpType::query, {}); }
    static Bytes v2Query(std::uint8_t code, Lox::IpAddr group = {}) {
        return message(IgmpType::query, group, code);
    }
    std::string const report = "v2 239.1.1.1";
};

TEST_F(HostEngineOlderTest, OlderQuerierCountsAsPresentForItsTime) {
    struct Step {
        Bytes query;
        double seconds; // from the query on
        unsigned version;
    } const steps[] = {
        {v2Query(100), 349.9, 2}, {v3Query(10), 0.2, 3},       {v2Query(100), 10, 2},
        {v1Query(), 100, 1},      {v2Query(200), 249.9, 1},    // lasts 450 s, longer than the other
        {v3Query(10), 0.2, 2},    {v2Query(10, g1), 199.8, 2}, // a query for a group says nothing
        {v3Query(10), 0.2, 3},    {v2Query(10, g1), 1, 3},     {v1Query(), 0, 1},
    };
    for (Step const& step : steps) {
        answer(step.query, step.seconds);
        EXPECT_EQ(engine.version(), step.version) << &step - steps;
    }
    answer(message(IgmpType::query, ip("10.1.1.1")), 349.9);
    EXPECT_EQ(engine.version(), 1u) << "whatever its group field says";
    EXPECT_EQ(counters().v1QueryReceived, 3u);
    EXPECT_EQ(counters().v2GeneralQueryReceived, 3u);
    EXPECT_EQ(counters().v2GroupQueryReceived, 2u);
    engine.linkDown(now);
    EXPECT_EQ(engine.version(), 3u) << "forgotten with the link";
}

TEST_F(HostEngineOlderTest, SwitchCancelsAnswersAndRepeats) {
    settings.unsolicitedReportIntervalSeconds = 1000;
    settingsApply();
    exclude(g1);
    flush();
    hear(v3Query(255, g1));
    hear(v3Query(255));
    EXPECT_EQ(answer(v2Query(10), 259), report) << "the answer to the query that switched, alone";
    hear(v2Query(255, g1));
    EXPECT_EQ(answer(v1Query(), 300), "v1 239.1.1.1");
    engine.groupDel(g1);
    exclude(g2);
    EXPECT_EQ(flush(), "v1 239.1.1.2") << "version 1 knows no leave";
    pass(200);
    EXPECT_EQ(engine.nextExpiry(), never) << "version 3 again, and the repeat is gone";
    EXPECT_EQ(answer(v3Query(10)), "IS_EX 239.1.1.2");
}

TEST_F(HostEngineOlderTest, ChangeThatNobodyHeardSurvivesTheSwitch) {
    settings.mtu = 68; // room for 36 octets of records
    limit(1);
    include(g1, range("10.0.0.1", 4));
    include(g2, {a, b});
    EXPECT_EQ(flush(), "ALLOW 239.1.1.1 10.0.0.1 10.0.0.2 10.0.0.3 10.0.0.4");
    EXPECT_EQ(answer(v2Query(255), 0.3), "v2 239.1.1.2");
}

TEST_F(HostEngineOlderTest, Version2TellsMembershipOnly) {
    speak(2);
    include(g1, {a});
    EXPECT_EQ(flush(), report);
    exclude(g1); // while the repeat is pending
    EXPECT_EQ(flush(), "");
    EXPECT_EQ(pass(30), report);
    include(g1, {b});
    EXPECT_EQ(flush(), "");
    EXPECT_EQ(engine.nextExpiry(), never);
    engine.groupDel(g1);
    EXPECT_EQ(flush(), "leave 239.1.1.1");
    EXPECT_EQ(pass(1), "leave 239.1.1.1");
    EXPECT_EQ(engine.nextExpiry(), never);
    EXPECT_EQ(counters().v2ReportsSent, 2u);
    EXPECT_EQ(counters().v2LeavesSent, 2u);
    for (bool heardAnother : {true, false}) { // while the leave is to be repeated
        exclude(g1);
        settle();
        engine.groupDel(g1);
        EXPECT_EQ(flush(), "leave 239.1.1.1");
        if (heardAnother)
            hearReport(IgmpType::v2Report, g1);
        else
            exclude(g1);
        EXPECT_EQ(flush(), heardAnother ? "" : report);
        EXPECT_EQ(pass(30), heardAnother ? "" : report);
    }
}

TEST_F(HostEngineOlderTest, DefaultIntervalIsThatOfTheVersion) {
    settings.unsolicitedReportIntervalSeconds = 0;
    settings.robustness = 20;
    speak(2);
    exclude(g1);
    engine.flush(now);
    serve(19);
    EXPECT_LT(counters().v2ReportsSent, 12u);
    speak(3); // announces in that version
    serve(19);
    EXPECT_EQ(counters().v3StateChangeReportSent, 20u);
}

TEST_F(HostEngineOlderTest, EveryGroupHasATimerThatIsShortenedOnly) {
    speak(2);
    excludeMany("239.1.1.1", 100);
    settle();
    hear(v2Query(200));
    for (unsigned second = 0; second < 20; second += 2) EXPECT_NE(pass(2), "") << second;
    EXPECT_EQ(counters().v2ReportsSent, 300u);
    serve(100);

    struct Case {
        std::vector<Bytes> queries;
        double seconds;
    } const cases[] = {
        {{v2Query(255, g1), v2Query(5, g1)}, 0.5},
        {{v2Query(5, g1), v2Query(255, g1)}, 0.5},
        {{v2Query(5), v2Query(255, g1)}, 0.5},
        {{v3Query(5, g1, {a})}, 0.5},
        {{v3Query(200, g1)}, 20}, // the first 8 octets: not 307.2 s
    };
    for (Case const& c : cases) {
        for (Bytes const& query : c.queries) hear(query);
        serve(c.seconds);
        auto about = [&](SentPacket const& packet) { return packet.text == report; };
        EXPECT_EQ(std::count_if(sent.begin(), sent.end(), about), 1) << &c - cases;
        taken();
        serve(30);
        EXPECT_EQ(std::count_if(sent.begin(), sent.end(), about), 0) << &c - cases;
    }
    EXPECT_EQ(engine.version(), 2u);
}

TEST_F(HostEngineOlderTest, ReportOfAnotherHostSilencesOursAndTheLeave) {
    settings.robustness = 3;
    settings.unsolicitedReportIntervalSeconds = 10;
    speak(2);
    exclude(g1);
    exclude(g2);
    settle();
    hearReport(IgmpType::v2Report, g2); // no timer runs: means nothing
    hear(v2Query(100));
    hearReport(IgmpType::v2Report, g1);
    for (Lox::IpAddr to : {settings.address, allSystems, allRouters, g1})
        hear(message(IgmpType::v2Report, g2), {.destination = to}); // the routers do not hear it
    EXPECT_EQ(pass(10), "v2 239.1.1.2");
    EXPECT_EQ(dropped(DropReason::strayDestination), 4u);
    engine.groupDel(g1);
    engine.groupDel(g2);
    EXPECT_EQ(flush(), "leave 239.1.1.2");
    EXPECT_EQ(pass(2), "leave 239.1.1.2; leave 239.1.1.2");

    exclude(g1);
    EXPECT_EQ(flush(), report);
    hearReport(IgmpType::v1Report, g1); // silences repeats as well
    EXPECT_EQ(pass(30), "");
    hear(v2Query(10, g1));
    hearReport(IgmpType::v2Report, g1);
    EXPECT_EQ(pass(30), "") << "an answer about one group, too";
    EXPECT_EQ(answer(v2Query(10), 30), report);
    hear(v2Query(10, g1));
    engine.groupDel(g1);
    EXPECT_EQ(flush(), "leave 239.1.1.1") << "the last reporter again";
    EXPECT_EQ(pass(30), "leave 239.1.1.1; leave 239.1.1.1");

    limit(1);
    exclude(g2);
    exclude(g1);
    flush();
    hearReport(IgmpType::v2Report, g1);
    EXPECT_EQ(pass(0.2), report) << "what waits for its turn is told anyway";
}

TEST_F(HostEngineOlderTest, Version1WaitsTenSecondsAtMost) {
    speak(1);
    exclude(g1);
    settle();
    for (Bytes const& query : {v1Query(), v2Query(255, g1), v2Query(255), v3Query(255)})
        for (unsigned i = 0; i < 10; ++i) EXPECT_EQ(answer(query, 10), "v1 239.1.1.1");
    EXPECT_EQ(counters().v1ReportsSent, 42u);
}

TEST_F(HostEngineOlderTest, CopyOfAQuerySetsNoTimersUnlessItIsMoreUrgent) {
    speak(2);
    exclude(g1);
    settle();
    EXPECT_EQ(answer(v2Query(1), 0.095), report);
    EXPECT_EQ(answer(v2Query(10)), "");
    hear(v2Query(100));
    EXPECT_EQ(answer(v2Query(2), 0.2), report);
    hear(v2Query(100));
    EXPECT_EQ(answer(v1Query(), 10), "v1 239.1.1.1") << "a switch leaves nothing to copy";
}

TEST_F(HostEngineOlderTest, Version2ReadsTheFirstEightOctetsOfAQuery) {
    answer(v3Query(10, {}, {}, 7)); // adopted, until the host is one of version 2
    speak(2);
    exclude(g1);
    engine.flush(now);
    EXPECT_EQ(pass(30), report + "; " + report);
    for (std::size_t size = 8; size < 18; ++size) {
        Bytes query = v3Query(10, size % 2 ? g1 : Lox::IpAddr(), range("10.0.0.1", 9), 7);
        query.resize(size); // the sources are cut off
        EXPECT_EQ(answer(query), report) << size;
    }
    exclude(g2);
    engine.flush(now);
    EXPECT_EQ(pass(30), "v2 239.1.1.2; v2 239.1.1.2") << "no robustness is told";
    EXPECT_EQ(counters().v2GroupQueryReceived, 2u);
    EXPECT_EQ(counters().v3GroupSourceQueryReceived, 1u);
    EXPECT_EQ(counters().v3GeneralQueryReceived, 4u);

    std::pair<Bytes, bool> const queries[] = {{v1Query(), true},
                                              {message(IgmpType::query, ip("10.1.1.1")), true},
                                              {v3Query(0), true},
                                              {v3Query(1), false},
                                              {v2Query(1), false}};
    for (auto const& [query, ofVersion1] : queries) {
        hear(query);
        for (auto [seconds, version] : {std::pair(399.9, 1u), std::pair(0.2, 2u)}) {
            serve(seconds);
            EXPECT_EQ(engine.version(), ofVersion1 ? version : 2)
                << int(query[1]) << ", " << seconds;
        }
    }
    hear(v3Query(1));
    speak(3);
    EXPECT_EQ(engine.version(), 3u) << "the querier is of version 3";
}

TEST_F(HostEngineOlderTest, SourceSpecificHostIgnoresOlderQueriers) {
    settings.ssmOnly = true;
    settingsApply();
    include(g1, {a});
    settle();
    for (Bytes const& query : {v1Query(), v2Query(100), v2Query(100, g1)})
        EXPECT_EQ(answer(query, 30), "");
    EXPECT_EQ(engine.version(), 3u);
    EXPECT_EQ(counters().v2GroupQueryReceived, 1u);
    EXPECT_EQ(warnings.size(), 1u);
    answer(v2Query(100), 600);
    answer(v2Query(100));
    EXPECT_EQ(warnings.size(), 2u) << "once in ten minutes";
}

} // namespace
} // namespace Agent
