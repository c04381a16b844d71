#include "Nex/Hash.h"

#include <random>

namespace Nex {

HashSecret HashSecret::drawn() {
    std::random_device random;
    auto const word = [&] { return std::uint64_t(random()) << 32 | random(); };
    return {word(), word(), word()};
}

} // namespace Nex
