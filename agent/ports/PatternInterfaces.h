// Interfaces that the configuration names by a pattern: one is in force while the kernel has it,
// beside those that the configuration names themselves.
#pragma once

#include "agent/ports/VrfRegistry.h"
#include "agent/records/ConfigurationWriter.h"

#include <set>
#include <string>

namespace Agent {

class PatternInterfaces {
  public:
    /// `writer` outlives this.
    explicit PatternInterfaces(ConfigurationWriter& writer) : writer_(writer) {}

    /// Gives a configuration that is to be put in force the interfaces that match its patterns now,
    /// in place of any that matched before. Where memory runs out, they come in the next turn.
    void doResolve(Configuration& configuration, VrfRegistry const& vrfs);
    /// An interface has changed. It is looked at at the end of the turn.
    void handleInterface(std::string const& name) { changed_.insert(name); }
    /// Takes in the interfaces that have come, and out those that have gone. After an exception
    /// what is in force has to be written anew.
    void handleTurn(VrfRegistry& vrfs);

  private:
    static void doMatch(Configuration& configuration, VrfRegistry const& vrfs);
    bool doApply(std::string const& name, VrfRegistry& vrfs);

    ConfigurationWriter& writer_;
    std::set<std::string> changed_; ///< or nothing is known of them yet
    bool allChanged_ = false;
};

} // namespace Agent
