// Lines to the control socket.
#include "agent/control/JsonRpc.h"

#include <cstdlib>
#include <nlohmann/json.hpp>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    auto const message = Agent::rpcParse({reinterpret_cast<char const*>(data), size});
    if (message.requests.empty() || message.requests.size() > Agent::mostRpcBatch) std::abort();
    for (auto const& request : message.requests)
        if (!request.error && !request.params.is_object()) std::abort();
    return 0;
}
