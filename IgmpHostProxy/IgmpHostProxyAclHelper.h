// The groups that one access list contributes to one interface.
//
// Each rule selects a range of groups and one source. The helper feeds every (source, group) pair
// into the interface's membership merge, and keeps a copy of each rule that it applied, so that the
// rule's effect can be taken back exactly. The rule that denies everything selects no groups: it
// keeps the forwarding table's groups out of the interface. The interface machine owns the helper,
// for as long as the list is attached.
#pragma once

#include "Acl/AclConfig.h"
#include "IgmpHostProxy/GroupSource.h"
#include "Nex/Map.h"
#include "Nex/Ptr.h"

#include <optional>
#include <vector>

namespace IgmpHostProxy {

class IgmpHostProxyIntfSm;

class IgmpHostProxyAclHelper : public Nex::PtrInterface {
  public:
    /// `machine` is not owned and outlives the helper.
    IgmpHostProxyAclHelper(Nex::String aclName, IgmpHostProxyIntfSm* machine)
        : aclName_(std::move(aclName)), machine_(machine) {}
    /// Takes nothing back: its owner purges first.
    ~IgmpHostProxyAclHelper() override { groupSourceListDelAll(); }

    Nex::String const& aclName() const { return aclName_; }

    /// Applies one rule of the list's current configuration. An invalid rule is traced and left.
    void handleRule(Acl::UniqueId id);
    void handleAllRules();
    /// Takes back what a rule did. Its groups' entries here stay, be they empty.
    void purgeCachedRule(Acl::IpRuleConfig const& rule);
    /// Takes everything back and empties the cache.
    void purgeCachedRules();

    /// Whether a cached rule contributes the pair in that mode, other than the one that is being
    /// taken back.
    bool includeWanted(Lox::IpAddr source, Lox::IpAddr group) const;
    bool excludeWanted(Lox::IpAddr source, Lox::IpAddr group) const;

    /// What the list contributes to a group, or null.
    GroupSource* groupSourceList(Lox::IpAddr group) const;
    auto groupSourceList() const { return groupSourceList_.walk(); }
    Nex::Ptr<GroupSource> groupSourceListIs(Lox::IpAddr group);
    void groupSourceListDel(Lox::IpAddr group) { groupSourceList_.take(group); }
    void groupSourceListDelAll();

    /// The rule as applied, or a default value.
    Acl::IpRuleConfig cachedRules(Acl::UniqueId id) const;
    auto cachedRules() const { return cachedRules_.walk(); }
    void cachedRulesIs(Acl::UniqueId id, Acl::IpRuleConfig const& rule);
    void cachedRulesDel(Acl::UniqueId id) { cachedRules_.take(id); }
    void cachedRulesDelAll();

  private:
    /// What a rule says of each group in its range.
    struct Effect {
        bool include;
        Lox::IpAddr source;
        friend bool operator==(Effect const&, Effect const&) = default;
    };
    static Effect effectOf(Acl::IpRuleConfig const& rule);
    static bool isDenyAll(Acl::IpRuleConfig const& rule);
    enum class Fault { none, range, sourceRange, sourceMulticast };
    static Fault faultOf(Acl::IpRuleConfig const& rule);
    void doTraceFault(Acl::UniqueId id, Acl::IpRuleConfig const& rule, Fault fault) const;

    bool wanted(Effect effect, Lox::IpAddr group) const;
    void doApply(Acl::UniqueId id, Acl::IpRuleConfig const& rule, Lox::IpAddr group);
    void doTakeBack(Effect effect, Lox::IpAddr group);
    /// The groups of a range that have an entry here, a status or a count, in ascending order.
    std::vector<Lox::IpAddr> knownGroupsIn(Lox::IpAddrWithFullMask range) const;
    /// `cachedAs` is the id under which the rule still stands in the cache, if it does.
    void purgeCachedRule(Acl::IpRuleConfig const& rule, std::optional<Acl::UniqueId> cachedAs);

    Nex::String aclName_;
    Nex::Map<Lox::IpAddr, Nex::Ptr<GroupSource>> groupSourceList_;
    Nex::Map<Acl::UniqueId, Acl::IpRuleConfig> cachedRules_;
    std::optional<Acl::UniqueId> takenBack_; ///< while its effect is being taken back
    IgmpHostProxyIntfSm* machine_;
};

Nex::Ptr<IgmpHostProxyAclHelper> igmpHostProxyAclHelperFactory(Nex::String aclName,
                                                               IgmpHostProxyIntfSm* machine);

} // namespace IgmpHostProxy
