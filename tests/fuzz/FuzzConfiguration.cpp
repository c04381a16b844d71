// The configuration file.
#include "agent/config/Configuration.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    auto const reading =
        Agent::configurationParse({reinterpret_cast<char const*>(data), size}, "file");
    if (!reading.valid() && reading.diagnostics.empty()) std::abort();
    for (auto const& diagnostic : reading.diagnostics)
        for (char const c : diagnostic.stringValue())
            if (c < ' ' || c > '~') std::abort();
    return 0;
}
