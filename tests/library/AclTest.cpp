// Access lists: what their rules select, how a list is attached, edited and taken away, and how it
// gets on with the configuration.
#include "Producers.h"

#include <chrono>
#include <functional>

namespace IgmpHostProxy {
namespace {

std::uint32_t const slash30 = 0xFFFFFFFC;

class AclTest : public Producers {
  protected:
    void attach(Nex::Name const& list = "iptv") { config->aclListIs(list); }
    void restart() {
        world.root->igmpHostProxyIntfSmDel(up0);
        world.root->handleIntfConfig(up0);
    }
    /// What the helper of list "iptv" holds for a group.
    std::string held(Lox::IpAddr group = groupG) {
        return sourcesOf(helper()->groupSourceList(group));
    }
    /// Of the host's record; 0 without one, as for a group that includes any source.
    std::uint32_t version(Lox::IpAddr group = groupG) {
        return host->v3groupHas(group) ? host->v3group(group)->version() : 0;
    }
};

// Rules

TEST_F(AclTest, ARangeIsAppliedInAscendingOrderAndTracedGroupByGroup) {
    attach();
    rulesOf("iptv")->ipRuleByIdIs(Acl::UniqueId(7),
                                  permit(ip("10.1.1.1"), ip("239.1.1.2"), slash30));
    std::string const self = Nex::textOf(static_cast<void const*>(helper()));
    TraceLog trace(7);
    helper()->handleRule(Acl::UniqueId(7));
    Lines own;
    for (auto const& line : trace.take())
        if (line.find("Rule type") != std::string::npos ||
            line.find("to status") != std::string::npos)
            own.push_back(line);
    Lines expected;
    for (auto const* const group : {"239.1.1.0", "239.1.1.1", "239.1.1.2", "239.1.1.3"}) {
        expected.push_back("7 Adding group " + std::string(group) + " to status");
        expected.push_back("7 " + self + "::handleRule( 7 ): Rule type: permit");
        EXPECT_EQ(announced(ip(group)), "include 10.1.1.1 exclude");
        EXPECT_EQ(held(ip(group)), "include 10.1.1.1 exclude");
        EXPECT_EQ(count(ip("10.1.1.1"), ip(group)), 1u);
    }
    EXPECT_EQ(own, expected);
    EXPECT_EQ(status->groupSourceListCount(), 4u);
    EXPECT_EQ(helper()->cachedRules(Acl::UniqueId(7)).filter.destination.mask(), slash30);
}

TEST_F(AclTest, ActionAndSourceChooseTheModeAndAPurgeTakesItBack) {
    struct Case {
        Acl::Action action;
        Lox::IpAddr source;
        char const* result;
    };
    attach();
    for (Case const& c : {Case{Acl::Action::permit, sourceS, "include 10.0.0.1 exclude"},
                          Case{Acl::Action::permit, anySource, "include exclude 0.0.0.0"},
                          Case{Acl::Action::deny, sourceS, "include exclude 10.0.0.1"},
                          Case{Acl::Action::deny, anySource, "include 0.0.0.0 exclude"},
                          Case{Acl::Action(2), sourceS, "include exclude 10.0.0.1"}}) {
        SCOPED_TRACE(c.result);
        ruleIs("iptv", 1, rule(c.action, c.source, groupG));
        EXPECT_EQ(announced(), c.result);
        EXPECT_EQ(held(), c.result);
        EXPECT_EQ(count(c.source), 1u);
        ruleDel("iptv", 1);
        EXPECT_EQ(announced(), "absent");
        EXPECT_EQ(held(), "include exclude"); // the group's entry stays
        EXPECT_EQ(count(c.source), 0u);
        EXPECT_EQ(cachedRules(), 0u);
    }
}

TEST_F(AclTest, AMaskWithAHoleSelects65536Groups) {
    attach();
    ruleIs("iptv", 1, permit(sourceS, ip("239.0.0.0"), 0xFF0000FF));
    EXPECT_EQ(status->groupSourceListCount(), 65536u);
    std::uint32_t before = 0;
    for (auto const& item : status->groupSourceList()) {
        ASSERT_GT(item.key.host(), before);
        ASSERT_EQ(item.key.host() & 0xFF0000FF, 0xEF000000);
        before = item.key.host();
    }
    ruleDel("iptv", 1);
    EXPECT_EQ(status->groupSourceListCount(), 0u);
    EXPECT_EQ(host->v3groupCount(), 0u);
}

TEST_F(AclTest, ARejectedRuleIsTracedAndChangesNothing) {
    auto const at = [](char const* address, std::uint32_t mask) {
        return Lox::IpAddrWithFullMask(ip(address), mask);
    };
    auto const good = at("239.1.1.1", oneAddress);
    auto const permitted = [](Lox::IpAddrWithFullMask source, Lox::IpAddrWithFullMask destination) {
        return Acl::IpRuleConfig{Acl::Action::permit, {source, destination}};
    };
    struct Case {
        Acl::IpRuleConfig rule;
        char const* text; ///< null for a rule that is good
    };
    Case const cases[] = {
        {permit(sourceS, Lox::IpAddr(), 0),
         "range: 0.0.0.0/0.0.0.0 contains invalid multicast addresses"},
        {permit(sourceS, ip("224.0.0.0"), 0xE0000000),
         "range: 224.0.0.0/224.0.0.0 contains invalid multicast addresses"},
        {permit(sourceS, ip("239.1.1.1"), 0x7FFFFFFF),
         "range: 239.1.1.1/127.255.255.255 contains invalid multicast addresses"},
        {permit(sourceS, ip("223.255.255.255")),
         "range: 223.255.255.255/255.255.255.255 contains invalid multicast addresses"},
        {permitted(at("10.0.0.0", 0xFF000000), good),
         "source address: 10.0.0.0/255.0.0.0 ; Must be a single address, not a range"},
        {permitted(at("10.0.0.1", 0xFFFFFFFE), good),
         "source address: 10.0.0.1/255.255.255.254 ; Must be a single address, not a range"},
        {permitted(at("224.1.1.1", oneAddress), good),
         "source address: 224.1.1.1/255.255.255.255 is not a valid unicast host"},
        {permitted(at("224.1.1.1", 0), good),
         "source address: 224.1.1.1/0.0.0.0 is not a valid unicast host"},
        // The first fault that is found is the one that is told.
        {permitted(at("224.1.1.0", 0xFFFFFF00), at("10.0.0.0", 0)),
         "range: 10.0.0.0/0.0.0.0 contains invalid multicast addresses"},
        {permit(sourceS, ip("239.255.255.255")), nullptr},
        {permit(sourceS, ip("224.0.0.0")), nullptr},
        // With a mask of zeros the source is the address as it is written.
        {permitted(at("10.0.0.1", 0), good), nullptr},
    };
    attach();
    auto const rules = rulesOf("iptv");
    std::string const prefix =
        "7 " + Nex::textOf(static_cast<void const*>(helper())) + "::handleRule( 5 ): ";
    TraceLog trace(7);
    for (Case const& c : cases) {
        SCOPED_TRACE(Nex::textOf(c.rule.filter.source) + Nex::textOf(c.rule.filter.destination));
        rules->ipRuleByIdIs(Acl::UniqueId(5), c.rule);
        helper()->handleRule(Acl::UniqueId(5));
        Lines const lines = trace.take();
        if (!c.text) {
            EXPECT_EQ(cachedRules(), 1u);
            helper()->purgeCachedRules();
            trace.take();
        } else {
            EXPECT_EQ(lines, Lines{prefix + "Invalid source group " + c.text});
            EXPECT_EQ(cachedRules(), 0u);
        }
        EXPECT_EQ(status->groupSourceListCount(), 0u);
    }
    // A rule that does not exist reads as zeros.
    helper()->handleRule(Acl::UniqueId(6));
    EXPECT_EQ(trace.take().size(), 1u);
    EXPECT_EQ(cachedRules(), 0u);
}

// Attachment

TEST_F(AclTest, AListTakesEffectOnceItIsNamedAndExists) {
    ruleIs("iptv", 1, permit(sourceS, groupG));
    EXPECT_EQ(helper(), nullptr);
    EXPECT_EQ(announced(), "absent");

    TraceLog trace(7);
    attach();
    EXPECT_EQ(trace.take()[0], "7 Creating helper for acl: iptv");
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
    EXPECT_EQ(count(sourceS), 1u);

    // The list goes: its helper stays, purged, with its group entries.
    Nex::Ptr<IgmpHostProxyAclHelper> const first = helper();
    trace.take();
    world.aclConfig->aclDel("iptv");
    EXPECT_EQ(trace.take()[0], "7 ACL config deleted. Purging cached rules.");
    EXPECT_EQ(helper(), first.get());
    EXPECT_EQ(cachedRules(), 0u);
    EXPECT_EQ(held(), "include exclude");
    EXPECT_EQ(announced(), "absent");
    EXPECT_EQ(count(sourceS), 0u);

    // It comes back, with other rules, and the helper takes those.
    ruleIs("iptv", 2, permit(sourceT, groupG));
    EXPECT_EQ(helper(), first.get());
    EXPECT_EQ(announced(), "include 10.0.0.2 exclude");
    EXPECT_EQ(count(sourceT), 1u);

    // Its name goes: nothing is left.
    trace.take();
    config->aclListDel("iptv");
    Lines const lines = trace.take();
    EXPECT_EQ(lines.front(), "7 ACL config deleted. Purging cached rules.");
    EXPECT_EQ(lines.back(), "7 ACL removed from config. Purging cached rules. Deleting helper");
    EXPECT_EQ(helper(), nullptr);
    EXPECT_FALSE(machine().aclHas(groupG));
    EXPECT_EQ(announced(), "absent");
    EXPECT_EQ(count(sourceT), 0u);
}

TEST_F(AclTest, ListsAndRulesAreTakenInOrderWhateverOrderTheyCameIn) {
    TraceLog trace(7);
    for (auto const* const list : {"c", "a", "b"}) {
        attach(list);
        for (std::uint32_t const sequence : {30u, 10u, 20u})
            ruleIs(list, sequence, permit(sourceS, Lox::IpAddr::fromHost(0xEF010100 + sequence)),
                   sequence);
    }
    auto const order = [&](std::string const& start) {
        std::string names;
        for (auto const& line : trace.take())
            if (line.starts_with(start)) names += line.substr(start.size()) + " ";
        return names;
    };
    trace.take();
    restart();
    EXPECT_EQ(order("7 Creating helper for acl: "), "a b c c a b "); // then as attached
    rulesOf("d");
    attach("d");
    auto const version = Acl::AclSubConfig::AclSubConfigIs("d");
    for (std::uint32_t const sequence : {30u, 10u, 20u}) {
        Acl::UniqueId const id(40 - sequence);
        version->ipRuleByIdIs(id, permit(sourceS, Lox::IpAddr::fromHost(0xEF010200 + sequence)));
        version->ruleBySequenceIs(sequence, id);
    }
    version->ruleBySequenceIs(5, Acl::UniqueId(99)); // names no rule
    trace.take();
    world.aclConfig->acl("d")->currCfgIs(version);
    EXPECT_EQ(order("7 Adding group "), "239.1.2.10 to status 239.1.2.20 to status "
                                        "239.1.2.30 to status ");
    EXPECT_EQ(cachedRules("d"), 3u);
}

TEST_F(AclTest, NamesWithoutAListAndListsWithoutANameDoNothing) {
    TraceLog trace(7);
    config->aclListIs("nowhere");
    EXPECT_EQ(machine().igmpHostProxyAclHelper().size(), 0u);
    EXPECT_EQ(trace.take(), Lines());
    config->aclListDel("nowhere");
    EXPECT_EQ(trace.take(),
              Lines{"7 ACL removed from config. Purging cached rules. Deleting helper"});

    ruleIs("unnamed", 1, permit(sourceS, groupG));
    EXPECT_NE(machine().acl("unnamed"), nullptr); // watched, for its name may come
    EXPECT_EQ(status->groupSourceListCount(), 0u);
    world.aclConfig->aclDel("unnamed");
    EXPECT_EQ(machine().acl("unnamed"), nullptr);

    // A name first, the list later, its rules last.
    attach();
    world.aclConfig->aclIs("iptv");
    ASSERT_NE(helper(), nullptr);
    ruleIs("iptv", 1, permit(sourceS, groupG));
    EXPECT_EQ(count(sourceS), 1u);
}

// A list that is attached before the machine is built is applied by the constructor, which takes
// all lists that exist, and by the start-up, which takes all that are named.
TEST_F(AclTest, AListThatWasThereBeforeTheMachineCountsTwice) {
    ruleIs("iptv", 1, permit(sourceS, groupG));
    ruleIs("iptv", 2, permit(anySource, ip("239.1.1.2")));
    attach();
    ASSERT_EQ(count(sourceS), 1u);
    restart();
    EXPECT_EQ(count(sourceS), 2u);
    EXPECT_EQ(count(anySource, ip("239.1.1.2")), 2u);
    EXPECT_EQ(cachedRules(), 2u);

    // As the rule is taken back once, what is left of a specific source looks like references in
    // the other mode. Any source is forgotten whatever its count.
    config->aclListDel("iptv");
    EXPECT_EQ(announced(), "include exclude 10.0.0.1");
    EXPECT_EQ(count(sourceS), 1u);
    EXPECT_EQ(announced(ip("239.1.1.2")), "absent");
    EXPECT_EQ(count(anySource, ip("239.1.1.2")), 0u);
}

TEST_F(AclTest, AttachingTwiceAppliesTwiceWithoutAPurge) {
    ruleIs("iptv", 1, permit(sourceS, groupG));
    attach();
    machine().handleAclConfig("iptv");
    EXPECT_EQ(count(sourceS), 2u);
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
    machine().handleAclConfig(); // all lists
    EXPECT_EQ(count(sourceS), 3u);
}

// Edits

TEST_F(AclTest, OnlyNewIdsAreAppliedAndOnlyVanishedOnesTakenBack) {
    attach();
    ruleIs("iptv", 10, permit(sourceS, groupG));
    ruleIs("iptv", 20, permit(sourceS, ip("239.1.1.2")));
    AnnouncementWatch const watch(status.get());
    std::uint32_t const before = version();

    ruleIs("iptv", 30, permit(sourceS, ip("239.1.1.3")));
    EXPECT_EQ(announced(ip("239.1.1.3")), "include 10.0.0.1 exclude");
    ruleDel("iptv", 20);
    EXPECT_EQ(announced(ip("239.1.1.2")), "absent");
    // Another place in the list, or other content under the same id, is no change.
    rulesOf("iptv")->ruleBySequenceIs(5, Acl::UniqueId(10));
    rulesOf("iptv")->ruleBySequenceDel(10);
    rulesOf("iptv")->ipRuleByIdIs(Acl::UniqueId(10), permit(sourceT, groupG));
    rulesOf("iptv")->ruleBySequenceIs(6, Acl::UniqueId(99)); // without a rule
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
    EXPECT_EQ(count(sourceS), 1u);
    EXPECT_EQ(version(), before);
    EXPECT_EQ(watch.removedGroups(), 1u);
    // The rule is taken back as it was applied.
    ruleDel("iptv", 10, 5);
    EXPECT_EQ(announced(), "absent");
}

TEST_F(AclTest, AGroupThatPassesFromOneRuleToAnotherNeverLeaves) {
    attach();
    for (auto const& passed : {permit(sourceS, groupG), permit(anySource, groupG),
                               deny(sourceS, groupG), deny(anySource, groupG)}) {
        ruleIs("iptv", 1, passed);
        std::string const before = announced();
        std::uint32_t const stamp = version();
        AnnouncementWatch const watch(status.get());
        auto const rules = rulesOf("iptv");
        rules->ipRuleByIdIs(Acl::UniqueId(2), passed);
        rules->ruleBySequenceIs(1, Acl::UniqueId(2)); // in the same place: one notification
        EXPECT_EQ(watch.notifications(), 0u) << before;
        EXPECT_EQ(announced(), before);
        EXPECT_EQ(version(), stamp);
        EXPECT_EQ(count(passed.filter.source.address()), 1u);
        EXPECT_EQ(helper()->cachedRules(Acl::UniqueId(1)), Acl::IpRuleConfig());
        ruleDel("iptv", 2, 1);
        EXPECT_EQ(announced(), "absent");
    }
}

TEST_F(AclTest, AWholeNewVersionOfTheListIsComparedByIds) {
    attach();
    ruleIs("iptv", 1, permit(sourceS, groupG));
    ruleIs("iptv", 2, permit(sourceS, ip("239.1.1.2")));
    auto const old = rulesOf("iptv");
    auto const fresh = Acl::AclSubConfig::AclSubConfigIs("iptv");
    for (std::uint32_t const id : {1u, 3u}) {
        fresh->ipRuleByIdIs(Acl::UniqueId(id),
                            permit(sourceS, Lox::IpAddr::fromHost(0xEF010100 + id)));
        fresh->ruleBySequenceIs(id, Acl::UniqueId(id));
    }
    AnnouncementWatch const watch(status.get());
    world.aclConfig->acl("iptv")->currCfgIs(fresh);
    EXPECT_EQ(watch.notifications(), 4u); // a group and its source come, others go
    EXPECT_EQ(watch.removedGroups(), 1u);
    EXPECT_EQ(announced(ip("239.1.1.3")), "include 10.0.0.1 exclude");
    old->ruleBySequenceDel(1); // nobody listens there any more
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");

    // Without a version in force what was applied stays; the next version is compared to it.
    world.aclConfig->acl("iptv")->currCfgIs(nullptr);
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
    fresh->ruleBySequenceDel(3);
    EXPECT_EQ(announced(ip("239.1.1.3")), "include 10.0.0.1 exclude");
    world.aclConfig->acl("iptv")->currCfgIs(fresh);
    EXPECT_EQ(announced(ip("239.1.1.3")), "absent");
    EXPECT_EQ(count(sourceS), 1u);
}

// Whoever is told that a group came may edit the list at once, in the middle of an edit.
TEST_F(AclTest, ARuleThatIsAddedWhileAnotherIsAppliedStays) {
    class Editor : public Nex::Reactor<IntfStatus::NotifieeConst, Nex::PtrInterface> {
      public:
        Editor(Nex::Ptr<IntfStatus const> status, std::function<void()> edit)
            : Reactor(std::move(status), static_cast<Nex::PtrInterface*>(nullptr)),
              edit_(std::move(edit)) {}
        void onGroupSourceList(Lox::IpAddr group) override {
            if (group == groupG) std::exchange(edit_, [] {})();
        }

      private:
        std::function<void()> edit_;
    };
    attach();
    ruleIs("iptv", 1, permit(sourceS, ip("239.1.1.9")));
    Nex::Owned<Editor> editor;
    editor.make(status, [this] {
        ruleIs("iptv", 5, permit(sourceT, ip("239.1.1.5")));
        ruleDel("iptv", 1);
    });
    ruleIs("iptv", 2, permit(sourceS, groupG));
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
    EXPECT_EQ(announced(ip("239.1.1.5")), "include 10.0.0.2 exclude");
    EXPECT_EQ(announced(ip("239.1.1.9")), "absent");
    EXPECT_EQ(cachedRules(), 2u);
}

// Rules that overlap

TEST_F(AclTest, APairIsWantedAsLongAsAnotherRuleContributesItInThatMode) {
    attach();
    config->aclListIs("news");
    ruleIs("iptv", 1, permit(sourceS, ip("239.1.1.0"), slash30));
    ruleIs("iptv", 2, permit(sourceS, groupG));
    ruleIs("news", 1, permit(sourceS, groupG));
    // These speak of the group without contributing the pair in include mode.
    ruleIs("iptv", 3, permit(sourceT, groupG));
    ruleIs("iptv", 4, denyAll);
    EXPECT_EQ(count(sourceS), 3u);
    ruleDel("iptv", 1);
    EXPECT_EQ(announced(ip("239.1.1.0")), "absent");
    EXPECT_EQ(announced(), "include 10.0.0.1 10.0.0.2 exclude");
    ruleDel("iptv", 2);
    EXPECT_EQ(announced(), "include 10.0.0.1 10.0.0.2 exclude"); // through the other list
    ruleDel("news", 1);
    EXPECT_EQ(announced(), "include 10.0.0.2 exclude");
    EXPECT_EQ(count(sourceS), 0u);
}

// Neither does a rule contribute that was rejected, though it is cached and covers the group.
TEST_F(AclTest, ARejectedRuleKeepsNoPairInItsMode) {
    attach();
    ruleIs("iptv", 1, permit(sourceS, groupG));
    machine().handleAclConfig("iptv"); // counts 2
    ruleIs("iptv", 2, permit(sourceS, ip("128.0.0.0"), 0x80000000));
    EXPECT_EQ(cachedRules(), 2u);
    ruleDel("iptv", 1);
    EXPECT_EQ(announced(), "include exclude 10.0.0.1");
}

TEST_F(AclTest, ConfigurationAndListShareAPairInOneModeAndInBoth) {
    attach();
    auto const configured = config->groupSourceListIs(groupG);
    configured->includeSourceListIs(sourceS);
    ruleIs("iptv", 1, permit(sourceS, groupG));
    EXPECT_EQ(count(sourceS), 2u);
    std::uint32_t const stamp = version();
    ruleDel("iptv", 1); // the configuration wants it still
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
    EXPECT_EQ(version(), stamp);
    ruleIs("iptv", 1, permit(sourceS, groupG));
    removeInclude(*config, sourceS, groupG); // the list wants it still
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
    ruleDel("iptv", 1);
    EXPECT_EQ(announced(), "absent");

    // In both modes exclude wins, and what is left decides.
    configured->includeSourceListIs(sourceS);
    ruleIs("iptv", 2, deny(sourceS, groupG));
    EXPECT_EQ(announced(), "include exclude 10.0.0.1");
    ruleDel("iptv", 2);
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
    ruleIs("iptv", 3, deny(sourceS, groupG));
    removeInclude(*config, sourceS, groupG);
    EXPECT_EQ(announced(), "include exclude 10.0.0.1");
    EXPECT_EQ(count(sourceS), 1u);
    ruleDel("iptv", 3);
    EXPECT_EQ(announced(), "absent");
}

TEST_F(AclTest, AnySourceOfAListDisplacesSpecificOnesUntilItIsTakenBack) {
    attach();
    config->groupSourceListIs(groupG)->includeSourceListIs(sourceS);
    ruleIs("iptv", 1, permit(sourceT, groupG));
    ruleIs("iptv", 2, deny(anySource, groupG)); // includes any source
    EXPECT_EQ(announced(), "include 0.0.0.0 exclude");
    ruleDel("iptv", 2);
    EXPECT_EQ(announced(), "include 10.0.0.1 10.0.0.2 exclude");
    ruleIs("iptv", 3, permit(anySource, groupG)); // refused beside specific sources, but counted
    EXPECT_EQ(announced(), "include 10.0.0.1 10.0.0.2 exclude");
    EXPECT_EQ(count(anySource), 1u);
    ruleDel("iptv", 3);
    EXPECT_EQ(count(anySource), 0u);
    EXPECT_EQ(announced(), "include 10.0.0.1 10.0.0.2 exclude");
}

// Rejected rules that are taken back

TEST_F(AclTest, ARejectedRuleOfAnEditIsCachedAndTakesReferencesWithIt) {
    attach();
    config->groupSourceListIs(groupG)->includeSourceListIs(sourceS);
    config->groupSourceListIs(ip("239.1.1.2"))->includeSourceListIs(sourceT);
    Acl::IpRuleConfig everything = permit(sourceS, ip("128.0.0.0"), 0x80000000);
    ruleIs("iptv", 1, everything);
    EXPECT_EQ(cachedRules(), 1u);
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
    EXPECT_EQ(count(sourceS), 1u);
    ruleDel("iptv", 1);
    EXPECT_EQ(cachedRules(), 0u);
    EXPECT_EQ(announced(), "absent");
    EXPECT_EQ(count(sourceS), 0u);
    EXPECT_EQ(announced(ip("239.1.1.2")), "include 10.0.0.2 exclude");
}

// Of the groups in its range only those are visited of which anything is known.
TEST_F(AclTest, TakingBackARuleOverTheWholeAddressSpaceIsQuick) {
    attach();
    config->groupSourceListIs(groupG)->excludeSourceListIs(sourceS);
    ruleIs("iptv", 1, permit(sourceT, ip("239.2.0.0"), 0xFFFFFF00));
    status->groupSourceListIs(ip("239.3.0.1"))->excludeSourceListIs(sourceS); // from the table
    machine().groupSourceRefCounterIs({sourceS, ip("10.9.9.9")}, 1);          // a count alone
    Acl::IpRuleConfig const rejected = deny(sourceS, Lox::IpAddr(), 0);
    auto const start = std::chrono::steady_clock::now();
    ruleIs("iptv", 2, rejected);
    ruleDel("iptv", 2);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(announced(), "absent");
    EXPECT_EQ(announced(ip("239.3.0.1")), "absent");
    EXPECT_EQ(count(sourceS, ip("10.9.9.9")), 0u);
    EXPECT_EQ(announced(ip("239.2.0.7")), "include 10.0.0.2 exclude");
    EXPECT_EQ(status->groupSourceListCount(), 256u);
    // The rule of zeros says nothing at all, not even when it is taken back by hand.
    helper()->purgeCachedRule(Acl::IpRuleConfig());
    EXPECT_EQ(status->groupSourceListCount(), 256u);
}

TEST_F(AclTest, APurgeWithoutHelperEntryStillReachesTheMerge) {
    attach();
    ruleIs("iptv", 1, permit(sourceS, groupG));
    helper()->groupSourceListDel(groupG);
    ruleDel("iptv", 1);
    EXPECT_EQ(helper()->groupSourceList(groupG), nullptr);
    EXPECT_EQ(announced(), "absent");
    EXPECT_EQ(count(sourceS), 0u);
}

TEST_F(AclTest, TheMachineGoesWithoutTakingItsListsBack) {
    attach();
    ruleIs("iptv", 1, permit(sourceS, groupG));
    world.root->igmpHostProxyIntfSmDel(up0);
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
    ruleDel("iptv", 1);
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
}

} // namespace
} // namespace IgmpHostProxy
