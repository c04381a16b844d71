// Access lists: what their lines say, how whole versions and edits are told apart, and what goes
// when a rule is taken back.
#include "Producers.h"

namespace IgmpHostProxy {
namespace {

class AclTest : public Producers {
  protected:
    void attach(Nex::Name const& list = "iptv") { config->aclListIs(list); }
    void restart() {
        world.root->igmpHostProxyIntfSmDel(up0);
        world.root->handleIntfConfig(up0);
    }
    /// The helper of list "iptv" as it calls itself.
    std::string self() { return Nex::textOf(static_cast<void const*>(helper())); }
};

TEST_F(AclTest, ARangeIsAppliedInAscendingOrderAndTracedGroupByGroup) {
    attach();
    rulesOf("iptv")->ipRuleByIdIs(Acl::UniqueId(7), permit(sourceS, ip("239.1.1.2"), 0xFFFFFFFC));
    TraceLog trace(7);
    helper()->handleRule(Acl::UniqueId(7));
    Lines own;
    for (auto const& line : trace.take())
        if (line.find("Rule type") != line.npos || line.find("to status") != line.npos)
            own.push_back(line);
    Lines expected;
    for (std::string const group : {"239.1.1.0", "239.1.1.1", "239.1.1.2", "239.1.1.3"}) {
        expected.push_back("7 Adding group " + group + " to status");
        expected.push_back("7 " + self() + "::handleRule( 7 ): Rule type: permit");
    }
    EXPECT_EQ(own, expected);
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
        {permit(sourceS, ip("224.0.0.0"), 0xE0000000),
         "range: 224.0.0.0/224.0.0.0 contains invalid multicast addresses"},
        {permit(sourceS, ip("239.1.1.1"), 0x7FFFFFFF),
         "range: 239.1.1.1/127.255.255.255 contains invalid multicast addresses"},
        {permit(sourceS, ip("223.255.255.255")),
         "range: 223.255.255.255/255.255.255.255 contains invalid multicast addresses"},
        {permitted(at("10.0.0.1", 0xFFFFFFFE), good),
         "source address: 10.0.0.1/255.255.255.254 ; Must be a single address, not a range"},
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
    std::string const prefix = "7 " + self() + "::handleRule( 5 ): ";
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

TEST_F(AclTest, OnlyAddressesOfZerosAndTheActionDenyDenyEverything) {
    attach();
    ruleIs("iptv", 1, permit(anySource, Lox::IpAddr(), oneAddress));
    ruleIs("iptv", 2, deny(sourceS, Lox::IpAddr(), 0));
    ruleIs("iptv", 3, deny(anySource, groupG));
    ruleIs("iptv", 4, rule(Acl::Action(2), anySource, Lox::IpAddr(), 0));
    EXPECT_FALSE(status->denyMroute());
    EXPECT_EQ(status->groupSourceListCount(), 1u);
    ruleIs("iptv", 5, deny(anySource, Lox::IpAddr(), oneAddress)); // masks do not matter
    EXPECT_TRUE(status->denyMroute());
}

TEST_F(AclTest, TheLinesOfAListsLife) {
    TraceLog trace(7);
    attach();
    EXPECT_EQ(trace.take(), Lines());
    ruleIs("iptv", 1, permit(sourceS, groupG));
    EXPECT_EQ(trace.take()[0], "7 Creating helper for acl: iptv");

    // The list goes: its helper stays, purged, with its group entries.
    Nex::Ptr<IgmpHostProxyAclHelper> const first = helper();
    world.aclConfig->aclDel("iptv");
    EXPECT_EQ(trace.take()[0], "7 ACL config deleted. Purging cached rules.");
    EXPECT_EQ(helper(), first.get());
    EXPECT_EQ(sourcesOf(helper()->groupSourceList(groupG)), "include exclude");
    EXPECT_EQ(announced(), "absent");

    // Its name goes: nothing is left. A name without a list is let go of in the same words.
    std::string const removed = "7 ACL removed from config. Purging cached rules. Deleting helper";
    ruleIs("iptv", 2, permit(sourceT, groupG));
    EXPECT_EQ(helper(), first.get());
    trace.take();
    config->aclListDel("iptv");
    Lines const lines = trace.take();
    EXPECT_EQ(lines.front(), "7 ACL config deleted. Purging cached rules.");
    EXPECT_EQ(lines.back(), removed);
    EXPECT_EQ(helper(), nullptr);
    attach("nowhere");
    config->aclListDel("nowhere");
    EXPECT_EQ(trace.take(), Lines{removed});
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

TEST_F(AclTest, AnEditUnderTheSameIdIsNoChange) {
    attach();
    ruleIs("iptv", 10, permit(sourceS, groupG));
    TraceLog trace(7);
    rulesOf("iptv")->ruleBySequenceIs(5, Acl::UniqueId(10));
    rulesOf("iptv")->ruleBySequenceDel(10);
    rulesOf("iptv")->ipRuleByIdIs(Acl::UniqueId(10), permit(sourceT, groupG));
    rulesOf("iptv")->ruleBySequenceIs(6, Acl::UniqueId(99)); // without a rule
    EXPECT_EQ(toldToHost(trace.take()), 0);
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
    EXPECT_EQ(count(sourceS), 1u);
    // The rule is taken back as it was applied.
    ruleDel("iptv", 10, 5);
    EXPECT_EQ(announced(), "absent");
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
    std::uint32_t const stamp = host->v3group(groupG)->version();
    world.aclConfig->acl("iptv")->currCfgIs(fresh);
    EXPECT_EQ(host->v3group(groupG)->version(), stamp);
    EXPECT_EQ(announced(ip("239.1.1.2")), "absent");
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

// Of the groups in its range only those are visited of which anything is known.
TEST_F(AclTest, TakingBackARejectedRuleVisitsNoGroupThatNobodyKnows) {
    attach();
    config->groupSourceListIs(groupG)->excludeSourceListIs(sourceS);
    ruleIs("iptv", 1, permit(sourceT, ip("239.1.2.0"), 0xFFFFFF00));
    status->groupSourceListIs(ip("239.1.0.1"))->excludeSourceListIs(sourceS); // from the table
    status->groupSourceListIs(ip("239.9.0.1"))->excludeSourceListIs(sourceS); // out of the range
    machine().groupSourceRefCounterIs({sourceS, ip("239.1.9.9")}, 1);         // a count alone
    ruleIs("iptv", 2, deny(sourceS, ip("239.1.0.0"), 0x7FFF0000)); // rejected, and yet cached
    TraceLog trace(8);
    ruleDel("iptv", 2);
    Lines const lines = trace.take();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](auto const& line) {
                                return line.find("::removeExcludeSourceGroup(") != line.npos;
                            }),
              256 + 3);
    EXPECT_EQ(announced(), "absent");
    EXPECT_EQ(announced(ip("239.1.0.1")), "absent");
    EXPECT_EQ(count(sourceS, ip("239.1.9.9")), 0u);
    EXPECT_EQ(announced(ip("239.1.2.7")), "include 10.0.0.2 exclude");
    EXPECT_EQ(status->groupSourceListCount(), 257u);
    // The rule of zeros says nothing at all, not even when it is taken back by hand.
    helper()->purgeCachedRule(Acl::IpRuleConfig());
    EXPECT_EQ(announced(ip("239.9.0.1")), "include exclude 10.0.0.1");
}

TEST_F(AclTest, ListsOfAnotherDirectoryTakeThePlaceOfTheOldOnes) {
    attach();
    attach("gone");
    ruleIs("iptv", 1, permit(sourceS, groupG));
    ruleIs("gone", 1, permit(sourceS, ip("239.1.1.2")));
    auto const old = world.aclConfig;
    world.aclConfig = Acl::AclTypeConfig::AclTypeConfigIs();
    ruleIs("iptv", 1, permit(sourceS, groupG));
    ruleIs("iptv", 2, permit(sourceT, groupG));
    machine().ipAclConfigIs(Nex::Ptr<Acl::AclTypeConfig const>(world.aclConfig));
    EXPECT_EQ(announced(), "include 10.0.0.1 10.0.0.2 exclude");
    EXPECT_EQ(machine().acl("gone"), nullptr);
    EXPECT_EQ(machine().acl("iptv")->notifier(), world.aclConfig->acl("iptv"));
    old->acl("iptv")->currCfg()->ruleBySequenceDel(1); // nobody listens there any more
    EXPECT_EQ(count(sourceS), 2u);                     // as of any list that is asked for again
    ruleDel("iptv", 2);
    EXPECT_EQ(announced(), "include 10.0.0.1 exclude");
    world.aclConfig->aclDel("iptv");
    EXPECT_EQ(machine().acl("iptv"), nullptr);
}

} // namespace
} // namespace IgmpHostProxy
