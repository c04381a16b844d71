// Which access lists take effect on the interface: those that its configuration names and that
// exist. Each has a helper, which is kept in step with the list's rules by their ids.
//
// Whoever hears of a group may change the list at once. While a helper is at work on a rule it
// takes no other one up: `doAndFollowUp` looks again when it is done.
#include "IgmpHostProxy/IgmpHostProxyIntfSm.h"
#include "IgmpHostProxy/Trace.h"

namespace IgmpHostProxy {

template <class Act>
void IgmpHostProxyIntfSm::doAndFollowUp(Nex::String const& name, Act act) {
    using Asked = IgmpHostProxyAclHelper::Asked;
    Nex::FirstError error;
    error.attempt(act);
    while (Nex::Ptr<IgmpHostProxyAclHelper> const helper = igmpHostProxyAclHelper(name)) {
        Asked const asked = helper->takeAsked();
        if (asked == Asked::nothing) break;
        if (asked == Asked::list) {
            // The list may be another one by now, with other rules under the same ids.
            error.attempt([&] { helper->purgeCachedRules(); });
            error.attempt([&] { doAclConfig(name); });
        } else if (Nex::Ptr<NexAcl> const reactor = acl(name)) {
            error.attempt([&] { reactor->doReconcile(); });
        }
    }
    error.rethrow();
}

void IgmpHostProxyIntfSm::handleAclList() {
    IHP_TRACE_ENTRY();
    if (!intfConfig()) return;
    for (Nex::String const& name : intfConfig()->aclList()) handleAclList(name);
}

void IgmpHostProxyIntfSm::handleAclList(Nex::String name) {
    IHP_TRACE_ENTRY(" ( % )", name);
    handleAclConfig(name);
}

void IgmpHostProxyIntfSm::handleAclConfig() {
    IHP_TRACE_ENTRY();
    if (!ipAclConfig()) return;
    for (Nex::Name const& name : Nex::sortedKeys(ipAclConfig()->acl())) handleAclConfig(name);
}

void IgmpHostProxyIntfSm::handleAclConfig(Nex::String name) {
    IHP_TRACE_ENTRY(" ( % )", name);
    IgmpHostProxyAclHelper* const helper = igmpHostProxyAclHelper(name);
    if (helper && helper->doDefer(IgmpHostProxyAclHelper::Asked::list)) return;
    doAndFollowUp(name, [&] { doAclConfig(name); });
}

void IgmpHostProxyIntfSm::doAclConfig(Nex::String const& name) {
    if (intfConfig() && intfConfig()->aclListHas(name) && ipAclConfig() &&
        ipAclConfig()->aclHas(name)) {
        IHP_TRACE(7, "Creating helper for acl: %", name);
        // Also for a helper that is there already: its rules are then counted once more. Those who
        // attach lists know this and attach each once.
        igmpHostProxyAclHelperIs(name)->handleAllRules();
        return;
    }
    Nex::FirstError error;
    if (Nex::Ptr<IgmpHostProxyAclHelper> const helper = igmpHostProxyAclHelper(name)) {
        IHP_TRACE(7, "ACL config deleted. Purging cached rules.");
        error.attempt([&] { helper->purgeCachedRules(); });
    }
    // Asked now: whoever heard of the purge may have attached the list again.
    if (!intfConfig() || !intfConfig()->aclListHas(name)) {
        IHP_TRACE(7, "ACL removed from config. Purging cached rules. Deleting helper");
        igmpHostProxyAclHelperDel(name);
    }
    error.rethrow();
}

void IgmpHostProxyIntfSm::handleAcl(Nex::Name name) {
    IHP_TRACE_ENTRY();
    handleAclConfig(name);
    if (!ipAclConfig()) return;
    if (Acl::AclConfig const* const config = ipAclConfig()->acl(name))
        aclIs(config);
    else
        aclDel(name);
}

void IgmpHostProxyIntfSm::handleAcl() {
    IHP_TRACE_ENTRY();
    Nex::FirstError error;
    if (ipAclConfig())
        for (Nex::Name const& name : Nex::sortedKeys(ipAclConfig()->acl()))
            error.attempt([&] { handleAcl(name); });
    acl_.delUnless(
        [&](Nex::Name const& name) { return ipAclConfig() && ipAclConfig()->aclHas(name); });
    error.rethrow();
}

Nex::Ptr<IgmpHostProxyAclHelper> IgmpHostProxyIntfSm::igmpHostProxyAclHelperIs(Nex::String name) {
    if (IgmpHostProxyAclHelper* const known = igmpHostProxyAclHelper(name)) return known;
    auto const helper = igmpHostProxyAclHelperFactory(name, this);
    *igmpHostProxyAclHelper_.findOrInsert(name).first = helper;
    return helper;
}

IgmpHostProxyAclHelper* IgmpHostProxyIntfSm::igmpHostProxyAclHelper(Nex::String name) const {
    auto const* const found = igmpHostProxyAclHelper_.find(name);
    return found ? found->get() : nullptr;
}

void IgmpHostProxyIntfSm::igmpHostProxyAclHelperDelAll() {
    for (Nex::String const& name : igmpHostProxyAclHelper_.walk<Nex::Nothing>())
        igmpHostProxyAclHelperDel(name);
}

bool IgmpHostProxyIntfSm::aclHas(Lox::IpAddr group) const {
    if (igmpHostProxyAclHelper_.empty()) return false; // costs a route less than an empty walk
    for (auto const& item : igmpHostProxyAclHelper_.walk())
        if (item.value->groupSourceList(group)) return true;
    return false;
}

std::uint64_t IgmpHostProxyIntfSm::knownGroupsBound() const {
    return intfStatus()->groupSourceListCount() + groupSourceRefCounter_.groupCount();
}

// One access list

IgmpHostProxyIntfSm::NexAcl::NexAcl(Nex::Ptr<Acl::AclConfig const> acl,
                                    IgmpHostProxyIntfSm* machine)
    : Reactor(std::move(acl), machine) {
    hasNotificationActiveIs(true);
    handleCfg();
}

void IgmpHostProxyIntfSm::NexAcl::onCurrCfg() {
    if (!notifier()->currCfg()) cfgDel();
    handleCfg();
}

void IgmpHostProxyIntfSm::NexAcl::handleCfg() {
    IHP_TRACE_ENTRY();
    if (Nex::Ptr<Acl::AclSubConfig const> const cfg = notifier()->currCfg()) cfgIs(cfg);
    handleRule();
}

void IgmpHostProxyIntfSm::NexAcl::handleRule() {
    IHP_TRACE_ENTRY();
    Nex::Name const name = notifier()->name();
    IgmpHostProxyAclHelper* const helper = machine()->igmpHostProxyAclHelper(name);
    if (!helper || helper->doDefer(IgmpHostProxyAclHelper::Asked::rules)) return;
    machine()->doAndFollowUp(name, [&] { doReconcile(); });
}

void IgmpHostProxyIntfSm::NexAcl::doReconcile() {
    if (!notifier()) return;
    Nex::Name const name = notifier()->name();
    Nex::Ptr<IgmpHostProxyAclHelper> const helper = machine()->igmpHostProxyAclHelper(name);
    Nex::Ptr<Acl::AclSubConfig const> const cfg = notifier()->currCfg();
    if (!helper || !cfg) return;
    // The helper reads the list that is there now. If that is not ours, we are about to follow.
    Acl::AclTypeConfig const* const all = machine()->ipAclConfig();
    if (!all || all->acl(name) != notifier()) return;
    Nex::FirstError error; // of one rule, which keeps no other waiting
    Nex::Set<Acl::UniqueId> stale;
    for (auto const& item : helper->cachedRules()) stale.findOrInsert(item.key);
    for (std::uint32_t const sequence : Nex::sortedKeys(cfg->ruleBySequence())) {
        Acl::UniqueId const id = cfg->ruleBySequence(sequence);
        if (cfg->ipRuleById(id) == Acl::IpRuleConfig()) continue;
        if (helper->cachedRules(id) != Acl::IpRuleConfig()) {
            stale.take(id);
            continue;
        }
        error.attempt([&] {
            helper->handleRule(id);
            if (helper->asked() != IgmpHostProxyAclHelper::Asked::nothing) return;
            // Also if it was rejected as invalid: it is then taken back like any other, which gives
            // up whatever references its pairs have. A good rule stands there as it was applied.
            if (helper->cachedRules(id) == Acl::IpRuleConfig())
                helper->cachedRulesIs(id, cfg->ipRuleById(id));
        });
        if (helper->asked() != IgmpHostProxyAclHelper::Asked::nothing) return error.rethrow();
    }
    // New rules first, vanished ones after: a group that passes from one rule to another stays.
    for (Acl::UniqueId const id : stale.walk()) {
        error.attempt([&] { helper->purgeCachedRule(helper->cachedRules(id)); });
        helper->cachedRulesDel(id);
    }
    error.rethrow();
}

void IgmpHostProxyIntfSm::NexAcl::cfgIs(Nex::Ptr<Acl::AclSubConfig const> cfg) {
    Nex::watch(cfg_, std::move(cfg), this);
}

void IgmpHostProxyIntfSm::NexAcl::nexRetire() {
    cfgDel();
    Reactor::nexRetire();
}

} // namespace IgmpHostProxy
