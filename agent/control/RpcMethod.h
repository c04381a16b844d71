// What can be asked over the control socket, and where the answers go: for those who answer, and
// have nothing to do with sockets and lines.
#pragma once

#include "agent/records/JsonStream.h"

#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace Agent {

class ControlSession;
class RpcError;

/// Where the answer to a request goes, if whoever asked still waits for it. Answered once. Where
/// the last copy goes without that, because something failed on the way, the session ends: nobody
/// waits for what never comes.
class RpcReply {
  public:
    explicit RpcReply(std::weak_ptr<ControlSession> session);
    /// `result` is an object.
    void result(nlohmann::json const& result) const;
    /// The same in pieces. What it walks must outlive it.
    void result(std::unique_ptr<JsonPart> result) const;
    void error(RpcError const& error) const;
    /// Sends it as far as the client takes it now, for there will be no other turn.
    void flush() const;

  private:
    struct Owed;

    void doAnswer(char const* name, std::unique_ptr<JsonPart> content) const;

    std::shared_ptr<Owed> owed_;
};

struct RpcParameter {
    enum class Kind { text, number, count, truth };
    char const* name;
    Kind kind;
    bool required = false;
};

/// What can be asked for.
struct RpcMethod {
    /// Not for everybody who can connect.
    bool changes = false;
    /// Answers now or later, once, or throws an RpcError. Parameters are of their kinds.
    std::function<void(nlohmann::json const& params, RpcReply reply)> call;
    std::vector<RpcParameter> parameters{};
};
using RpcMethods = std::map<std::string, RpcMethod>;

} // namespace Agent
