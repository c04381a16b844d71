// Collections of reactors and machines: what stands under a key when making one is disturbed.
#include "TestRecords.h"

#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>

namespace Nex {
namespace {

class Owner;

/// Watches one tree; starts up by what the test wants.
struct NexLeaves : Reactor<Tree::Notifiee, Owner> {
    NexLeaves(Ptr<Tree> watched, Owner* owner);
    void onNumber() override;
    void onNotifier() override;
};

/// A machine that is made from two trees.
struct Worker : PtrInterface {
    Worker(int key, Ptr<Tree> left, Ptr<Tree const> right, Owner* owner);
    ~Worker() override { nexDoZombieReactors(true); }
    auto nexArguments() const { return std::make_tuple(left, right); }
    static constexpr char const* nexArgumentNames[] = {"left", "right"};

    struct NexLeft : Reactor<Tree::Notifiee, Worker> {
        using Reactor::Reactor;
        void onNumber() override;
    };
    int const key;
    Ptr<Tree> const left;
    Ptr<Tree const> const right;
    Owner* const owner;
    Owned<NexLeft> nexLeft;
};

class Owner : public PtrInterface {
  public:
    static constexpr char nexTypeName[] = "Test::Owner";

    Ptr<Worker> workerIs(int key, Ptr<Tree> left, Ptr<Tree const> right) {
        return worker.is(
            [this](int k, Ptr<Tree> l, Ptr<Tree const> r) {
                return newObject<Worker>(k, std::move(l), std::move(r), this);
            },
            key, left, right);
    }
    void leavesDelUnless() {
        leaves_.delUnless([](String const&) { return false; });
    }
    void doStartUp() {
        if (auto const once = std::exchange(startUp, nullptr)) once();
    }
    MachineMap<int, Worker> worker;
    Owned<NexLeaves> single;
    String told;
    /// Taken by the next reactor or machine that is made, and run in its constructor.
    std::function<void()> startUp;

    NEX_REACTORS(String, NexLeaves, leaves, Tree, name)
};

NexLeaves::NexLeaves(Ptr<Tree> watched, Owner* owner) : Reactor(std::move(watched), owner) {
    owner->doStartUp();
}
void NexLeaves::onNumber() { machine()->told += notifier()->name() + ' '; }
void NexLeaves::onNotifier() { machine()->told += "onto "; }
Worker::Worker(int k, Ptr<Tree> l, Ptr<Tree const> r, Owner* o)
    : key(k), left(l), right(std::move(r)), owner(o) {
    nexLeft.make(std::move(l), this);
    owner->doStartUp();
}
void Worker::NexLeft::onNumber() { machine()->owner->told += textOf(machine()->key) + ' '; }

class MachineTest : public testing::Test {
  protected:
    String change(Ptr<Tree> const& which) {
        owner->told.clear();
        which->numberIs(which->number() + 1);
        return owner->told;
    }
    Ptr<Tree> tree = Tree::TreeIs("tree"), twin = Tree::TreeIs("tree"),
              other = Tree::TreeIs("other");
    Ptr<Owner> owner = newObject<Owner>();
};

/// What is asked for last while something is made is what stands there, and alone is heard, also if
/// whoever asked throws, and whoever holds what was made.
TEST_F(MachineTest, WhatIsDisturbedWhileItIsMade) {
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
            return owner->workerIs(1, target, other);
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
                EXPECT_EQ(change(tree).empty(), stands != tree.get());
                EXPECT_EQ(change(twin).empty(), stands != twin.get());
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
    owner->told.clear();
    auto const reactor = owner->leavesIs(tree);
    EXPECT_EQ(owner->leaves("tree"), reactor.get());
    EXPECT_EQ(owner->told, "onto ") << "made once";
    owner->startUp = [&] {
        EXPECT_EQ(owner->workerIs(1, tree, other), nullptr);
        EXPECT_THROW(owner->workerIs(1, twin, other), NameInUseException);
    };
    auto const made = owner->workerIs(1, tree, other);
    EXPECT_EQ(made.get(), owner->worker.get(1));
}

} // namespace
} // namespace Nex
