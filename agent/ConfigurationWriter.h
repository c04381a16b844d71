// Writes the operator's configuration into the records that the root machine reads, as the
// difference to what was written before: what stays is not touched, and so causes no packet.
#pragma once

#include "agent/Configuration.h"
#include "agent/PlatformState.h"

namespace Agent {

class ConfigurationWriter {
  public:
    /// `state` outlives this.
    explicit ConfigurationWriter(PlatformState& state) : state_(state) {}

    Configuration const& configuration() const { return written_; }
    /// Puts a configuration in force, in place of the one before.
    void configurationIs(Configuration configuration);

  private:
    void doWrite(IgmpHostProxy::IntfConfig& record, InterfaceConfiguration const& before,
                 InterfaceConfiguration const& now);

    PlatformState& state_;
    Configuration written_;
};

} // namespace Agent
