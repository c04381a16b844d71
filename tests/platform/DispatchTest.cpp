// Notification under disturbance: what a callback may do to whoever is being notified.
#include "TestRecords.h"

#include <array>
#include <gtest/gtest.h>
#include <list>
#include <random>

namespace Nex {
namespace {

/// Watchers of one tree who, told of a change, do at random what may be done to whoever is being
/// notified. Each call is checked: a pass tells those who were registered as it began, still are,
/// and are not silenced, once and in the order of their registration.
class Crowd {
  public:
    explicit Crowd(unsigned seed) : random_(seed) {}

    void change() {
        auto const pass = passes_.insert(passes_.end(), registered_);
        number_ = tree_->number() + 1;
        tree_->numberIs(number_);
        doSkipAbsent(*pass);
        EXPECT_TRUE(pass->empty()) << "left out";
        passes_.pop_back();
    }
    void act() {
        std::size_t const label = draw(std::size(members_));
        Member& member = members_[label];
        switch (draw(10)) {
        case 0: // while it is told it lives on, and would be registered still
            if (member.watcher && member.watcher->nexReferences() > 1)
                member.watcher->notifierIs(nullptr);
            member = Member();
            return unregister(label);
        case 1:
            if (member.watcher) member.watcher->nexRetire();
            member.zombie = true;
            return unregister(label);
        case 2:
            if (member.watcher) member.watcher->zombieIs(member.zombie = !member.zombie);
            return;
        case 3:
            if (member.watcher)
                member.watcher->hasNotificationActiveIs(member.active = !member.active);
            return;
        case 4:
        case 5:
            if (member.watcher) member.watcher->notifierIs(draw(2) == 0 ? elsewhere_ : nullptr);
            return unregister(label);
        case 6:
            if (passes_.size() < 4) change();
            return;
        default:
            return join(label);
        }
    }

  private:
    struct Turn {
        unsigned registration;
        std::size_t label;
        friend bool operator==(Turn const&, Turn const&) = default;
    };
    struct Member {
        Ptr<Watcher> watcher;
        bool active = true, zombie = false;
    };

    std::size_t draw(std::size_t count) { return random_() % count; }
    void join(std::size_t label) {
        Member& member = members_[label];
        if (!member.watcher) {
            member = {newObject<Watcher>(tree_)};
            member.watcher->act = [this, label] { hear(label); };
        } else if (member.watcher->notifier() == tree_.get()) {
            return member.watcher->notifierIs(tree_);
        } else {
            member.watcher->notifierIs(tree_);
        }
        registered_.push_back({++registrations_, label});
    }
    void unregister(std::size_t label) {
        std::erase_if(registered_, [&](auto const& each) { return each.label == label; });
    }
    void doSkipAbsent(std::vector<Turn>& pass) {
        auto const told = [&](Turn const& turn) {
            Member const& member = members_[turn.label];
            return member.active && !member.zombie &&
                   std::count(registered_.begin(), registered_.end(), turn) > 0;
        };
        pass.erase(pass.begin(), std::find_if(pass.begin(), pass.end(), told));
    }
    void hear(std::size_t label) {
        std::vector<Turn>& pass = passes_.back();
        doSkipAbsent(pass);
        EXPECT_EQ(tree_->number(), number_) << "stored before it is told";
        ASSERT_FALSE(pass.empty());
        ASSERT_EQ(pass.front().label, label);
        pass.erase(pass.begin());
        for (std::size_t acts = draw(4) / 2; acts > 0; --acts) act();
    }

    std::mt19937 random_;
    Ptr<Tree> tree_ = Tree::TreeIs("tree"), elsewhere_ = Tree::TreeIs("elsewhere");
    std::array<Member, 6> members_;
    std::vector<Turn> registered_; ///< in that order
    unsigned registrations_ = 0;
    int number_ = 0;
    std::list<std::vector<Turn>> passes_; ///< whose turn is to come, the innermost last
};

TEST(DispatchModelTest, EachPassTellsWhoeverStayedOnceAndInOrder) {
    for (unsigned seed = 0; seed < 300 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        Crowd crowd(seed);
        for (int step = 0; step < 100 && !testing::Test::HasFailure(); ++step)
            step % 4 == 0 ? crowd.change() : crowd.act();
    }
}

/// A reactor that is the machine of another one.
struct Outer : Reactor<Tree::Notifiee, PtrInterface> {
    Outer(PtrInterface* machine, Ptr<Tree> watched) : Reactor(Ptr<Tree>(), machine) {
        inner.make(std::move(watched), this);
    }
    struct Inner : Reactor<Tree::Notifiee, Outer> {
        using Reactor::Reactor;
        void onNumber() override { act(); }
        std::function<void()> act;
    };
    Owned<Inner> inner;
};

TEST(DispatchTest, WhatACallbackDropsLivesUntilItReturns) {
    struct Machine : PtrInterface {};
    auto const tree = Tree::TreeIs("tree");
    auto machine = newObject<Machine>();
    auto outer = newObject<Outer>(machine.get(), tree);
    Destructions destructions;
    outer->inner->act = [&] {
        machine = nullptr, outer = nullptr;
        EXPECT_EQ(destructions.size(), 0u);
    };
    tree->numberIs(1);
    EXPECT_EQ(destructions.size(), 3u) << "the inner one with the outer one";
}

} // namespace
} // namespace Nex
