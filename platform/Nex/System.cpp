#include "Nex/System.h"

#include <chrono>

namespace Nex {

double System::currentTime() {
    if (source_) return source_->currentTime();
    auto const now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now).count();
}

} // namespace Nex
