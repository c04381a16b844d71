// The state file of an earlier run. Its checksum is made right, for what stands before it to be
// read.
#include "Nex/Error.h"
#include "agent/files/StateFile.h"

#include <cstdlib>

namespace {

std::string textOf(std::vector<Agent::InterfaceState> const& interfaces) {
    Agent::StateText text;
    for (Agent::InterfaceState const& interface : interfaces) text.addInterface(interface);
    text.endAdd();
    return text.take();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string text(reinterpret_cast<char const*>(data), size);
    std::uint64_t sum = 0xCBF29CE484222325;
    for (char const c : text) sum = (sum ^ std::uint8_t(c)) * 0x100000001B3;
    for (int shift = 56; shift >= 0; shift -= 8) text += char(sum >> shift);
    try {
        std::string const written = textOf(Agent::stateParse(text));
        if (textOf(Agent::stateParse(written)) != written) std::abort();
    } catch (Nex::ParseException const&) {
    }
    return 0;
}
