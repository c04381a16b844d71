// A configuration as JSON, of the shape of its file: without what holds anyway, prefixes of groups
// and patterns of interfaces as they were written, included files as if they were part of it.
#pragma once

#include "agent/control/RpcMethod.h"
#include "agent/records/JsonStream.h"
#include "agent/reload/ConfigurationLoader.h"

#include <functional>
#include <memory>
#include <string>

namespace Agent {

/// An object: under "file" that name, under "patterns" those of interfaces in their order, under
/// "configuration" what `configuration` tells, which is asked anew for each piece.
std::unique_ptr<JsonPart>
configurationAnswer(std::string const& file,
                    std::function<Configuration const&()> const& configuration);

/// Tells what a file holds, which is read beside the loop.
class FileAnswers {
  public:
    /// `loop` outlives this.
    explicit FileAnswers(EventLoop& loop) : loader_(loop) {}
    /// Answers later. Throws an RpcError while another file is being read.
    void answer(std::string const& file, RpcReply const& reply);

  private:
    ConfigurationLoader loader_;
};

} // namespace Agent
