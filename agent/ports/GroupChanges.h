// What becomes of the groups that are announced while a configuration is put in force: what each
// was before, for those that change, to be compared with what it is in the end. On the way a group
// may go and come back.
#pragma once

#include "Lox/IpAddr.h"
#include "Nex/Map.h"
#include "agent/igmp/HostEngine.h"

#include <map>
#include <string>
#include <utility>

namespace Agent {

class GroupChanges {
  public:
    using States = Nex::Map<Lox::IpAddr, HostEngine::GroupState>;

    /// Begins anew. Nothing is noted before that, nor after end().
    void begin() {
        before_.clear();
        begun_ = true;
    }
    void end() {
        before_.clear();
        begun_ = false;
    }
    bool begun() const { return begun_; }
    /// The group's state is about to change. The first call counts.
    void note(std::string const& interface, Lox::IpAddr group, HostEngine const& engine) {
        if (!begun_) return;
        States& states = before_[interface];
        if (states.has(group)) return;
        HostEngine::GroupState state = engine.state(group);
        *states.findOrInsert(group).first = std::move(state);
    }
    /// By interface.
    std::map<std::string, States> const& before() const { return before_; }

  private:
    std::map<std::string, States> before_;
    bool begun_ = false;
};

} // namespace Agent
