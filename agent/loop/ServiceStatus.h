// What the service manager is told beside the phases of the agent's life, where it listens
// (NOTIFY_SOCKET): how the agent fares, in a line, and that its loop turns.
//
// Two alarms: one tells the line a second after a change, with all that has changed by then, and
// again while it is not taken; the other repeats the sign of life at half of the time that the
// service manager waits for it.
#pragma once

#include "agent/loop/Alarm.h"

#include <functional>
#include <string>

namespace Agent {

class ServiceStatus {
  public:
    /// `text` is asked for the line. `loop` outlives this.
    ServiceStatus(EventLoop& loop, std::function<std::string()> text);

    /// The line may be another one now.
    void handleChange();
    /// Tells it at once.
    void doTell();

  private:
    void doSignalLife();

    std::function<std::string()> text_;
    bool heard_; ///< there is somebody to tell
    std::string told_;
    Alarm change_;
    double lifeSeconds_; ///< between two signs of life; 0: nobody waits for them
    Alarm life_;
};

} // namespace Agent
