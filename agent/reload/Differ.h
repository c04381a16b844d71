// What a configuration file would change if it were put in force: it is read beside the loop, put
// in force in a copy of the process by the same code that a reload uses, and the groups that came
// out differently are told.
#pragma once

#include "agent/ports/PortRegistry.h"
#include "agent/reload/ConfigurationLoader.h"
#include "agent/reload/Rehearsal.h"
#include "agent/reload/Reloader.h"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace Agent {

class Differ {
  public:
    /// All of them outlive this.
    Differ(EventLoop& loop, Reloader const& reloader, Reloader::Target& target, PortRegistry& ports)
        : loop_(loop),
          reloader_(reloader),
          target_(target),
          ports_(ports),
          loader_(loop),
          rehearsal_(loop) {}

    /// Answers later. Throws an RpcError while another question is being answered, for each costs a
    /// copy of the process.
    void ask(std::string file, RpcReply reply);

  private:
    void doRehearse(ConfigurationReading found);
    void handleCopyTurn();
    [[noreturn]] void doTell();
    /// `answer` as far as it is known without the copy.
    void handleEnd(nlohmann::json const& answer, std::string const& summary, FileDescriptor rows);
    void doRefuse(std::string_view text, std::vector<Diagnostic> const& found = {});

    EventLoop& loop_;
    Reloader const& reloader_;
    Reloader::Target& target_;
    PortRegistry& ports_;
    ConfigurationLoader loader_;
    Rehearsal rehearsal_;
    std::string file_;
    std::optional<RpcReply> reply_; ///< taken before anything that may fail: it ends the wait
};

} // namespace Agent
