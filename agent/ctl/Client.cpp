#include "agent/ctl/Client.h"

#include "agent/control/UnixSocket.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>

namespace Ctl {

using nlohmann::json;

Client::Client(std::string path) : path_(std::move(path)) {
    try {
        socket_ = Agent::unixSocket();
        if (Agent::unixConnect(socket_, path_)) return;
    } catch (std::system_error const& error) {
        throw NoAgent(error.what());
    }
    throw NoAgent(fmt::format("no agent answers at {}: {}", path_, std::strerror(errno)));
}

json Client::call(std::string const& method, json const& params) {
    std::string const request =
        json{{"jsonrpc", "2.0"}, {"id", 1}, {"method", method}, {"params", params}}.dump() + '\n';
    for (std::size_t sent = 0; sent < request.size();) {
        ssize_t const taken =
            send(socket_.get(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (taken < 0 && errno != EINTR)
            throw NoAgent(fmt::format("the agent at {}: {}", path_, std::strerror(errno)));
        if (taken > 0) sent += std::size_t(taken);
    }
    json answer;
    try {
        answer = json::parse(line());
        if (answer.contains("result")) return std::move(answer["result"]);
        json const& error = answer.at("error");
        throw Refused(error.at("message"), error.value("data", json()));
    } catch (json::exception const& error) {
        throw NoAgent(fmt::format("what answers at {} is no agent: {}", path_, error.what()));
    }
}

void Client::awaitEnd() {
    char octet;
    ssize_t received = 0;
    do received = recv(socket_.get(), &octet, sizeof octet, 0);
    while (received > 0 || (received < 0 && errno == EINTR));
}

std::string Client::line() {
    std::size_t searched = 0;
    for (;;) {
        std::size_t const end = input_.find('\n', searched);
        if (end != std::string::npos) {
            std::string found = input_.substr(0, end);
            input_.erase(0, end + 1);
            return found;
        }
        searched = input_.size();
        char octets[1 << 16];
        ssize_t const received = recv(socket_.get(), octets, sizeof octets, 0);
        if (received < 0 && errno == EINTR) continue;
        if (received <= 0) throw NoAgent(fmt::format("the agent at {} went away", path_));
        input_.append(octets, std::size_t(received));
    }
}

} // namespace Ctl
