// Where a record stands in the tree of records, and what lives on as it is dropped.
#include "TestRecords.h"

#include <gtest/gtest.h>
#include <new>

namespace Nex {
namespace {

Lox::IpAddr ip(std::uint32_t n) { return Lox::IpAddr::fromHost(n); }

TEST(RecordTest, RecordThatIsDroppedInTheMiddleLivesUntilTheEnd) {
    using Drop = std::function<void()>;
    auto const walked = [](auto walk, Drop const& drop) {
        int entries = 0;
        for ([[maybe_unused]] auto const& yielded : walk) drop(), ++entries;
        EXPECT_EQ(entries, 3);
    };
    std::function<void(Tree&, Drop const&)> const ways[] = {
        [](Tree& t, Drop const&) { t.numberIs(1); },
        [](Tree& t, Drop const&) { t.wordIs("word"); },
        [](Tree& t, Drop const&) { t.addressDelAll(); },
        [](Tree& t, Drop const&) { t.octetDelAll(); },
        [](Tree& t, Drop const&) { t.leafDelAll(); },
        [&](Tree& t, Drop const& drop) { walked(t.address(), drop); },
        [&](Tree& t, Drop const& drop) { walked(t.octet(), drop); },
        [&](Tree& t, Drop const& drop) { walked(t.leaf(), drop); },
        [&](Tree& t, Drop const& drop) { walked(std::as_const(t).leaf(), drop); },
    };
    for (auto const& way : ways)
        for (std::size_t const watching : {1u, 2u}) {
            auto tree = Tree::TreeIs("tree");
            for (std::uint32_t n = 1; n <= 3; ++n) {
                tree->addressIs(ip(n));
                tree->octetIs(ip(n), std::uint8_t(n));
                EXPECT_EQ(tree->octet(ip(n)), n);
                tree->leafIs(textOf(n));
            }
            std::vector<Ptr<Watcher>> watchers;
            while (watchers.size() < watching) watchers.push_back(newObject<Watcher>(tree));
            Destructions destructions;
            Tree* const record = tree.get();
            watchers[0]->act = [&] {
                tree = nullptr;
                for (auto const& watcher : watchers) watcher->notifierIs(nullptr);
                EXPECT_EQ(destructions.count(record), 0);
            };
            way(*record, watchers[0]->act);
            EXPECT_EQ(destructions.count(record), 1);
        }
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

TEST(RecordTest, EntryThatIsRemovedIsARootOfItsOwnAndStaysUsable) {
    auto tree = Tree::TreeIs("tree");
    auto const byKey = tree->leafIs("byKey"), byAll = tree->leafIs("byAll");
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
    tree = nullptr;
    EXPECT_EQ(last->nexFullName(), "last") << "the parent is destroyed";
}

TEST(RecordTest, DeletingWhatIsNotThereTellsNobody) {
    auto const tree = Tree::TreeIs("tree");
    auto const watcher = newObject<Watcher>(tree);
    watcher->act = [] { ADD_FAILURE(); };
    tree->addressDel(ip(1));
    tree->octetDel(ip(1));
    tree->leafDel("leaf");
}

TEST(RecordTest, AttributeThatIsReplacedIsARootOfItsOwn) {
    auto const tree = Tree::TreeIs("tree");
    auto const watcher = newObject<Watcher>(tree);
    for (auto const& successor : {Leaf::LeafIs("successor"), Ptr<Leaf>()}) {
        auto const top = Leaf::LeafIs("name");
        top->nexParentIs(tree.get());
        tree->topIs(top);
        EXPECT_EQ(top->nexFullName(), "tree/top");
        watcher->act = [&] { EXPECT_EQ(top->nexReferences(), 1u) << "let go before it is told"; };
        tree->topIs(successor);
        watcher->act = nullptr;
        EXPECT_EQ(top->nexFullName(), "name");
    }
}

} // namespace
} // namespace Nex
