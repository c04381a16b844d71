// Writes the operator's access lists into the records that the interface machines read. A rule
// that stays keeps its id, whatever its place in the file or its number; what changes gets new
// ones. Each list's rules are replaced as a whole, so its readers look at them once.
#pragma once

#include "agent/AccessListReader.h"
#include "agent/PlatformState.h"

#include <map>
#include <string>

namespace Agent {

class AccessListWriter {
  public:
    using Lists = std::map<std::string, AccessListConfiguration>;

    /// `config` outlives this.
    explicit AccessListWriter(Acl::AclTypeConfig& config) : config_(config) {}

    /// Puts these lists in force, in place of those before.
    void listsIs(Lists const& lists);

  private:
    struct Rule {
        Acl::UniqueId id;
        Acl::IpRuleConfig rule;
    };
    using Rules = std::map<std::uint32_t, Rule>; // by sequence number

    void doWrite(std::string const& name, Rules rules);
    static void doPutInForce(Acl::AclConfig& acl, Rules const& rules);
    /// The list's rules with the ids of those before, as far as they stay.
    Rules numbered(AccessListConfiguration const& list, Rules const& before);

    Acl::AclTypeConfig& config_;
    std::map<std::string, Rules> written_;
    std::uint64_t lastId_ = 0;
};

} // namespace Agent
