// Foreign text (a configuration file, a kernel name) made safe for terminals and log lines.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Agent {

/// A byte as itself, or outside printable ASCII as \xNN. Takes no memory.
class PrintableByte {
  public:
    explicit PrintableByte(char byte);
    std::string_view text() const { return {octets_, size_}; }

  private:
    char octets_[4];
    std::size_t size_;
};

/// `text` with every byte outside printable ASCII written as \xNN, so that it can neither break a
/// line nor send a control sequence.
std::string printable(std::string_view text);

/// The same between quotation marks, cut after 64 bytes.
std::string inQuotes(std::string_view text);

} // namespace Agent
