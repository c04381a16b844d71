// The groups that one access list contributes to one interface.
//
// Each rule selects a range of groups and one source. The helper feeds every (source, group) pair
// into the interface's membership merge, and keeps a copy of each rule that it applied, so that the
// rule's effect can be taken back exactly. The rule that denies everything selects no groups: it
// keeps the forwarding table's groups out of the interface. The interface machine owns the helper,
// for as long as the list is attached.
//
// Whoever hears of a group may edit, attach or detach the list while one of its rules is being
// applied or taken back. The helper then finishes that rule first: what was asked of it meanwhile
// is left to its owner, who looks again when the rule is done.
//
// What a rule means: permit or deny with a single source includes or excludes that source. With any
// source it is the other way round: permit joins the group from all sources, by excluding 0.0.0.0,
// and deny includes 0.0.0.0. Deny of any source to any destination is the rule that denies
// everything.
#pragma once

#include "Acl/AclConfig.h"
#include "IgmpHostProxy/GroupSource.h"
#include "IgmpHostProxy/RuleIndex.h"
#include "Nex/Map.h"
#include "Nex/Ptr.h"

#include <optional>
#include <utility>
#include <vector>

namespace IgmpHostProxy {

class IgmpHostProxyIntfSm;

class IgmpHostProxyAclHelper : public Nex::PtrInterface {
  public:
    /// `machine` is not owned and outlives the helper. Applies nothing yet. `aclName` names the
    /// list for good; which list that is, is looked up at each call.
    IgmpHostProxyAclHelper(Nex::String aclName, IgmpHostProxyIntfSm* machine)
        : aclName_(std::move(aclName)), machine_(machine) {}
    /// Takes nothing back: its owner purges first.
    ~IgmpHostProxyAclHelper() override { groupSourceListDelAll(); }

    Nex::String const& aclName() const { return aclName_; }

    /// Applies one rule of the list's current configuration. An invalid rule is traced and left.
    /// One whose application throws is taken back as far as it has got, and can be applied again. A
    /// rule that is applied already is counted once more: the caller asks the cache. In one go,
    /// however many groups the range has; each is announced as its turn comes.
    void handleRule(Acl::UniqueId id);
    /// Applies them all, those without a sequence number included, in the order in which they were
    /// written, whichever of them throws; the caller hears the first error.
    void handleAllRules();
    /// Takes back what a rule did that still stands in the cache. Its groups' entries here stay, be
    /// they empty. All of it is taken back, whatever is thrown; the caller hears the first error.
    void purgeCachedRule(Acl::IpRuleConfig const& rule);
    /// Takes everything back, likewise, and empties the cache. The helper can go on with other
    /// rules.
    void purgeCachedRules();

    /// What is to be looked at again: the list's rules, or whether the list takes effect at all.
    enum class Asked { nothing, rules, list };
    /// While a rule is being applied or taken back, remembers what was asked for meanwhile. Whether
    /// one is: the caller then leaves everything as it is.
    bool doDefer(Asked asked);
    Asked asked() const { return asked_; }
    /// Forgets it, too.
    Asked takeAsked() { return std::exchange(asked_, Asked::nothing); }

    /// Whether a rule contributes the pair in that mode: one in the cache, or the one that is being
    /// applied or taken back, as far as it has got. A lookup for each mask that such rules have.
    bool wanted(RuleEffect effect, Lox::IpAddr group) const;

    /// What the list contributes to a group, or null. Lent. The entry is scratch, in no tree;
    /// nobody is told of it, and it may be empty.
    GroupSource* groupSourceList(Lox::IpAddr group) const;
    auto groupSourceList() const { return groupSourceList_.walk(); }
    /// Makes the entry where there is none. From then on routes keep off the group.
    Nex::Ptr<GroupSource> groupSourceListIs(Lox::IpAddr group);
    void groupSourceListDel(Lox::IpAddr group) { groupSourceList_.take(group); }
    void groupSourceListDelAll();
    /// Forgets the groups of a range that nobody wants any longer, be it by another list. As long
    /// as they have an entry here, the list owns them.
    void doForgetUnwantedGroups(Lox::IpAddrWithFullMask range);

    /// The rule as applied, or a default value. The cache is what is taken back: writing to it
    /// applies nothing, and what is deleted from it stays announced.
    Acl::IpRuleConfig cachedRules(Acl::UniqueId id) const;
    auto cachedRules() const { return cachedRules_.walk(); }
    /// In place of what stands there. Throws std::bad_alloc, and all is as before.
    void cachedRulesIs(Acl::UniqueId id, Acl::IpRuleConfig const& rule);
    void cachedRulesDel(Acl::UniqueId id);
    void cachedRulesDelAll();

  private:
    static RuleEffect effectOf(Acl::IpRuleConfig const& rule);
    static bool isDenyAll(Acl::IpRuleConfig const& rule);
    /// Why a rule is rejected: groups that are no multicast addresses, a source that is more than
    /// one address, or a multicast one. Each has a trace of its own.
    enum class Fault { none, range, sourceRange, sourceMulticast };
    static Fault faultOf(Acl::IpRuleConfig const& rule);
    void doTraceFault(Acl::UniqueId id, Acl::IpRuleConfig const& rule, Fault fault) const;

    /// The rule that is being applied or taken back, group by group in ascending order. There is
    /// one at a time, and `wanted` goes by it: a rule counts for the groups that it has got to, not
    /// yet for those ahead.
    struct UnderWay {
        Acl::IpRuleConfig rule;
        bool takenBack;
        bool cached;       ///< among the cached rules, all the time
        Lox::IpAddr group; ///< how far it has got
        /// The last group that it had got to as it began to be taken back.
        Lox::IpAddr last = Lox::IpAddr::fromHost(~std::uint32_t(0));
    };
    class Work;

    /// What contributes something: neither a rule that denies everything nor a rejected one.
    static bool isSelecting(Acl::IpRuleConfig const& rule) { return faultOf(rule) == Fault::none; }
    void doApply(Acl::UniqueId id, Acl::IpRuleConfig const& rule, Lox::IpAddr group);
    void doApplyTo(Lox::IpAddr group, Acl::UniqueId id, Acl::IpRuleConfig const& rule,
                   RuleEffect effect, bool& counted);
    void doGiveUp(Acl::IpRuleConfig const& rule);
    void doForget(Acl::IpRuleConfig const& rule);
    /// `cached` says whether the rule still stands in the cache.
    void purgeCachedRule(Acl::IpRuleConfig const& rule, bool cached);
    void doTakeBack(RuleEffect effect, Lox::IpAddr group);
    /// The groups of a range that have an entry here, a status or a count, in ascending order.
    std::vector<Lox::IpAddr> knownGroupsIn(Lox::IpAddrWithFullMask range) const;

    Nex::String aclName_;
    Nex::Map<Lox::IpAddr, Nex::Ptr<GroupSource>> groupSourceList_;
    Nex::Map<Acl::UniqueId, Acl::IpRuleConfig> cachedRules_;
    RuleIndex contributions_; ///< of the cached rules
    std::optional<UnderWay> underWay_;
    Asked asked_ = Asked::nothing;
    IgmpHostProxyIntfSm* machine_;
};

/// A helper that has applied nothing. `machine` as of the constructor.
Nex::Ptr<IgmpHostProxyAclHelper> igmpHostProxyAclHelperFactory(Nex::String aclName,
                                                               IgmpHostProxyIntfSm* machine);

} // namespace IgmpHostProxy
