// Which access lists take effect on the interface: those that its configuration names and that
// exist. Each has a helper, which is kept in step with the list's rules by their ids.
#include "IgmpHostProxy/IgmpHostProxyIntfSm.h"

#include "IgmpHostProxy/Trace.h"

namespace IgmpHostProxy {

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
    bool const attached = intfConfig() && intfConfig()->aclListHas(name);
    if (attached && ipAclConfig() && ipAclConfig()->aclHas(name)) {
        IHP_TRACE(7, "Creating helper for acl: %", name);
        // Also for a helper that is there already: its rules are then counted once more. Those who
        // attach lists know this and attach each once.
        Nex::Ptr<IgmpHostProxyAclHelper> const helper = igmpHostProxyAclHelperIs(name);
        helper->handleAllRules();
        doPurgeIfDetached(*helper);
        return;
    }
    if (Nex::Ptr<IgmpHostProxyAclHelper> const helper = igmpHostProxyAclHelper(name)) {
        IHP_TRACE(7, "ACL config deleted. Purging cached rules.");
        helper->purgeCachedRules();
    }
    if (!attached) {
        IHP_TRACE(7, "ACL removed from config. Purging cached rules. Deleting helper");
        igmpHostProxyAclHelperDel(name);
    }
}

/// A list that was detached while its rules were applied leaves nothing behind. Whether it was, for
/// whoever applied some of them.
bool IgmpHostProxyIntfSm::doPurgeIfDetached(IgmpHostProxyAclHelper& helper) const {
    if (igmpHostProxyAclHelper(helper.aclName()) == &helper) return false;
    helper.purgeCachedRules();
    return true;
}

void IgmpHostProxyIntfSm::handleAcl(Nex::Name name) {
    IHP_TRACE_ENTRY();
    handleAclConfig(name);
    if (!ipAclConfig()) return;
    if (Acl::AclConfig const* const config = ipAclConfig()->acl(name)) {
        aclIs(config);
    } else {
        aclDel(name);
    }
}

void IgmpHostProxyIntfSm::handleAcl() {
    IHP_TRACE_ENTRY();
    if (ipAclConfig())
        for (Nex::Name const& name : Nex::sortedKeys(ipAclConfig()->acl())) handleAcl(name);
    acl_.delUnless(
        [&](Nex::Name const& name) { return ipAclConfig() && ipAclConfig()->aclHas(name); });
}

Nex::Ptr<IgmpHostProxyAclHelper> IgmpHostProxyIntfSm::igmpHostProxyAclHelperIs(Nex::String name) {
    auto const [slot, fresh] = igmpHostProxyAclHelper_.findOrInsert(name);
    if (fresh) *slot = igmpHostProxyAclHelperFactory(name, this);
    return *slot;
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
    Nex::Ptr<IgmpHostProxyAclHelper> const helper =
        machine()->igmpHostProxyAclHelper(notifier()->name());
    Nex::Ptr<Acl::AclSubConfig const> const cfg = notifier()->currCfg();
    if (!helper || !cfg) return;
    IgmpHostProxyIntfSm const* const intfSm = machine();
    // Taken down before anything is applied: a rule that somebody has applied meanwhile, told of an
    // earlier one, is not stale for not having been listed here.
    Nex::Set<Acl::UniqueId> stale;
    for (auto const& item : helper->cachedRules()) stale.findOrInsert(item.key);
    for (std::uint32_t const sequence : Nex::sortedKeys(cfg->ruleBySequence())) {
        Acl::UniqueId const id = cfg->ruleBySequence(sequence);
        Acl::IpRuleConfig const rule = cfg->ipRuleById(id);
        if (rule == Acl::IpRuleConfig()) continue;
        if (helper->cachedRules(id) != Acl::IpRuleConfig()) {
            stale.take(id);
            continue;
        }
        helper->handleRule(id);
        if (intfSm->doPurgeIfDetached(*helper) || !notifier()) return;
        // Whoever heard of its groups may have put other rules in force: all are compared anew.
        if (notifier()->currCfg() != cfg) return handleRule();
        Acl::IpRuleConfig const now = cfg->ipRuleById(id);
        if (now != Acl::IpRuleConfig()) {
            // Also if it was rejected as invalid: it is then taken back like any other, which gives
            // up whatever references its pairs have.
            helper->cachedRulesIs(id, now);
        } else {
            stale.findOrInsert(id); // withdrawn while it was applied
        }
    }
    // New rules first, vanished ones after: a group that passes from one rule to another stays.
    for (Acl::UniqueId const id : stale.walk()) {
        helper->purgeCachedRule(helper->cachedRules(id));
        helper->cachedRulesDel(id);
    }
}

void IgmpHostProxyIntfSm::NexAcl::cfgIs(Nex::Ptr<Acl::AclSubConfig const> cfg) {
    Nex::watch(cfg_, std::move(cfg), this);
}

void IgmpHostProxyIntfSm::NexAcl::nexRetire() {
    cfgDel();
    Reactor::nexRetire();
}

} // namespace IgmpHostProxy
