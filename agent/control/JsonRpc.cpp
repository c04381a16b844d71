#include "agent/control/JsonRpc.h"

#include <fmt/format.h>

namespace Agent {

namespace {

using nlohmann::json;

RpcRequest faulty(RpcError::Code code, std::string const& text, json id = {}) {
    return {std::move(id), true, {}, {}, std::make_shared<RpcError const>(code, text)};
}

RpcRequest requestOf(json const& value) {
    if (!value.is_object())
        return faulty(RpcError::invalidRequest, "not a request: an object is expected");
    auto const id = value.find("id");
    bool const answered = id != value.end();
    if (answered && !id->is_string() && !id->is_number() && !id->is_null())
        return faulty(RpcError::invalidRequest, "id is to be a string, a number or null");
    json const key = answered ? *id : json();
    // Not compared as a JSON value, which would be made where no exception may come from.
    auto const version = value.find("jsonrpc");
    if (version == value.end() || !version->is_string() ||
        version->get_ref<std::string const&>() != "2.0")
        return faulty(RpcError::invalidRequest, "jsonrpc is to be \"2.0\"", key);
    auto const method = value.find("method");
    if (method == value.end() || !method->is_string())
        return faulty(RpcError::invalidRequest, "method is to be a string", key);
    RpcRequest request{key, answered, *method, value.value("params", json::object()), {}};
    if (!request.params.is_object())
        request.error = std::make_shared<RpcError const>(RpcError::invalidParams,
                                                         "params are to be an object, by name");
    return request;
}

} // namespace

json RpcError::toJson() const {
    json error{{"code", code_}, {"message", what()}};
    if (!data_.is_null()) error["data"] = data_;
    return error;
}

RpcMessage rpcFault(RpcError::Code code, std::string const& text) {
    return {false, {faulty(code, text)}};
}

RpcMessage rpcParse(std::string_view line) {
    bool tooDeep = false;
    json value;
    try {
        value = json::parse(line, [&](int depth, json::parse_event_t, json const&) {
            // What is not kept takes no memory.
            tooDeep |= depth > mostRpcDepth;
            return !tooDeep;
        });
    } catch (json::exception const& error) {
        return rpcFault(RpcError::parseError, error.what());
    }
    if (tooDeep)
        return rpcFault(RpcError::invalidRequest,
                        fmt::format("deeper than {} levels", mostRpcDepth));
    if (!value.is_array()) return {false, {requestOf(value)}};
    if (value.empty() || value.size() > mostRpcBatch)
        return rpcFault(RpcError::invalidRequest,
                        fmt::format("a batch holds 1 to {} requests", mostRpcBatch));
    RpcMessage message{true, {}};
    for (json const& each : value) message.requests.push_back(requestOf(each));
    return message;
}

} // namespace Agent
