// Collections of reactors and machines: what stands under a key when making one is disturbed.
#include "TestRecords.h"

#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>

namespace Nex {
namespace {

/// What machines and reactors are made for. Hears of what they hear.
struct Maker : PtrInterface {
    void start() {
        if (auto const once = std::exchange(startUp, nullptr)) once();
    }
    /// Run in the constructor of what is made next.
    std::function<void()> startUp;
    int changes = 0, pointings = 0;
};

struct NexLeaves : Reactor<Tree::Notifiee, Maker> {
    NexLeaves(Ptr<Tree> watched, Maker* maker) : Reactor(std::move(watched), maker) {
        maker->start();
    }
    void onNumber() override { ++machine()->changes; }
    void onNotifier() override { ++machine()->pointings; }
};

struct Worker : PtrInterface {
    Worker(Ptr<Tree> tree, Maker* m) : left(tree), maker(m) {
        nexLeft.make(std::move(tree), this);
        maker->start();
    }
    ~Worker() override { nexDoZombieReactors(true); }
    auto nexArguments() const { return std::make_tuple(left); }
    static constexpr char const* nexArgumentNames[] = {"left"};

    struct NexLeft : Reactor<Tree::Notifiee, Worker> {
        using Reactor::Reactor;
        void onNumber() override { ++machine()->maker->changes; }
    };
    Ptr<Tree> const left;
    Maker* const maker;
    Owned<NexLeft> nexLeft;
};

struct Owner : Maker {
    static constexpr char nexTypeName[] = "Test::Owner";

    Ptr<Worker> workerIs(int key, Ptr<Tree> left) {
        auto const make = [this](int, Ptr<Tree> l) { return newObject<Worker>(l, this); };
        return worker.is(make, key, left);
    }
    void leavesDelUnless() {
        leaves_.delUnless([](String const&) { return false; });
    }
    MachineMap<int, Worker> worker;
    Owned<NexLeaves> single;

    NEX_REACTORS(String, NexLeaves, leaves, Tree, name)
};

/// What is asked for last while something is made is what stands there, and alone is heard, also if
/// whoever asked throws, and whoever holds what was made.
TEST(MachineTest, WhatIsDisturbedWhileItIsMade) {
    auto const tree = Tree::TreeIs("tree"), twin = Tree::TreeIs("tree");
    auto const owner = newObject<Owner>();
    auto const isHeard = [&](Ptr<Tree> const& which) {
        int const before = owner->changes;
        which->numberIs(which->number() + 1);
        return owner->changes > before;
    };
    struct Kind {
        char const* name;
        std::function<Ptr<PtrInterface>(Ptr<Tree>)> make;
        std::function<void()> del;
        std::function<Tree const*()> made;
        Tree* again; ///< what stands there once it is asked for again, with another target
    };
    auto const single = [&](Ptr<Tree> target) -> Ptr<PtrInterface> {
        watch(owner->single, target, owner.get());
        return owner->single.get();
    };
    auto const leaves = [&](Ptr<Tree> target) { return owner->leavesIs(target); };
    auto const leavesMade = [&]() -> Tree const* {
        EXPECT_EQ(owner->leaves().size(), owner->leaves("tree") ? 1u : 0u);
        return owner->leaves("tree") ? owner->leaves("tree")->notifier() : nullptr;
    };
    auto const worker = [&](Ptr<Tree> target) -> Ptr<PtrInterface> {
        try {
            return owner->workerIs(1, target);
        } catch (NameInUseException const&) {
            return nullptr;
        }
    };
    auto const workerMade = [&]() -> Tree const* {
        EXPECT_EQ(owner->worker.size(), owner->worker.get(1) ? 1u : 0u);
        return owner->worker.get(1) ? owner->worker.get(1)->left.get() : nullptr;
    };
    Kind const kinds[] = {
        {"single", single, [&] { owner->single.del(); }, [&] { return watchedBy(owner->single); },
         twin.get()},
        {"of a key", leaves, [&] { owner->leavesDel("tree"); }, leavesMade, twin.get()},
        {"of all keys", leaves, [&] { owner->leavesDelAll(); }, leavesMade, twin.get()},
        {"of some keys", leaves, [&] { owner->leavesDelUnless(); }, leavesMade, twin.get()},
        {"machine", worker, [&] { owner->worker.del(1); }, workerMade, tree.get()},
        {"of all machines", worker, [&] { owner->worker.delAll(); }, workerMade, tree.get()},
    };
    for (Kind const& kind : kinds)
        for (bool const throws : {false, true}) {
            auto const expect = [&](char const* what, Tree const* stands,
                                    std::function<void()> disturb) {
                SCOPED_TRACE(String(kind.name) + what + (throws ? ", thrown" : ""));
                owner->startUp = [&] {
                    EXPECT_EQ(kind.made(), nullptr) << "not there before it is made";
                    disturb();
                    if (throws) throw std::runtime_error("start-up");
                };
                Ptr<PtrInterface> held; // is silent where another stands, or none
                try {
                    held = kind.make(tree);
                    EXPECT_FALSE(throws);
                } catch (std::runtime_error const&) {
                    EXPECT_TRUE(throws);
                }
                EXPECT_EQ(kind.made(), stands);
                EXPECT_EQ(isHeard(tree), stands == tree.get());
                EXPECT_EQ(isHeard(twin), stands == twin.get());
                kind.del();
            };
            Tree* const none = nullptr;
            expect(" made", throws ? none : tree.get(), [] {});
            expect(" deleted", none, kind.del);
            expect(" asked for again and deleted", none, [&] { kind.make(twin), kind.del(); });
            expect(" replaced", twin.get(), [&] { kind.del(), kind.make(twin); });
            expect(" asked for again", throws ? none : kind.again, [&] { kind.make(twin); });
        }
    owner->startUp = [&] { EXPECT_EQ(owner->leavesIs(twin), nullptr); };
    owner->pointings = 0;
    auto const reactor = owner->leavesIs(tree);
    EXPECT_EQ(owner->leaves("tree"), reactor.get());
    EXPECT_EQ(owner->pointings, 1) << "made once";
    owner->startUp = [&] {
        EXPECT_EQ(owner->workerIs(1, tree), nullptr);
        EXPECT_THROW(owner->workerIs(1, twin), NameInUseException);
    };
    auto const made = owner->workerIs(1, tree);
    EXPECT_EQ(made.get(), owner->worker.get(1));
}

} // namespace
} // namespace Nex
