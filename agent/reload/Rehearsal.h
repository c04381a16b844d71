// Trying something out in a copy of the process: the same code on the same state, so that what it
// finds is what would happen. The copy can reach nobody: its sockets lead nowhere, it prints and
// writes nothing, and it ends with the process, or by a signal if it takes too long. What it finds
// goes into a file in memory, and a summary through a pipe.
#pragma once

#include "agent/loop/EventLoop.h"
#include "agent/loop/FileDescriptor.h"

#include <functional>
#include <string>
#include <string_view>

namespace Agent {

class Rehearsal {
  public:
    /// In the original, once the copy has ended: its summary, empty if it did not come to its end,
    /// and the file in memory.
    using Done = std::function<void(std::string summary, FileDescriptor found)>;

    /// `loop` outlives this.
    explicit Rehearsal(EventLoop& loop) : loop_(loop) {}
    ~Rehearsal();
    Rehearsal(Rehearsal const&) = delete;
    Rehearsal& operator=(Rehearsal const&) = delete;

    /// Copies the process and returns in both. Returns whether this is the copy, which goes on with
    /// its loop: of the descriptors watched before and of the alarms nothing is left there, nor of
    /// the hooks at the end of a turn. Throws std::system_error where the kernel refuses; nothing
    /// may be being tried out.
    bool begin(Done done);
    bool busy() const { return pipe_.get() >= 0; }

    // In the copy.

    /// Adds a line to the file.
    void add(std::string_view line);
    /// The end of the copy.
    [[noreturn]] void end(std::string_view summary);

  private:
    void doCutOff();
    void handlePipe();

    EventLoop& loop_;
    FileDescriptor pipe_;
    FileDescriptor found_;
    std::string text_; ///< of the summary, or in the copy for the file
    Done done_;
};

} // namespace Agent
