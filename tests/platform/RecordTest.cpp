// Where a record stands in the tree of records, and what lives on as it is dropped.
#include "TestRecords.h"

#include <gtest/gtest.h>
#include <new>

namespace Nex {
namespace {

Lox::IpAddr ip(std::uint32_t n) { return Lox::IpAddr::fromHost(n); }

class RecordTest : public testing::Test {
  protected:
    Ptr<Tree> tree = Tree::TreeIs("tree");
    Ptr<Watcher> recorder = newObject<Watcher>(tree);
};

TEST_F(RecordTest, RecordThatIsDroppedInTheMiddleLivesUntilTheEnd) {
    auto const lives = [this](auto act) {
        recorder->notifierIs(tree = Tree::TreeIs("tree"));
        for (std::uint32_t n = 1; n <= 3; ++n) {
            tree->addressIs(ip(n));
            tree->octetIs(ip(n), std::uint8_t(n));
            tree->leafIs(textOf(n));
        }
        Destructions destructions;
        Tree* const record = tree.get();
        auto const drop = [&, record] {
            tree = nullptr;
            recorder->notifierIs(nullptr);
            EXPECT_EQ(destructions.count(record), 0);
        };
        recorder->act = drop;
        act(*record, drop);
        recorder->act = nullptr;
        EXPECT_EQ(destructions.count(record), 1);
    };
    for (auto const delAll : {&Tree::addressDelAll, &Tree::octetDelAll, &Tree::leafDelAll})
        lives([&](Tree& record, auto const&) { (record.*delAll)(); });
    auto const walked = [&](auto walk) {
        lives([&](Tree& record, auto const& drop) {
            int entries = 0;
            for ([[maybe_unused]] auto const& yielded : walk(record)) drop(), ++entries;
            EXPECT_EQ(entries, 3);
        });
    };
    walked([](Tree& t) { return t.address(); });
    walked([](Tree& t) { return t.octet(); });
    walked([](Tree& t) { return t.leaf(); });
    walked([](Tree const& t) { return t.leaf(); });
}

/// There is no memory for an odd one.
#define EVEN(ATTR, SET, MAP, RECORDS) ATTR(int, half, Half)
#define EVENS(ATTR, SET, MAP, RECORDS) RECORDS(int, Even, even, Even)
struct EvenKey {
    int number = 0;
    EvenKey(int n = 0) : number(n % 2 == 0 ? n : throw std::bad_alloc()) {}
    operator int() const { return number; }
};
class Even : public RecordBase {
    NEX_RECORD(Even, EvenKey, number, EVEN)
};
class Evens : public RecordBase {
    NEX_RECORD(Evens, String, name, EVENS)
};

TEST(RecordMemoryTest, EntryStandsWithItsRecordOrNotAtAll) {
    auto const evens = Evens::EvensIs("evens");
    EXPECT_THROW(evens->evenIs(1), std::bad_alloc);
    EXPECT_EQ(evens->evenCount(), 0u);
}

TEST_F(RecordTest, RemovedEntityIsARootOfItsOwnAndStaysUsable) {
    auto const byKey = tree->leafIs("byKey"), byAll = tree->leafIs("byAll"),
               byParent = tree->leafIs("byParent");
    EXPECT_EQ(byKey->nexParent(), tree.get());
    EXPECT_EQ(byKey->nexFullName(), "tree/leaf/byKey");
    EXPECT_EQ(tree->budIs("byKey")->nexFullName(), "tree/bud/byKey");
    tree->topIs(byKey);
    tree->topIs(nullptr);
    EXPECT_EQ(byKey->nexFullName(), "tree/leaf/byKey") << "its collection has it still";
    tree->leafDel("byKey");
    EXPECT_EQ(byKey->nexFullName(), "byKey");
    tree->leafDelAll();
    EXPECT_EQ(byAll->nexFullName(), "byAll");
    auto const last = tree->leafIs("last");
    recorder = nullptr;
    tree = nullptr;
    EXPECT_EQ(last->nexFullName(), "last") << "the parent is destroyed";
    last->numberIs(3);
    EXPECT_EQ(last->number(), 3);
}

TEST_F(RecordTest, AttributeThatIsReplacedIsARootOfItsOwn) {
    for (auto const& successor : {Leaf::LeafIs("successor"), Ptr<Leaf>()}) {
        auto const top = Leaf::LeafIs("name");
        top->nexParentIs(tree.get());
        tree->topIs(top);
        EXPECT_EQ(top->nexFullName(), "tree/top");
        recorder->act = [&] { EXPECT_EQ(top->nexReferences(), 1u) << "let go before it is told"; };
        tree->topIs(successor);
        recorder->act = nullptr;
        EXPECT_EQ(top->nexParent(), nullptr);
        EXPECT_EQ(top->nexFullName(), "name");
    }
}

} // namespace
} // namespace Nex
