// What leaves when the wanted state changes.
#include "agent/igmp/HostEngineFixture.h"

#include <map>
#include <set>

namespace Agent {
namespace {

using HostEngineChangeTest = HostEngineFixture;

auto constexpr in = FilterMode::include, ex = FilterMode::exclude;

/// The records of a text, in the order of their groups.
std::string inOrder(std::string const& text) {
    std::map<std::string, std::string> records;
    for (std::size_t at = 0; at <= text.size();) {
        std::size_t end = std::min(text.find_first_of(",;", at), text.size());
        std::string record = text.substr(at, end - at);
        records[record.substr(record.find("239."))] += record;
        at = end + 2;
    }
    std::string all;
    for (auto& [key, record] : records) all += (all.empty() ? "" : ", ") + record;
    return all;
}

TEST_F(HostEngineChangeTest, ChangesAreToldAtOnceAndOnceMoreAndMergeMeanwhile) {
    struct Case {
        FilterMode mode;
        std::string sources; // the last digit of each
        double seconds;      // until the next change
        std::string atOnce, again;
    } const cases[] = {
        {in, "212", 9, "ALLOW g 1 2", "ALLOW g 1 2"},
        {in, "23", 9, "ALLOW g 3, BLOCK g 1", "ALLOW g 3, BLOCK g 1"},
        {in, "2", 9, "BLOCK g 3", "BLOCK g 3"},
        {ex, "2", 9, "TO_EX g 2", "TO_EX g 2"},
        {ex, "2", 9, "", ""},
        {ex, "3", 9, "ALLOW g 2, BLOCK g 3", "ALLOW g 2, BLOCK g 3"},
        {in, "3", 9, "TO_IN g 3", "TO_IN g 3"},
        {in, "", 9, "BLOCK g 3", "BLOCK g 3"},
        {ex, "", 9, "TO_EX g", "TO_EX g"},
        {in, "", 9, "TO_IN g", "TO_IN g"},
        {in, "1", 0, "ALLOW g 1", ""},
        {in, "12", 9, "ALLOW g 1 2", "ALLOW g 2"}, // the first was told twice by then
        {in, "1", 0, "BLOCK g 2", ""},
        {in, "12", 9, "ALLOW g 2", "ALLOW g 2"}, // back before its end was told twice
        {in, "", 0, "BLOCK g 1 2", ""},
        {in, "2", 9, "ALLOW g 2, BLOCK g 1", "ALLOW g 2"},
        {ex, "", 0, "TO_EX g", ""},
        {ex, "1", 9, "TO_EX g 1", "BLOCK g 1"}, // the mode was told twice by then
        {in, "2", 0, "TO_IN g 2", ""},
        {ex, "", 9, "TO_EX g", "TO_EX g"},
    };
    auto full = [](std::string const& text) {
        std::string result;
        for (char letter : text) {
            if (letter == 'g') result += "239.1.1.";
            if (letter >= '1' && letter <= '3') result += "10.0.0.1";
            result += letter == 'g' ? '1' : letter;
        }
        return result;
    };
    for (Case const& c : cases) {
        Sources sources;
        for (char digit : c.sources)
            sources.push_back(Lox::IpAddr::fromHost(a.host() + unsigned(digit - '1')));
        engine.groupIs(g1, c.mode, sources);
        EXPECT_EQ(flush(), full(c.atOnce)) << &c - cases;
        EXPECT_EQ(pass(c.seconds), full(c.again)) << &c - cases;
    }
    EXPECT_EQ(engine.nextExpiry(), never);
}

TEST_F(HostEngineChangeTest, TurnThatEndsAsItBeganIsSilent) {
    include(g1, {a});
    engine.groupDel(g1);
    EXPECT_EQ(flush(), "");
    include(g1, {a});
    settle();
    exclude(g1);
    include(g1, {a});
    EXPECT_EQ(flush(), "");
    EXPECT_EQ(engine.nextExpiry(), never);
}

TEST_F(HostEngineChangeTest, RepeatsComeAtRandomWithinTheInterval) {
    settings.robustness = 5;
    settingsApply();
    std::set<double> delays;
    for (Lox::IpAddr group : range("239.1.1.1", 50)) {
        exclude(group);
        engine.flush(now);
        for (unsigned repeat = 1; repeat < 5; ++repeat) {
            double due = engine.nextExpiry();
            delays.insert(due - now);
            engine.timeIs(now = due);
            ASSERT_EQ(sent.size(), repeat + 1);
        }
        EXPECT_EQ(engine.nextExpiry(), never);
        taken();
    }
    EXPECT_TRUE(0 < *delays.begin() && *delays.begin() < 0.1) << *delays.begin();
    EXPECT_TRUE(0.9 < *delays.rbegin() && *delays.rbegin() < 1) << *delays.rbegin();
}

TEST_F(HostEngineChangeTest, SomeStateIsNeverMentionedOrOnlyWithAWarning) {
    exclude(allSystems);
    exclude(ip("10.1.1.1"));
    exclude(ip("232.1.1.1"));
    EXPECT_EQ(flush(), "");
    EXPECT_EQ(warnings.size(), 1u);
    include(ip("232.1.1.1"), {a});
    EXPECT_EQ(flush(), "ALLOW 232.1.1.1 10.0.0.11");
    exclude(ip("232.1.1.1"), {a}); // not announced, so it ends the membership
    EXPECT_EQ(flush(), "BLOCK 232.1.1.1 10.0.0.11");
    EXPECT_EQ(warnings.size(), 1u) << "limited in rate";
    exclude(g1, {a});
    exclude(g2, {a});
    EXPECT_EQ(flush(), "TO_EX 239.1.1.1 10.0.0.11, TO_EX 239.1.1.2 10.0.0.11");
    EXPECT_EQ(warnings.size(), 2u);
}

TEST_F(HostEngineChangeTest, LinkThatComesUpAnnouncesTheStateThatIsWantedThen) {
    include(g1, {a});
    exclude(g2);
    engine.flush(now);
    engine.linkDown(now);
    EXPECT_EQ(engine.nextExpiry(), never) << "repeats are dropped";
    taken();
    include(g1, {b});
    engine.groupDel(g2);
    EXPECT_EQ(flush(), "");
    EXPECT_EQ(answer(v3Query(10)), "");
    engine.linkUp(now);
    EXPECT_EQ(taken(), "ALLOW 239.1.1.1 10.0.0.12");
    EXPECT_EQ(pass(9), "ALLOW 239.1.1.1 10.0.0.12");

    settings.address = ip("10.0.0.3"); // of every packet from here on
    settingsApply();
    EXPECT_EQ(pass(9), "ALLOW 239.1.1.1 10.0.0.12; ALLOW 239.1.1.1 10.0.0.12");
    settings.robustness = 3;
    settingsApply();
    EXPECT_EQ(pass(9), "") << "other settings say nothing new to the routers";
}

TEST_F(HostEngineChangeTest, LeavingTellsEachGroupAsOftenAsAChangeWithGaps) {
    settings.robustness = 3;
    for (unsigned version : {3u, 2u, 1u}) {
        speak(version);
        include(g1, {a});
        settle();
        exclude(g2); // whose joining is still to be repeated
        engine.flush(now);
        taken();
        double start = now;
        engine.leaveAll(now);
        serve(1);
        EXPECT_TRUE(engine.hasLeft());
        EXPECT_EQ(engine.nextExpiry(), never);
        ASSERT_EQ(sent.size(), version == 3 ? 3u : version == 2 ? 6u : 0u);
        for (std::size_t i = 0; i < sent.size(); ++i) {
            std::string next = version == 3 ? "" : "; " + sent[i ^ 1].text;
            EXPECT_EQ(inOrder(sent[i].text + next),
                      version == 3 ? "BLOCK 239.1.1.1 10.0.0.11, TO_IN 239.1.1.2"
                                   : "leave 239.1.1.1, leave 239.1.1.2");
            double round = HostEngine::leaveSeconds / 3, at = double(version == 3 ? 2 * i : i) / 2;
            EXPECT_NEAR(sent[i].time, start + at * round, 1.0 / 128);
        }
        taken();
    }
}

TEST_F(HostEngineChangeTest, GroupThatComesBackWhileItIsLeftIsJoinedAgain) {
    include(g1, {a, b});
    exclude(g2);
    settle();
    engine.leaveAll(now);
    EXPECT_EQ(inOrder(taken()), "BLOCK 239.1.1.1 10.0.0.11 10.0.0.12, TO_IN 239.1.1.2");
    include(g1, {b, c});
    EXPECT_EQ(flush(), "ALLOW 239.1.1.1 10.0.0.12 10.0.0.13, BLOCK 239.1.1.1 10.0.0.11");
    hear(v3Query(1));
    EXPECT_EQ(pass(0.1), "IS_IN 239.1.1.1 10.0.0.12 10.0.0.13");
    serve(9);
    std::sort(sent.begin(), sent.end(), [](auto& x, auto& y) { return x.text < y.text; });
    EXPECT_EQ(taken(), "ALLOW 239.1.1.1 10.0.0.12 10.0.0.13; TO_IN 239.1.1.2");
    engine.leaveAll(now);
    engine.linkDown(now);
    EXPECT_EQ(engine.nextExpiry(), never);
}

TEST_F(HostEngineChangeTest, WhatWasGivenUpWhileTheLinkWasAwayIsOwedUntilAllIsKnown) {
    Lox::IpAddr g3 = ip("239.1.1.3"), g4 = ip("239.1.1.4"), g5 = ip("239.1.1.5");
    include(g1, {a, b});
    exclude(g2);
    exclude(g3);
    include(g4, {a});
    settle();
    engine.groupDel(g4); // told once when the link goes
    engine.flush(now);
    for (unsigned flaps = 0; flaps < 3; ++flaps) {
        engine.linkDown(now);
        include(g1, {b});
        engine.groupDel(g2);
        include(g3, {a});
        exclude(g5);
        engine.flush(now);
        engine.groupDel(g5); // which no router has heard of
        engine.flush(now);
        taken();
        engine.linkUp(now);
        EXPECT_EQ(inOrder(taken()), "ALLOW 239.1.1.1 10.0.0.12, ALLOW 239.1.1.3 10.0.0.11");
    }
    settle();
    EXPECT_TRUE(engine.hasFormer());
    RecordList held;
    engine.heldRecordsAdd(held);
    EXPECT_EQ(held.size(), 2u + 4u) << "however often the link went";
    taken();
    engine.formerEnd(now);
    serve(9);
    std::set<std::string> owed{"BLOCK 239.1.1.1 10.0.0.11", "TO_IN 239.1.1.2",
                               "TO_IN 239.1.1.3 10.0.0.11", "BLOCK 239.1.1.4 10.0.0.11"};
    for (SentPacket const& packet : sent)
        for (std::string const& each : owed)
            EXPECT_NE((packet.text + ",").find(each + ","), std::string::npos) << packet.text;
    EXPECT_EQ(sent.size(), 2u);
    EXPECT_FALSE(engine.hasFormer());
    EXPECT_EQ(engine.nextExpiry(), never);
}

TEST_F(HostEngineChangeTest, StateOfAnEarlierRunIsTakenBackUnlessItIsWantedAgain) {
    for (unsigned version : {3u, 2u}) {
        exclude(g1);
        include(g2, {a});
        settle();
        speak(version);
        settle();
        RecordList held;
        engine.heldRecordsAdd(held);
        HostEngine next(*this, std::mt19937(7));
        next.settingsIs(now, settings);
        next.formerAdd(held);
        next.groupIs(g2, in, Sources{b});
        taken();
        next.linkUp(now);
        EXPECT_EQ(taken(), version == 3 ? "ALLOW 239.1.1.2 10.0.0.12" : "v2 239.1.1.2");
        if (version == 3) { // ended before all was known
            next.leaveAll(now);
            EXPECT_NE(taken().find("TO_IN 239.1.1.1"), std::string::npos);
            continue;
        }
        next.formerEnd(now);
        EXPECT_EQ(taken(), "leave 239.1.1.1");
    }
}

/// What a router believes that listens to this host alone, and loses one of its packets.
class LossyRouter : public HostEngine::Output {
  public:
    explicit LossyRouter(unsigned lost) : lost_(lost) {}
    void warn(std::string const&) override {}
    void send(std::span<std::uint8_t const> packet) override {
        if (count_++ == lost_) return;
        for (std::size_t at = 32; at < packet.size();) {
            auto& [exclude, list] = groups[Lox::IpAddr::fromOctets(&packet[at + 4])];
            unsigned type = packet[at];
            if (type <= 4) list.clear();
            if (type <= 4) exclude = type % 2 == 0;
            bool listed = type <= 4 || exclude == (type == 6);
            for (unsigned left = packet[at + 3]; left > 0; --left, at += 4) {
                auto source = Lox::IpAddr::fromOctets(&packet[at + 8]);
                if (listed)
                    list.insert(source);
                else
                    list.erase(source);
            }
            at += 8;
        }
        std::erase_if(groups,
                      [](auto& item) { return !item.second.first && item.second.second.empty(); });
    }

    std::map<Lox::IpAddr, std::pair<bool, std::set<Lox::IpAddr>>> groups; // exclude?, its list

  private:
    unsigned lost_, count_ = 0;
};

TEST(HostEngineLossTest, RouterKnowsTheStateThoughAReportIsLost) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        std::mt19937 random(seed);
        LossyRouter router(unsigned(random() % 40)), wanted(0);
        HostEngine engine(router, random);
        double now = 0;
        engine.linkUp(now);
        for (unsigned step = 0; step < 30; ++step) {
            auto group = Lox::IpAddr::fromHost(0xEF000001u + unsigned(random() % 3));
            Sources sources;
            for (Lox::IpAddr source : range("10.0.0.1", 5))
                if (random() % 2) sources.push_back(source);
            bool exclude = random() % 2;
            engine.groupIs(group, exclude ? ex : in, sources);
            wanted.groups[group] = {exclude, {sources.begin(), sources.end()}};
            if (!exclude && sources.empty()) wanted.groups.erase(group);
            if (random() % 2) engine.flush(now);
            for (double end = now + 0.3 * double(random() % 4); engine.nextExpiry() <= end;)
                engine.timeIs(now = engine.nextExpiry());
        }
        engine.flush(now);
        while (engine.nextExpiry() < never) engine.timeIs(now = engine.nextExpiry());
        ASSERT_EQ(router.groups, wanted.groups) << "seed " << seed;
    }
}

} // namespace
} // namespace Agent
