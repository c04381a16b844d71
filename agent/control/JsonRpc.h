// Requests of JSON-RPC 2.0, one message a line: what a line asks for, or why it cannot be
// understood. No socket, and no knowledge of what can be asked.
#pragma once

#include "agent/loop/Json.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

/// What is answered in place of a result.
class RpcError : public std::runtime_error {
  public:
    // Those of the protocol, and our own.
    enum Code {
        parseError = -32700,
        invalidRequest = -32600,
        methodNotFound = -32601,
        invalidParams = -32602,
        internalError = -32603,
        refused = -32000,   ///< asked for rightly, but not possible as things are
        forbidden = -32001, ///< not for this user
    };

    /// `data`, if not null, goes with it.
    RpcError(Code code, std::string const& text, nlohmann::json data = {})
        : std::runtime_error(text), code_(code), data_(std::move(data)) {}

    Code code() const { return code_; }
    nlohmann::json toJson() const;

  private:
    Code code_;
    nlohmann::json data_;
};

struct RpcRequest {
    nlohmann::json id; ///< null as well where it could not be read
    bool answered = true;
    std::string method;
    nlohmann::json params; ///< an object
    /// Set where the request cannot be served.
    std::shared_ptr<RpcError const> error;
};

struct RpcMessage {
    bool batch = false;
    std::vector<RpcRequest> requests; ///< at least one
};

/// A message that cannot be understood: its answer is this error.
RpcMessage rpcFault(RpcError::Code code, std::string const& text);

/// Never throws but for memory: what cannot be understood becomes a request with its error. At most
/// `mostRpcDepth` levels, and `mostRpcBatch` requests.
RpcMessage rpcParse(std::string_view line);

inline constexpr int mostRpcDepth = 8;
inline constexpr std::size_t mostRpcBatch = 100;

} // namespace Agent
