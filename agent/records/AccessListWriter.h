// Writes the operator's access lists into the records that the interface machines read. A rule
// that stays keeps its id, whatever its place in the file or its number; what changes gets new
// ones. Each list's rules are replaced as a whole, so its readers look at them once.
#pragma once

#include "IgmpHostProxy/PlatformState.h"
#include "agent/config/AccessList.h"

#include <functional>
#include <map>
#include <string>

namespace Agent {

class AccessListWriter {
  public:
    using Lists = std::map<std::string, AccessListConfiguration>;

    /// Told the name of a list that is about to lose a rule of which another one selects groups,
    /// too: a reader notes both as one, and must not see the one without the other.
    using Observer = std::function<void(std::string const& name)>;

    /// `config` outlives this.
    AccessListWriter(Acl::AclTypeConfig& config, Observer onOverlap)
        : config_(config), onOverlap_(std::move(onOverlap)) {}

    /// Puts these lists in force, in place of those before. Returns whether a rule went.
    bool applyLists(Lists const& lists);
    /// Nothing is in force: somebody has emptied the records.
    void doForget() { written_.clear(); }

  private:
    struct Rule {
        Acl::UniqueId id;
        Acl::IpRuleConfig rule;
    };
    using Rules = std::map<std::uint32_t, Rule>; // by sequence number

    bool doWrite(std::string const& name, Rules rules);
    static void doPutInForce(Acl::AclConfig& acl, Rules const& rules);
    /// The list's rules with the ids of those before, as far as they stay.
    Rules numbered(AccessListConfiguration::Rules const& list, Rules const& before);

    Acl::AclTypeConfig& config_;
    Observer onOverlap_;
    std::map<std::string, Rules> written_;
    std::uint64_t lastId_ = 0;
};

} // namespace Agent
