#include "Nex/Error.h"

#include <cstdio>
#include <cstdlib>

namespace Nex {

void assertionFailed(char const* text) {
    std::fprintf(stderr, "assertion failed: %s\n", text);
    std::abort();
}

} // namespace Nex
