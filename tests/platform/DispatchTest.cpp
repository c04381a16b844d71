// Notification under disturbance: what a callback may do to whoever is being notified.
#include "TestRecords.h"

#include <gtest/gtest.h>

namespace Nex {
namespace {

class DispatchTest : public testing::Test {
  protected:
    Ptr<Watcher> join(char label) {
        auto const watcher = newObject<Watcher>(tree);
        watcher->act = [this, label] {
            told += label;
            if (auto const once = std::exchange(act, nullptr)) once();
        };
        return watcher;
    }
    /// Who is told of a change, in the order in which they are.
    String change() {
        told.clear();
        tree->numberIs(tree->number() + 1);
        return told;
    }

    Ptr<Tree> const tree = Tree::TreeIs("tree"), elsewhere = Tree::TreeIs("elsewhere");
    Ptr<Watcher> a = join('a'), b, c, d;
    String told;
    std::function<void()> act; ///< of whoever is told next, once
};

TEST_F(DispatchTest, ThoseAreToldWhoWereThereAndStillAreInTheOrderInWhichTheyCame) {
    auto const leaveAndReturn = [&](Ptr<Watcher> const& watcher) {
        watcher->notifierIs(elsewhere);
        watcher->notifierIs(tree);
    };
    struct {
        std::function<void()> act; ///< of the first of three
        char const* told;
        char const* toldNext;
    } const ways[] = {
        {[&] { b = nullptr; }, "ac", "ac"},
        {[&] { b->nexRetire(); }, "ac", "ac"},
        {[&] { b->notifierIs(elsewhere); }, "ac", "ac"},
        {[&] { b->notifierIs(nullptr); }, "ac", "ac"},
        {[&] { b->zombieIs(true); }, "ac", "ac"},
        {[&] { b->hasNotificationActiveIs(false); }, "ac", "ac"},
        {[&] { b->notifierIs(tree); }, "abc", "abc"},
        {[&] { leaveAndReturn(b); }, "ac", "acb"},
        {[&] { leaveAndReturn(a); }, "abc", "bca"},
        {[&] { d = join('d'); }, "abc", "abcd"},
        {[&] { a = b = nullptr, d = join('d'); }, "ac", "cd"},
        {[&] { tree->numberIs(tree->number() + 1); }, "aabcbc", "abc"},
        {[&] { tree->numberIs(tree->number()); }, "abc", "abc"},
    };
    EXPECT_EQ(change(), "a");
    act = [&] { b = join('b'); };
    EXPECT_EQ(change(), "a");
    act = [&] { leaveAndReturn(a); };
    EXPECT_EQ(change(), "ab");
    EXPECT_EQ(change(), "ba");
    for (auto const& way : ways) {
        SCOPED_TRACE(&way - ways);
        a = b = c = d = nullptr;
        a = join('a'), b = join('b'), c = join('c');
        act = way.act;
        EXPECT_EQ(change(), way.told);
        EXPECT_EQ(change(), way.toldNext);
    }
    b->nexRetire();
    EXPECT_EQ(b->notifier(), nullptr) << "holds what it does not hear of";
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

TEST_F(DispatchTest, WhatACallbackDropsLivesUntilItReturns) {
    struct Machine : PtrInterface {};
    auto machine = newObject<Machine>();
    auto outer = newObject<Outer>(machine.get(), tree);
    Destructions destructions;
    act = [&] {
        a = nullptr;
        EXPECT_EQ(destructions.size(), 0u);
    };
    outer->inner->act = [&] {
        machine = nullptr, outer = nullptr;
        EXPECT_EQ(destructions.size(), 1u) << "as yet only whoever was told before";
    };
    tree->numberIs(1);
    EXPECT_EQ(destructions.size(), 4u) << "the inner one with the outer one";
}

} // namespace
} // namespace Nex
