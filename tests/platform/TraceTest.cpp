// Both trace channels: the same text at the same level, the ring always, text only on demand.
#include "Nex/Trace.h"

#include "Lox/Names.h"
#include "Nex/System.h"
#include "TestRecords.h"

#include <gtest/gtest.h>

namespace Nex {

static TraceHandle traced("TraceTest");
static TraceHandle tracedNeighbour("TraceTestNeighbour");

/// Outside the unnamed namespace, which each compiler spells in its own way.
struct TracedMachine {
    void handleKey(int key) const { NEX_TRACE_ENTRY(traced, " ( % )", key); }
    void handleAll() const { NEX_TRACE_ENTRY(traced); }
};

namespace {

class TraceTest : public testing::Test, public TraceSink {
  protected:
    TraceTest() {
        TraceHandle::sinkIs(this);
        traced.levelIs(9);
    }
    ~TraceTest() override { TraceHandle::sinkIs(nullptr); }
    void onTrace(TraceHandle const& handle, unsigned level, String const& text) override {
        lines.push_back(String(handle.fileName()) + ' ' + textOf(level) + ' ' + text);
        throw 0; // disturbs nobody
    }
    /// Entries before the last one, from 0.
    static Lumen::Entry const& entry(std::uint64_t before = 0) {
        return Lumen::ring.entry(Lumen::ring.written() - 1 - before);
    }
    /// The last line of both channels, which must be one.
    String both() {
        String const ring = "TraceTest " + textOf(entry().point->level) + ' ' + entry().text();
        EXPECT_EQ(lines.empty() ? "" : lines.back(), ring);
        return ring;
    }

    std::vector<String> lines;
};

TEST_F(TraceTest, BothChannelsCarryTheSameTextAndLevel) {
    NEX_TRACE(traced, 7, "Adding source : % to group : %", Lox::IpAddr("10.0.0.1"),
              Lox::IpAddr("239.1.1.1"));
    EXPECT_EQ(both(), "TraceTest 7 Adding source : 10.0.0.1 to group : 239.1.1.1");
    NEX_TRACE(traced, 3, "no value");
    EXPECT_EQ(both(), "TraceTest 3 no value");
    NEX_TRACE(traced, 6, "%%", 1u, String("adjacent % is no place for a value"));
    EXPECT_EQ(both(), "TraceTest 6 1adjacent % is no place for a value");
    NEX_TRACE(traced, 6, "%, %, %, %", "", Lox::IntfId("up0"), true, 0.5);
    EXPECT_EQ(both(), "TraceTest 6 , up0, 1, 0.5");
    TracedMachine().handleKey(4);
    EXPECT_EQ(both(), "TraceTest 8 void Nex::TracedMachine::handleKey(int) const ( 4 )");
    TracedMachine().handleAll();
    EXPECT_EQ(both(), "TraceTest 8 void Nex::TracedMachine::handleAll() const");
    EXPECT_EQ(entry().point->line, entry(1).point->line + 1);
}

TEST_F(TraceTest, LevelsAreThoseOfEachHandleAndTheRingTakesAll) {
    auto const written = Lumen::ring.written();
    for (unsigned level : {0u, 5u, 6u, 7u}) {
        traced.levelIs(level);
        NEX_TRACE(traced, 6, "six");
        NEX_TRACE(tracedNeighbour, 6, "silent");
    }
    EXPECT_EQ(lines, (std::vector<String>{"TraceTest 6 six", "TraceTest 6 six"}));
    TraceHandle::sinkIs(nullptr);
    NEX_TRACE(traced, 6, "to nobody");
    EXPECT_EQ(Lumen::ring.written(), written + 9);
    EXPECT_EQ(TraceHandle::handle("TraceTest"), &traced);
    EXPECT_EQ(TraceHandle::handle("TraceTestNeighbour"), &tracedNeighbour);
    EXPECT_EQ(TraceHandle::handle("Trace"), nullptr);
}

TEST_F(TraceTest, LongNamesAreKeptElsewhereUntilOthersTakeTheirPlace) {
    String const x(500, 'x'), y(30, 'y');
    NEX_TRACE(traced, 6, "%|", x);
    EXPECT_EQ(both(), "TraceTest 6 " + x + '|');
    NEX_TRACE(traced, 6, "%|%|%|%", x, y, Lox::IntfId(y), 7);
    EXPECT_EQ(both(), "TraceTest 6 " + x + '|' + y + '|' + y + "|7");
    NEX_TRACE(traced, 6, "%|%|%|%", String(46, 'x'), "y", "z", String());
    EXPECT_EQ(both(), "TraceTest 6 " + String(46, 'x') + "|y|z|");
    // Goes round the end of their ring at each place.
    for (unsigned n = 0; n < 1000; ++n) {
        String const name = std::to_string(n) + String(100, 'z');
        NEX_TRACE(traced, 6, "%", name);
        ASSERT_EQ(both(), "TraceTest 6 " + name);
    }
    EXPECT_EQ(entry(1000).text(), "...|y|z|");
    NEX_TRACE(traced, 6, "%", String(Lumen::LongTexts::capacity + 1, 'x'));
    EXPECT_EQ(both(), "TraceTest 6 " + String(Lumen::LongTexts::capacity, 'x'));
}

TEST_F(TraceTest, ValuesThatDoNotFitIntoAnEntryAreLeftOut) {
    // A number that does not fit ends the entry; what would fit after it is not taken for it.
    NEX_TRACE(traced, 6, "%%%%%|%|%|%", 1ull, 2ull, 3ull, 4ull, 5ull, 3, 1.5, 'c');
    EXPECT_EQ(both(), "TraceTest 6 12345|3||");
    NEX_TRACE(traced, 6, "%%%%%|%", 1ull, 2ull, 3ull, 4ull, 5ull, "a text of some length");
    EXPECT_EQ(both(), "TraceTest 6 12345|a text ");
    NEX_TRACE(traced, 6, "%%%%%%%", 1ull, 2ull, 3ull, 4ull, 5ull, 6ull, "seven");
    EXPECT_EQ(both(), "TraceTest 6 123456");
}

TEST_F(TraceTest, TheRingKeepsTheLastEntriesAsItWrapsAround) {
    auto const pass = [](std::uint64_t number) { NEX_TRACE(traced, 6, "%", number); };
    std::size_t const capacity = Lumen::Ring::capacity();
    for (std::uint64_t n = 0; n < 2 * capacity + 3; ++n) pass(n);
    for (std::uint64_t before = 0; before < capacity; ++before)
        ASSERT_EQ(entry(before).text(), textOf(2 * capacity + 2 - before));
}

TEST_F(TraceTest, OneCallbackCarriesOneStampAndStampsDoNotRunBackwards) {
    auto const tree = Tree::TreeIs("tree");
    auto const watcher = newObject<Watcher>(tree);
    watcher->act = [&] {
        NEX_TRACE(traced, 6, "%", tree->number());
        auto const before = System::currentTime();
        while (System::currentTime() == before) continue;
        if (tree->number() % 2 != 0) tree->numberIs(tree->number() + 1); // a callback inside it
        NEX_TRACE(traced, 6, "again");
    };
    auto const began = System::currentTime();
    tree->numberIs(1);
    EXPECT_EQ(entry(2).text(), "2");
    auto const first = entry().stamp;
    for (unsigned before : {1u, 2u, 3u}) EXPECT_EQ(entry(before).stamp, first);
    tree->numberIs(4);
    auto const second = entry().stamp;
    EXPECT_GT(second, first) << "another callback";
    NEX_TRACE(traced, 6, "outside");
    EXPECT_GT(entry().stamp, second);
    auto const ended = System::currentTime();
    double const seconds = Lumen::ring.secondsOf(entry());
    EXPECT_NEAR(seconds, (began + ended) / 2, ended - began + 0.01);
}

} // namespace
} // namespace Nex
