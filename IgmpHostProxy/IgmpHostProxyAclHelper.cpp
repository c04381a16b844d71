#include "IgmpHostProxy/IgmpHostProxyAclHelper.h"

#include "IgmpHostProxy/AddressRangeIterator.h"
#include "IgmpHostProxy/IgmpHostProxyIntfSm.h"
#include "IgmpHostProxy/Trace.h"
#include "Nex/Error.h"

#include <algorithm>

namespace IgmpHostProxy {

Nex::Ptr<IgmpHostProxyAclHelper> igmpHostProxyAclHelperFactory(Nex::String aclName,
                                                               IgmpHostProxyIntfSm* machine) {
    return Nex::newObject<IgmpHostProxyAclHelper>(std::move(aclName), machine);
}

// What a rule means

/// The masks are not looked at: an address of zeros is how "any" is written.
bool IgmpHostProxyAclHelper::isDenyAll(Acl::IpRuleConfig const& rule) {
    return rule.action == Acl::Action::deny && rule.filter.destination.address().isZero() &&
           rule.filter.source.address().isZero();
}

/// A permitted source is included and a denied one excluded. For any source it is the other way
/// round, and meant to be: permit any excludes 0.0.0.0, which joins all sources without standing in
/// the way of specific ones, and deny any mirrors that by including 0.0.0.0. Only the address says
/// which it is, as it was written, also under a mask of zeros.
RuleEffect IgmpHostProxyAclHelper::effectOf(Acl::IpRuleConfig const& rule) {
    bool const permit = rule.action == Acl::Action::permit;
    Lox::IpAddr const source = rule.filter.source.address();
    return {permit == (source != anySource), source};
}

IgmpHostProxyAclHelper::Fault IgmpHostProxyAclHelper::faultOf(Acl::IpRuleConfig const& rule) {
    Lox::IpAddrWithFullMask const range = rule.filter.destination;
    if (!range.lowest().isMulticast() || !range.highest().isMulticast()) return Fault::range;
    Lox::IpAddrWithFullMask const source = rule.filter.source;
    if (source.mask() != 0 && source.mask() != ~std::uint32_t(0)) return Fault::sourceRange;
    if (source.address().isMulticast()) return Fault::sourceMulticast;
    return Fault::none;
}

void IgmpHostProxyAclHelper::doTraceFault(Acl::UniqueId id, Acl::IpRuleConfig const& rule,
                                          Fault fault) const {
    void const* const self = this;
    switch (fault) {
    case Fault::none:
        return;
    case Fault::range:
        IHP_TRACE(7,
                  "%::handleRule( % ): Invalid source group range: % contains invalid multicast "
                  "addresses",
                  self, id, rule.filter.destination);
        return;
    case Fault::sourceRange:
        IHP_TRACE(7,
                  "%::handleRule( % ): Invalid source group source address: % ; Must be a single "
                  "address, not a range",
                  self, id, rule.filter.source);
        return;
    case Fault::sourceMulticast:
        IHP_TRACE(7,
                  "%::handleRule( % ): Invalid source group source address: % is not a valid "
                  "unicast host",
                  self, id, rule.filter.source);
        return;
    }
}

// Applying rules

/// While a rule is being applied or taken back, also if that ends by an exception.
class IgmpHostProxyAclHelper::Work {
  public:
    Work(IgmpHostProxyAclHelper& helper, UnderWay const& underWay)
        : helper_(helper), outer_(std::exchange(helper.underWay_, underWay)) {}
    Work(Work const&) = delete;
    Work& operator=(Work const&) = delete;
    ~Work() { helper_.underWay_ = outer_; }

  private:
    IgmpHostProxyAclHelper& helper_;
    std::optional<UnderWay> outer_; ///< only if somebody works on the helper past its owner
};

bool IgmpHostProxyAclHelper::doDefer(Asked asked) {
    if (underWay_) asked_ = std::max(asked_, asked);
    return underWay_.has_value();
}

void IgmpHostProxyAclHelper::handleRule(Acl::UniqueId id) {
    IHP_TRACE_ENTRY();
    Acl::AclConfig const* const acl =
        machine_->ipAclConfig() ? machine_->ipAclConfig()->acl(aclName_) : nullptr;
    Nex::Ptr<Acl::AclSubConfig const> const cfg = acl ? acl->currCfg() : nullptr;
    // A rule that is gone reads as all zeros, which is an invalid range.
    Acl::IpRuleConfig const rule = cfg ? cfg->ipRuleById(id) : Acl::IpRuleConfig();
    Fault const fault = faultOf(rule);
    if (!isDenyAll(rule) && fault != Fault::none) return doTraceFault(id, rule, fault);
    if (!machine_->intfStatus()) return;
    Work const work(*this, {rule, false, false, {}});
    try {
        if (isDenyAll(rule)) {
            machine_->intfStatus()->denyMrouteIs(true);
        } else {
            Lox::IpAddrWithFullMask const range = rule.filter.destination;
            for (AddressRangeIterator group(range.address().host(), range.mask()); !group.done();
                 ++group)
                doApply(id, rule, *group);
        }
        cachedRulesIs(id, rule);
    } catch (...) {
        doGiveUp(rule);
        throw;
    }
}

void IgmpHostProxyAclHelper::doApply(Acl::UniqueId id, Acl::IpRuleConfig const& rule,
                                     Lox::IpAddr group) {
    RuleEffect const effect = effectOf(rule);
    underWay_->group = group;
    bool counted = false;
    try {
        doApplyTo(group, id, rule, effect, counted);
    } catch (...) {
        if (!counted) underWay_->group = Lox::IpAddr::fromHost(group.host() - 1);
        throw;
    }
}

void IgmpHostProxyAclHelper::doApplyTo(Lox::IpAddr group, Acl::UniqueId id,
                                       Acl::IpRuleConfig const& rule, RuleEffect effect,
                                       bool& counted) {
    Nex::Ptr<GroupSource> const contribution = groupSourceListIs(group);
    Nex::Ptr<IntfStatus> const status = machine_->intfStatus();
    if (!status) return; // gone by what a group before has brought about
    Nex::Ptr<GroupSource> entry = status->groupSourceList(group);
    if (!entry) {
        IHP_TRACE(7, "Adding group % to status", group);
        entry = status->groupSourceListIs(group);
    }
    void const* const self = this;
    IHP_TRACE(7, "%::handleRule( % ): Rule type: %", self, id, rule.action);
    if (effect.include) {
        contribution->includeSourceListIs(effect.source);
        machine_->prepareAdd(entry.get(), &counted);
        machine_->addIncludeSourceGroup(effect.source, group);
    } else {
        contribution->excludeSourceListIs(effect.source);
        machine_->prepareAdd(entry.get(), &counted);
        machine_->addExcludeSourceGroup(effect.source, group);
    }
}

void IgmpHostProxyAclHelper::handleAllRules() {
    IHP_TRACE_ENTRY();
    Acl::AclConfig const* const acl =
        machine_->ipAclConfig() ? machine_->ipAclConfig()->acl(aclName_) : nullptr;
    Nex::Ptr<Acl::AclSubConfig const> const cfg = acl ? acl->currCfg() : nullptr;
    if (!cfg) return;
    Nex::FirstError error;
    for (auto const& item : cfg->ipRuleById()) error.attempt([&] { handleRule(item.key); });
    error.rethrow();
}

/// Takes back what the rule under way has done so far. Errors on the way are not told: the caller
/// hears the one that it began with.
void IgmpHostProxyAclHelper::doGiveUp(Acl::IpRuleConfig const& rule) {
    Nex::FirstError untold;
    if (isDenyAll(rule)) {
        untold.attempt([&] {
            if (machine_->intfStatus()) machine_->intfStatus()->denyMrouteIs(false);
        });
        return;
    }
    RuleEffect const effect = effectOf(rule);
    underWay_->takenBack = true;
    underWay_->last = underWay_->group;
    Lox::IpAddrWithFullMask const range = rule.filter.destination;
    for (AddressRangeIterator group(range.address().host(), range.mask());
         !group.done() && *group <= underWay_->last; ++group)
        untold.attempt([&] { doTakeBack(effect, *group); });
}

// Taking rules back

void IgmpHostProxyAclHelper::purgeCachedRule(Acl::IpRuleConfig const& rule) {
    purgeCachedRule(rule, true);
}

void IgmpHostProxyAclHelper::purgeCachedRules() {
    IHP_TRACE_ENTRY();
    Nex::FirstError error;
    for (auto const& item : cachedRules_.walk()) {
        cachedRulesDel(item.key);
        error.attempt([&] { purgeCachedRule(item.value, false); });
    }
    error.rethrow();
}

void IgmpHostProxyAclHelper::purgeCachedRule(Acl::IpRuleConfig const& rule, bool cached) {
    IHP_TRACE_ENTRY();
    if (!machine_->intfStatus()) return;
    if (rule.filter == Acl::IpFilter() && !isDenyAll(rule)) return;
    Work const work(*this, {rule, true, cached, {}});
    if (isDenyAll(rule)) return machine_->intfStatus()->denyMrouteIs(false);
    RuleEffect const effect = effectOf(rule);
    Lox::IpAddrWithFullMask const range = rule.filter.destination;
    // A rejected rule may have been cached and cover the whole address space. Groups that nobody
    // knows need no visit.
    Nex::FirstError error;
    auto const takeBack = [&](Lox::IpAddr group) {
        error.attempt([&] { doTakeBack(effect, group); });
    };
    if (range.size() > machine_->knownGroupsBound() + groupSourceList_.size())
        for (Lox::IpAddr const group : knownGroupsIn(range)) takeBack(group);
    else
        for (AddressRangeIterator group(range.address().host(), range.mask()); !group.done();
             ++group)
            takeBack(*group);
    error.rethrow();
}

std::vector<Lox::IpAddr>
IgmpHostProxyAclHelper::knownGroupsIn(Lox::IpAddrWithFullMask range) const {
    std::vector<Lox::IpAddr> groups;
    auto const add = [&](Lox::IpAddr group) {
        if (range.has(group)) groups.push_back(group);
    };
    for (Lox::IpAddr const group : groupSourceList_.walk<Nex::Nothing>()) add(group);
    machine_->forKnownGroups(add);
    std::sort(groups.begin(), groups.end());
    groups.erase(std::unique(groups.begin(), groups.end()), groups.end());
    return groups;
}

void IgmpHostProxyAclHelper::doTakeBack(RuleEffect effect, Lox::IpAddr group) {
    underWay_->group = group;
    GroupSource* const contribution = groupSourceList(group);
    if (effect.include) {
        if (contribution) contribution->includeSourceListDel(effect.source);
        machine_->removeIncludeSourceGroup(effect.source, group);
    } else {
        if (contribution) contribution->excludeSourceListDel(effect.source);
        machine_->removeExcludeSourceGroup(effect.source, group);
    }
}

// What the rules still contribute

bool IgmpHostProxyAclHelper::wanted(RuleEffect effect, Lox::IpAddr group) const {
    std::uint32_t rules = contributions_.count(effect, group);
    if (underWay_ && effectOf(underWay_->rule) == effect && isSelecting(underWay_->rule) &&
        underWay_->rule.filter.destination.has(group)) {
        if (underWay_->takenBack && underWay_->cached && rules > 0) --rules;
        bool const applied = underWay_->takenBack
                                 ? group > underWay_->group && group <= underWay_->last
                                 : group <= underWay_->group;
        if (applied) ++rules;
    }
    return rules > 0;
}

// Collections

GroupSource* IgmpHostProxyAclHelper::groupSourceList(Lox::IpAddr group) const {
    auto const* const found = groupSourceList_.find(group);
    return found ? found->get() : nullptr;
}

Nex::Ptr<GroupSource> IgmpHostProxyAclHelper::groupSourceListIs(Lox::IpAddr group) {
    auto* const slot = groupSourceList_.findOrInsert(group).first;
    if (!*slot) *slot = GroupSource::GroupSourceIs(group); // now, if memory was refused before
    return *slot;
}

void IgmpHostProxyAclHelper::groupSourceListDelAll() {
    for (Lox::IpAddr const group : groupSourceList_.walk<Nex::Nothing>()) groupSourceListDel(group);
}

/// The counts tell. An entry may be empty though a rule contributes to it: one that went has taken
/// the source that they shared.
void IgmpHostProxyAclHelper::doForgetUnwantedGroups(Lox::IpAddrWithFullMask range) {
    auto const forget = [&](Lox::IpAddr group) {
        GroupSource const* const entry = groupSourceList(group);
        if (entry && entry->empty() && !machine_->groupSourceRefCounter().groupHas(group))
            groupSourceListDel(group);
    };
    if (range.size() > groupSourceList_.size()) {
        for (Lox::IpAddr const group : groupSourceList_.walk<Nex::Nothing>())
            if (range.has(group)) forget(group);
    } else {
        for (AddressRangeIterator group(range.address().host(), range.mask()); !group.done();
             ++group)
            forget(*group);
    }
}

Acl::IpRuleConfig IgmpHostProxyAclHelper::cachedRules(Acl::UniqueId id) const {
    auto const* const found = cachedRules_.find(id);
    return found ? *found : Acl::IpRuleConfig();
}

void IgmpHostProxyAclHelper::cachedRulesIs(Acl::UniqueId id, Acl::IpRuleConfig const& rule) {
    auto const [cached, fresh] = cachedRules_.findOrInsert(id);
    try {
        if (isSelecting(rule)) contributions_.add(effectOf(rule), rule.filter.destination);
    } catch (...) { // without memory all is as before
        if (fresh) cachedRules_.take(id);
        throw;
    }
    doForget(*cached);
    *cached = rule;
}

void IgmpHostProxyAclHelper::cachedRulesDel(Acl::UniqueId id) { doForget(cachedRules_.take(id)); }

void IgmpHostProxyAclHelper::doForget(Acl::IpRuleConfig const& rule) {
    if (isSelecting(rule)) contributions_.del(effectOf(rule), rule.filter.destination);
}

void IgmpHostProxyAclHelper::cachedRulesDelAll() {
    for (Acl::UniqueId const id : cachedRules_.walk<Nex::Nothing>()) cachedRulesDel(id);
}

} // namespace IgmpHostProxy
