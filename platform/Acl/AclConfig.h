// IP access lists as the operator configured them.
//
// Whoever writes a rule fills `ipRuleById` before `ruleBySequence` and empties them in the reverse
// order: a reader that is told of a sequence number finds its rule. A rule stands in both or in
// neither: what has an id and no sequence number is applied as a list takes effect, and taken back
// at the next change of a sequence number.
//
// Rules only add groups. No rule is weighed against another, and a match further up ends nothing: a
// denied source is one that is announced as excluded, and the rule that denies everything keeps
// routes out (IgmpHostProxyAclHelper.h). The proxy writes none of these records.
#pragma once

#include "Acl/IpRule.h"
#include "Nex/Record.h"

namespace Acl {

#define ACL_SUB_CONFIG(ATTR, SET, MAP, RECORDS)                                                    \
    MAP(std::uint32_t, UniqueId, ruleBySequence, RuleBySequence)                                   \
    MAP(UniqueId, IpRuleConfig, ipRuleById, IpRuleById)

/// One version of a list's rules. The proxy looks again at each change of `ruleBySequence`, at all
/// rules of the list each time: whoever changes thousands of them fills another version and puts it
/// in force by `currCfg`, which is one look. Changes of `ipRuleById` alone it does not notice.
class AclSubConfig : public Nex::RecordBase {
    NEX_RECORD(AclSubConfig, Nex::Name, name, ACL_SUB_CONFIG)
};
#undef ACL_SUB_CONFIG

#define ACL_CONFIG(ATTR, SET, MAP, RECORDS)                                                        \
    ATTR(Nex::Ptr<AclSubConfig>, currCfg, CurrCfg) /* the rules in force, or null */

/// One list, which stays the same while its versions change. A version that takes the place of
/// another is compared by the rules' ids: what is in both stays applied. Null in its place takes
/// nothing back; a version without rules does, and so does the list's end.
class AclConfig : public Nex::RecordBase {
    NEX_RECORD(AclConfig, Nex::Name, name, ACL_CONFIG)
};
#undef ACL_CONFIG

#define ACL_TYPE_CONFIG(ATTR, SET, MAP, RECORDS) RECORDS(Nex::Name, AclConfig, acl, Acl)

/// All access lists of one type, here IP, by their names. A list takes effect on each interface
/// whose configuration names it, for as long as it is here; the two may come in either order. Who
/// takes a list out and puts in another of its name has first everything taken back, then all of it
/// applied.
class AclTypeConfig : public Nex::RecordBase {
    NEX_RECORD(AclTypeConfig, Nex::Name, name, ACL_TYPE_CONFIG)
};
#undef ACL_TYPE_CONFIG

} // namespace Acl
