// What keeps the agent, a VRF or an interface from working, in words. It is told in the log once as
// it begins and once as it ends.
#pragma once

#include "agent/loop/Log.h"

#include <map>
#include <string>

namespace Agent {

/// Of an agent without CAP_NET_RAW.
inline constexpr char noRawSockets[] = "has no CAP_NET_RAW: it can neither send nor hear IGMP";
/// Of a pattern of interfaces.
inline constexpr char noSuchInterface[] = "no such interface";

class Obstacles {
  public:
    struct Obstacle {
        LogLevel level;
        std::string reason;
    };

    /// Why `subject` cannot be used, such as "is down"; empty once it can be. What is known already
    /// is not told again.
    void report(std::string const& subject, std::string const& reason,
                LogLevel level = LogLevel::warning);
    /// There is no such subject any more.
    void clear(std::string const& subject);
    /// The end of a turn of the event loop, of which only so many lines go into the log. Whether
    /// there was a change.
    bool handleTurn();
    /// The gravest in a line, and how many more there are; empty for none.
    std::string text() const;
    /// By subject; printable ASCII only.
    std::map<std::string, Obstacle> const& obstacles() const { return obstacles_; }

  private:
    std::map<std::string, Obstacle> obstacles_;
    bool changed_ = false; ///< in this turn
    unsigned begun_ = 0;   ///< in this turn
    unsigned ended_ = 0;   ///< in this turn
};

} // namespace Agent
