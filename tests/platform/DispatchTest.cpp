// Notification under disturbance: what a callback may do to whoever is being notified.
#include "TestRecords.h"

#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>

namespace Nex {
namespace {

using Act = std::function<void()>;

/// Writes its label as it is told of the number, then does what the test wants.
class Watcher : public Reactor<Tree::Notifiee, PtrInterface> {
  public:
    Watcher(Ptr<Tree> tree, PtrInterface* machine, char label, String* told)
        : Reactor(std::move(tree), machine), label_(label), told_(told) {}
    Act act;

    void onNumber() override {
        *told_ += label_;
        if (act) act();
    }

  private:
    char label_;
    String* told_;
};

struct Machine : PtrInterface {
    ~Machine() override {
        nexDoZombieReactors(true);
        if (atEnd) atEnd();
    }
    Act atEnd;
    Owned<Watcher> first, second;
};

class DispatchTest : public testing::Test {
  protected:
    void watchersAre(std::size_t count) {
        watchers.clear();
        while (watchers.size() < count) add();
    }
    Ptr<Watcher> newWatcher(PtrInterface* machine = nullptr) {
        auto const watcher = newObject<Watcher>(tree, machine, nextLabel_++, &told);
        watcher->hasNotificationActiveIs(true);
        return watcher;
    }
    void add() {
        if (watchers.empty()) nextLabel_ = 'A';
        watchers.push_back(newWatcher());
    }
    /// The labels that are told of a change of the number.
    String change() {
        told.clear();
        tree->numberIs(tree->number() + 1);
        return told;
    }
    /// The labels of all watchers, in their order, as they are told when nothing disturbs.
    String labels(std::size_t count) const { return String("ABCDEFG").substr(0, count); }

    Ptr<Tree> tree = Tree::TreeIs("tree");
    String told;
    std::vector<Ptr<Watcher>> watchers;

  private:
    char nextLabel_ = 'A';
};

String without(String labels, char label) {
    std::erase(labels, label);
    return labels;
}

TEST_F(DispatchTest, SwitchingOnDeliversNothing) {
    tree->numberIs(5);
    watchersAre(1);
    EXPECT_EQ(told, "");
    watchers[0]->hasNotificationActiveIs(false);
    EXPECT_EQ(change(), "");
    watchers[0]->hasNotificationActiveIs(true);
    EXPECT_EQ(told, "");
    EXPECT_EQ(change(), "A");
}

/// Self, neighbour and zombie: each watcher takes each out, in every way there is.
TEST_F(DispatchTest, WhoeverIsTakenOutIsToldNoMoreAndTheOthersOnce) {
    auto const elsewhere = Tree::TreeIs("elsewhere");
    std::vector<std::function<void(Ptr<Watcher>&)>> const ways{
        [](Ptr<Watcher>& watcher) { watcher = nullptr; },
        [](Ptr<Watcher>& watcher) { watcher->nexRetire(); },
        [](Ptr<Watcher>& watcher) { watcher->zombieIs(true); },
        [](Ptr<Watcher>& watcher) { watcher->hasNotificationActiveIs(false); },
        [](Ptr<Watcher>& watcher) { watcher->notifierIs(nullptr); },
        [&](Ptr<Watcher>& watcher) { watcher->notifierIs(elsewhere); }};
    for (std::size_t way = 0; way < ways.size(); ++way)
        for (std::size_t count = 1; count <= 4; ++count)
            for (std::size_t actor = 0; actor < count; ++actor)
                for (std::size_t victim = 0; victim < count; ++victim) {
                    SCOPED_TRACE(testing::Message() << "way " << way << ", " << actor << " of "
                                                    << count << " takes out " << victim);
                    watchersAre(count);
                    watchers[actor]->act = [&] { ways[way](watchers[victim]); };
                    String const left = without(labels(count), char('A' + victim));
                    EXPECT_EQ(change(), victim > actor ? left : labels(count));
                    EXPECT_EQ(change(), left);
                }
}

TEST_F(DispatchTest, ThousandsMayLeaveInAnyOrderAlsoDuringAPass) {
    std::size_t const count = 40000;
    watchersAre(count);
    watchers[0]->act = [&] { // the others in the order of neither coming nor going
        for (std::size_t n = 1; n < count; ++n)
            if (std::size_t const other = n * 7919 % count; other % 10 != 0)
                watchers[other]->notifierIs(nullptr);
    };
    EXPECT_EQ(change().size(), count / 10);
    watchers[0]->act = nullptr;
    for (std::size_t n = count; n-- > 1;) watchers[n] = nullptr;
    EXPECT_EQ(change(), "A");
}

TEST_F(DispatchTest, WatcherThatDropsItselfLivesUntilItsCallbackReturns) {
    for (std::size_t count : {1u, 2u}) {
        watchersAre(count);
        Destructions destructions;
        Watcher const* const self = watchers[0].get();
        watchers[0]->act = [&, count] {
            watchers[0] = nullptr;
            EXPECT_EQ(destructions.count(self), 0);
            EXPECT_EQ(self->notifier(), tree.get()) << "among " << count;
        };
        change();
        EXPECT_EQ(destructions.count(self), 1);
    }
}

TEST_F(DispatchTest, NewcomerIsNotToldOfTheChangeUnderWay) {
    for (std::size_t count = 1; count <= 4; ++count)
        for (std::size_t actor = 0; actor < count; ++actor)
            for (bool const takesOver : {false, true}) {
                watchersAre(count);
                watchers[actor]->act = [&, count] {
                    if (watchers.size() > count) return;
                    if (takesOver) watchers[actor]->nexRetire();
                    add();
                };
                EXPECT_EQ(change(), labels(count));
                String const then = labels(count + 1);
                EXPECT_EQ(change(), takesOver ? without(then, char('A' + actor)) : then);
            }
}

TEST_F(DispatchTest, RetargetingIsANewRegistration) {
    auto const elsewhere = Tree::TreeIs("elsewhere");
    watchersAre(3);
    auto const awayAndBack = [&](std::size_t i) {
        watchers[i]->notifierIs(elsewhere);
        watchers[i]->notifierIs(tree);
    };
    awayAndBack(0);
    EXPECT_EQ(change(), "BCA");
    watchers[1]->act = [&] { awayAndBack(2); };
    EXPECT_EQ(change(), "BA");
    watchers[1]->act = nullptr;
    EXPECT_EQ(change(), "BAC");
    watchers[0]->notifierIs(tree);
    EXPECT_EQ(change(), "BAC") << "it was there already";
}

TEST_F(DispatchTest, NestedChangesAreToldDepthFirst) {
    for (std::size_t count : {1u, 3u}) {
        watchersAre(count);
        tree->numberIs(0);
        std::vector<int> seen;
        for (auto const& watcher : watchers) watcher->act = [&] { seen.push_back(tree->number()); };
        watchers[0]->act = [&] {
            seen.push_back(tree->number());
            if (tree->number() < 3) tree->numberIs(tree->number() + 1);
        };
        EXPECT_EQ(change(), count == 1 ? "AAA" : "AAABCBCBC");
        EXPECT_EQ(seen,
                  count == 1 ? (std::vector{1, 2, 3}) : (std::vector{1, 2, 3, 3, 3, 3, 3, 3, 3}));
    }
}

TEST_F(DispatchTest, LeaversAndNewcomersOfANestedPassDoNotDisturbTheOuterOne) {
    watchersAre(4);
    int calls = 0;
    watchers[1]->act = [&] {
        int const call = ++calls;
        if (call == 1) tree->numberIs(tree->number() + 1);
        if (call != 2) return;
        watchers[0] = watchers[2] = nullptr;
        add();
    };
    // Outer A, B; nested A, B, which takes out A and C and adds E, then D; outer D.
    EXPECT_EQ(change(), "ABABDD");
    EXPECT_EQ(change(), "BDE");
}

TEST_F(DispatchTest, NestedPassOverAListThatJustGrewFromOne) {
    watchersAre(1);
    bool grown = false;
    watchers[0]->act = [&] {
        if (std::exchange(grown, true)) return;
        add();
        add();
        tree->numberIs(tree->number() + 1);
        watchers[1] = nullptr;
    };
    EXPECT_EQ(change(), "AABC");
    EXPECT_EQ(change(), "AC");
}

TEST_F(DispatchTest, ExceptionReachesTheMutatorAndTheNextChangeReachesAll) {
    for (std::size_t count = 1; count <= 3; ++count)
        for (std::size_t actor = 0; actor < count; ++actor) {
            watchersAre(count + 1);
            watchers[actor]->act = [&] {
                watchers[count] = nullptr; // leaves a hole behind the exception
                throw std::runtime_error("callback");
            };
            int const before = tree->number();
            EXPECT_THROW(change(), std::runtime_error);
            EXPECT_EQ(tree->number(), before + 1);
            EXPECT_EQ(told, labels(actor + 1));
            watchers[actor]->act = nullptr;
            EXPECT_EQ(change(), labels(count));
        }
}

TEST_F(DispatchTest, RecordThatItsWatchersDropLivesUntilThePassEnds) {
    for (std::size_t count : {1u, 3u}) {
        tree = Tree::TreeIs("tree");
        watchersAre(count);
        Tree* const record = tree.get();
        Destructions destructions;
        watchers[0]->act = [&] {
            for (auto const& watcher : watchers) watcher->notifierIs(nullptr);
            tree = nullptr;
            EXPECT_EQ(destructions.count(record), 0);
            EXPECT_EQ(record->number(), 1);
        };
        told.clear();
        record->numberIs(1);
        EXPECT_EQ(told, "A");
        EXPECT_EQ(destructions.count(record), 1);
    }
}

TEST_F(DispatchTest, MachineThatIsDroppedLivesUntilTheCallbackReturnsAndThenIsSilent) {
    auto machine = newObject<Machine>();
    Machine const* const raw = machine.get();
    machine->first.make(tree, machine.get(), 'F', &told);
    machine->second.make(tree, machine.get(), 'S', &told);
    watchersAre(1);
    Destructions destructions;
    machine->first->act = [&] {
        machine = nullptr;
        EXPECT_EQ(destructions.count(raw), 0);
    };
    EXPECT_EQ(change(), "FA");
    EXPECT_EQ(destructions.count(raw), 1);
    EXPECT_EQ(change(), "A");
}

TEST_F(DispatchTest, MachineTurnsAllItsReactorsIntoZombiesAndBack) {
    auto const machine = newObject<Machine>();
    machine->first.make(tree, machine.get(), 'F', &told);
    machine->second.make(tree, machine.get(), 'S', &told);
    machine->first->act = [&] { machine->nexDoZombieReactors(true); };
    EXPECT_EQ(change(), "F");
    EXPECT_EQ(change(), "");
    machine->nexDoZombieReactors(false);
    machine->first->act = nullptr;
    EXPECT_EQ(change(), "FS");
}

TEST_F(DispatchTest, MachineMayChangeInItsDestructorWhatItsOwnReactorsWatch) {
    auto machine = newObject<Machine>();
    Machine const* const raw = machine.get();
    machine->first.make(tree, machine.get(), 'F', &told);
    machine->atEnd = [&] { tree->numberIs(42); };
    watchersAre(1);
    Destructions destructions;
    machine = nullptr;
    EXPECT_EQ(told, "A");
    EXPECT_EQ(destructions.count(raw), 1);
}

/// A reactor that is the machine of another one.
struct Outer : Reactor<Tree::Notifiee, PtrInterface> {
    Outer(Ptr<Tree> tree, PtrInterface* machine, String* told) : Reactor(tree, machine) {
        inner.make(std::move(tree), this, told);
    }
    struct Inner : Reactor<Tree::Notifiee, Outer> {
        Inner(Ptr<Tree> tree, Outer* outer, String* told)
            : Reactor(std::move(tree), outer), told_(told) {}
        void onNumber() override {
            *told_ += 'I';
            if (act) act();
        }
        Act act;
        String* told_;
    };
    Owned<Inner> inner;
};

TEST_F(DispatchTest, ReactorOfAReactorIsSilencedByEitherMachine) {
    auto const machine = newObject<Machine>();
    auto const outer = newObject<Outer>(tree, machine.get(), &told);
    EXPECT_EQ(change(), "I");
    machine->nexDoZombieReactors(true);
    EXPECT_EQ(change(), "");
    machine->nexDoZombieReactors(false);
    outer->nexDoZombieReactors(true);
    EXPECT_EQ(change(), "");
    outer->nexDoZombieReactors(false);
    outer->nexRetire();
    EXPECT_EQ(change(), "") << "its machine was let go of";
}

TEST_F(DispatchTest, ReactorOfAReactorKeepsBothMachinesUntilItReturns) {
    auto machine = newObject<Machine>();
    auto outer = newObject<Outer>(tree, machine.get(), &told);
    std::array<PtrInterface const*, 3> const chain{machine.get(), outer.get(), outer->inner.get()};
    Destructions destructions;
    outer->inner->act = [&] {
        machine = nullptr;
        outer = nullptr;
        EXPECT_EQ(destructions.size(), 0u);
    };
    EXPECT_EQ(change(), "I");
    for (auto const* object : chain) EXPECT_EQ(destructions.count(object), 1);
}

} // namespace
} // namespace Nex
