// Collections of reactors and machines: what stands under a key when making one is disturbed.
#include "TestRecords.h"

#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>

namespace Nex {
namespace {

class Owner;

/// Watches one tree; starts up by what the test wants.
class NexLeaves : public Reactor<Tree::Notifiee, Owner> {
  public:
    NexLeaves(Ptr<Tree> watched, Owner* owner);
    void onNumber() override;
    void onNotifier() override;
};

/// A machine that is made from two trees.
class Worker : public PtrInterface {
  public:
    Worker(int key, Ptr<Tree> left, Ptr<Tree const> right, Owner* owner);
    ~Worker() override { nexDoZombieReactors(true); }
    auto nexArguments() const { return std::make_tuple(left_, right_); }
    static constexpr char const* nexArgumentNames[] = {"left", "right"};
    int const key;

  private:
    struct NexLeft : Reactor<Tree::Notifiee, Worker> {
        using Reactor::Reactor;
        void onNumber() override;
    };
    Ptr<Tree> left_;
    Ptr<Tree const> right_;

  public:
    Owner* const owner;

  private:
    Owned<NexLeft> nexLeft_;
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
    MachineMap<int, Worker> worker;
    String told;
    /// Taken by the next reactor or machine that is made, and run in its constructor.
    std::function<void()> startUp;
    void doStartUp() {
        if (auto const once = std::exchange(startUp, nullptr)) once();
    }
    Owned<NexLeaves> single;
    void leavesDelUnless() {
        leaves_.delUnless([](String const&) { return false; });
    }

    NEX_REACTORS(String, NexLeaves, leaves, Tree, name)
};

NexLeaves::NexLeaves(Ptr<Tree> watched, Owner* owner) : Reactor(std::move(watched), owner) {
    owner->doStartUp();
}
void NexLeaves::onNumber() { machine()->told += notifier()->name() + ' '; }
void NexLeaves::onNotifier() { machine()->told += "onto "; }
Worker::Worker(int k, Ptr<Tree> left, Ptr<Tree const> right, Owner* o)
    : key(k), left_(left), right_(std::move(right)), owner(o) {
    nexLeft_.make(std::move(left), this);
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

TEST_F(MachineTest, ReactorOfAKeyIsMadeOnceThenPointedElsewhere) {
    auto const reactor = owner->leavesIs(tree);
    EXPECT_EQ(owner->leavesIs(tree), reactor);
    EXPECT_EQ(owner->leaves("tree"), reactor.get());
    EXPECT_EQ(change(tree), "tree ");
    EXPECT_EQ(owner->leavesIs(twin), reactor);
    EXPECT_EQ(change(tree), "");
    EXPECT_EQ(change(twin), "tree ");
    owner->leavesDel("tree");
    owner->leavesDel("tree");
    EXPECT_EQ(owner->leaves("tree"), nullptr);
    EXPECT_EQ(change(twin), "") << "silent though somebody holds it";
}

TEST_F(MachineTest, NullReactorTargetIsRefusedByItsName) {
    try {
        owner->leavesIs(nullptr);
        FAIL();
    } catch (RangeException const& error) {
        // The quote without a partner belongs to the text.
        EXPECT_STREQ(error.what(),
                     "null _leaves parameter to mutator for Test::Owner::leaves not allowed\"");
    }
    EXPECT_TRUE(owner->leaves().empty());
}

TEST_F(MachineTest, ReactorThatIsDeletedWhileItIsMadeStaysAwayAndSilent) {
    std::vector<std::function<void()>> const ways{[&] { owner->leavesDel("tree"); },
                                                  [&] { owner->leavesDelAll(); },
                                                  [&] { owner->leavesDelUnless(); },
                                                  [&] {
                                                      owner->leavesIs(twin);
                                                      owner->leavesDel("tree");
                                                  }};
    for (auto const& way : ways) {
        owner->startUp = [&] {
            EXPECT_EQ(owner->leaves("tree"), nullptr) << "not there before it is made";
            way();
        };
        auto const reactor = owner->leavesIs(tree);
        EXPECT_EQ(owner->leaves("tree"), nullptr);
        EXPECT_TRUE(owner->leaves().empty());
        EXPECT_EQ(change(tree) + change(twin), "");
    }
}

TEST_F(MachineTest, ReactorThatIsAskedForAgainWhileItIsMadeIsMadeOnceOnTheLastTarget) {
    owner->startUp = [&] {
        EXPECT_EQ(owner->leavesIs(Tree::TreeIs("tree")), nullptr);
        EXPECT_EQ(owner->leavesIs(twin), nullptr);
        EXPECT_TRUE(owner->leaves().empty()) << "a walk would find none";
    };
    auto const reactor = owner->leavesIs(tree);
    EXPECT_EQ(owner->leaves("tree"), reactor.get());
    EXPECT_EQ(owner->told, "onto ");
    EXPECT_EQ(change(tree), "");
    EXPECT_EQ(change(twin), "tree ");
}

/// What the last request for a single reactor says is done, also while it is made.
TEST_F(MachineTest, OwnedReactorThatIsDisturbedWhileItIsMade) {
    auto const make = [&](std::function<void()> disturb) {
        owner->single.del();
        owner->startUp = std::move(disturb);
        watch(owner->single, tree, owner.get());
        return watchedBy(owner->single);
    };
    EXPECT_EQ(make([&] { watch(owner->single, twin, owner.get()); }), twin.get());
    EXPECT_EQ(change(tree), "");
    EXPECT_EQ(change(twin), "tree ");
    EXPECT_EQ(make([&] { watch(owner->single, Ptr<Tree>(), owner.get()); }), nullptr);
    EXPECT_TRUE(owner->single);
    EXPECT_EQ(make([&] { owner->single.del(); }), nullptr);
    EXPECT_FALSE(owner->single);
    EXPECT_EQ(change(tree), "");
    EXPECT_EQ(make([&] {
                  owner->single.del();
                  watch(owner->single, twin, owner.get());
              }),
              twin.get());
    EXPECT_EQ(change(tree), "");
    EXPECT_THROW(make([] { throw std::runtime_error("start-up"); }), std::runtime_error);
    EXPECT_EQ(make([] {}), tree.get());
}

TEST_F(MachineTest, ReactorThatIsReplacedWhileItIsMadeGivesWay) {
    owner->startUp = [&] {
        owner->leavesDelAll();
        owner->leavesIs(twin);
    };
    owner->leavesIs(tree);
    ASSERT_NE(owner->leaves("tree"), nullptr);
    EXPECT_EQ(owner->leaves("tree")->notifier(), twin.get());
    EXPECT_EQ(change(tree), "");
    EXPECT_EQ(change(twin), "tree ");
}

TEST_F(MachineTest, ReactorWhoseConstructorThrowsLeavesItsKeyAsItWas) {
    owner->startUp = [] { throw std::runtime_error("start-up"); };
    EXPECT_THROW(owner->leavesIs(tree), std::runtime_error);
    EXPECT_EQ(owner->leaves("tree"), nullptr);
    EXPECT_TRUE(owner->leaves().empty());
    EXPECT_EQ(change(tree), "");
    owner->startUp = [&] {
        owner->leavesDel("tree");
        owner->leavesIs(twin);
        throw std::runtime_error("after it was replaced");
    };
    EXPECT_THROW(owner->leavesIs(tree), std::runtime_error);
    ASSERT_NE(owner->leaves("tree"), nullptr);
    EXPECT_EQ(change(twin), "tree ");
}

TEST_F(MachineTest, OtherKeysMayComeAndGoWhileAReactorIsMade) {
    for (int n = 0; n < 20; ++n) owner->leavesIs(Tree::TreeIs(textOf(n)));
    owner->startUp = [&] {
        for (int n = 0; n < 20; ++n) owner->leavesDel(textOf(n));
        for (int n = 20; n < 60; ++n) owner->leavesIs(Tree::TreeIs(textOf(n)));
    };
    owner->leavesIs(tree);
    EXPECT_EQ(owner->leaves().size(), 41u);
    EXPECT_EQ(change(tree), "tree ");
}

TEST_F(MachineTest, OwnedReactorIsSilencedAsItGoesAndPointedElsewhereWhenThere) {
    watch(owner->single, Ptr<Tree>(), owner.get());
    EXPECT_FALSE(owner->single) << "a null object makes no reactor";
    watch(owner->single, tree, owner.get());
    Ptr<NexLeaves> const held(owner->single.get());
    watch(owner->single, other, owner.get());
    EXPECT_EQ(owner->single.get(), held.get());
    EXPECT_EQ(watchedBy(owner->single), other.get());
    EXPECT_EQ(owner->told, "onto ");
    EXPECT_EQ(change(other), "other ");
    owner->single.make(tree, owner.get());
    EXPECT_EQ(change(other), "") << "the one before is retired though somebody holds it";
    EXPECT_EQ(change(tree), "tree ");
    EXPECT_EQ(held->notifier(), nullptr);
}

TEST_F(MachineTest, MachineOfAKeyIsReturnedForTheSameArguments) {
    auto const worker = owner->workerIs(1, tree, other);
    EXPECT_EQ(owner->workerIs(1, tree, other), worker);
    EXPECT_EQ(owner->worker.get(1), worker.get());
    EXPECT_NE(owner->workerIs(2, tree, other), worker);
    EXPECT_EQ(change(tree), "1 2 ");
}

TEST_F(MachineTest, MachineWithAnotherArgumentIsANameInUse) {
    auto const worker = owner->workerIs(1, tree, other);
    auto const text = [&](Ptr<Tree> left, Ptr<Tree const> right) -> String {
        try {
            owner->workerIs(1, left, right);
        } catch (NameInUseException const& error) {
            return error.what();
        }
        return "";
    };
    String const prefix =
        "Reinstantiating the pointer interface where constructor parameter attribute _";
    EXPECT_EQ(text(twin, other).find(prefix + "left has a different value of "), 0u);
    EXPECT_EQ(text(tree, tree).find(prefix + "right has a different value of "), 0u);
    EXPECT_EQ(text(tree, nullptr).find(prefix + "right has a different value of "), 0u);
    EXPECT_EQ(text(twin, tree).find(prefix + "left"), 0u) << "the first that differs";
    EXPECT_EQ(owner->worker.get(1), worker.get());
    owner->worker.del(1);
    EXPECT_EQ(text(twin, tree), "");
}

TEST_F(MachineTest, DeletedMachineIsSilentThoughSomebodyHoldsIt) {
    auto const worker = owner->workerIs(1, tree, other);
    owner->workerIs(2, tree, other);
    owner->worker.delAll();
    EXPECT_EQ(owner->worker.size(), 0u);
    EXPECT_EQ(change(tree), "");
}

TEST_F(MachineTest, MachineThatIsDisturbedWhileItIsMade) {
    owner->startUp = [&] {
        EXPECT_EQ(owner->workerIs(1, tree, other), nullptr);
        EXPECT_THROW(owner->workerIs(1, twin, other), NameInUseException);
    };
    auto worker = owner->workerIs(1, tree, other);
    EXPECT_EQ(owner->worker.get(1), worker.get());
    EXPECT_EQ(change(tree), "1 ");
    owner->worker.del(1);

    owner->startUp = [&] { owner->worker.del(1); };
    worker = owner->workerIs(1, tree, other);
    EXPECT_EQ(owner->worker.get(1), nullptr);
    EXPECT_EQ(change(tree), "");

    owner->startUp = [&] {
        owner->worker.del(1);
        worker = owner->workerIs(1, twin, other);
    };
    auto const late = owner->workerIs(1, tree, other);
    EXPECT_EQ(owner->worker.get(1), worker.get());
    EXPECT_NE(worker, late);
    EXPECT_EQ(change(tree), "");
    EXPECT_EQ(change(twin), "1 ");
    owner->worker.del(1);

    owner->startUp = [] { throw std::runtime_error("start-up"); };
    EXPECT_THROW(owner->workerIs(1, tree, other), std::runtime_error);
    EXPECT_EQ(owner->worker.size(), 0u);
    EXPECT_EQ(change(tree), "");

    owner->startUp = [&] {
        owner->worker.del(1);
        worker = owner->workerIs(1, twin, other);
        throw std::runtime_error("after it was replaced");
    };
    EXPECT_THROW(owner->workerIs(1, tree, other), std::runtime_error);
    EXPECT_EQ(owner->worker.get(1), worker.get());
}

} // namespace
} // namespace Nex
