// The operator's end of the control socket: asks the running agent, one request after the other.
#pragma once

#include "agent/loop/FileDescriptor.h"

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace Ctl {

/// Nobody answers, or not any longer.
class NoAgent : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The agent's answer is no; `data()` is what it says besides the reason.
class Refused : public std::runtime_error {
  public:
    Refused(std::string const& reason, nlohmann::json data)
        : std::runtime_error(reason), data_(std::move(data)) {}
    nlohmann::json const& data() const { return data_; }

  private:
    nlohmann::json data_;
};

class Client {
  public:
    /// Throws NoAgent.
    explicit Client(std::string path);
    /// The result. Waits for as long as it takes. Throws NoAgent or Refused.
    nlohmann::json call(std::string const& method,
                        nlohmann::json const& params = nlohmann::json::object());

    /// Returns once the agent has closed the connection.
    void awaitEnd();

  private:
    std::string line();

    std::string path_;
    Agent::FileDescriptor socket_;
    std::string input_;
};

} // namespace Ctl
