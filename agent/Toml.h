// The only place that includes toml++: its parser meets some malformed text (a header "[?") with an
// assertion, and in release builds with undefined behaviour. Here every assertion throws instead.
#pragma once

#include <stdexcept>

namespace Agent {

struct TomlAssertion : std::logic_error {
    using std::logic_error::logic_error;
};

[[noreturn]] inline void tomlAssertionFailed(char const* text) { throw TomlAssertion(text); }

} // namespace Agent

#pragma push_macro("NDEBUG")
#undef NDEBUG
#define TOML_ASSERT(expression)                                                                    \
    ((expression) ? static_cast<void>(0) : Agent::tomlAssertionFailed(#expression))
#include <toml++/toml.h>
#pragma pop_macro("NDEBUG")
