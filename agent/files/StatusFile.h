// Writes the agent's status into a file in slices, each in a turn of the event loop of its own: a
// hundred thousand groups must not keep queries waiting.
//
// One alarm: it goes on with the file in the next turn.
#pragma once

#include "agent/files/FileReplacement.h"
#include "agent/loop/Alarm.h"
#include "agent/records/JsonStream.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace Agent {

class StatusFile {
  public:
    /// `makeStatus` begins with the status anew. What it walks and `loop` outlive this.
    StatusFile(EventLoop& loop, std::string path,
               std::function<std::unique_ptr<JsonPart>()> makeStatus);

    /// Writes the file in the turns that follow, behind one that is being written. What fails is
    /// logged, and the old file stays. Without memory, std::bad_alloc is thrown into the loop.
    void doWrite();

  private:
    void doSlice();
    void doEnd();

    std::string path_;
    std::function<std::unique_ptr<JsonPart>()> makeStatus_;
    Alarm slice_;
    // Of the file that is being written.
    std::optional<JsonStream> stream_;
    std::optional<FileReplacement> file_;
    bool again_ = false; ///< asked for meanwhile
};

} // namespace Agent
