#include "Lumen/Ring.h"

namespace Lumen {

double Ring::secondsOf(Entry const& entry) const {
    auto const now = std::chrono::steady_clock::now();
    std::chrono::duration<double> const elapsed = now - first_;
    auto const first = std::chrono::duration<double>(first_.time_since_epoch());
    double const ticksElapsed = double(ticks() - firstTicks_);
    double const ticksToEntry = double(std::int64_t(entry.stamp - firstTicks_));
    return first.count() + (ticksElapsed > 0 ? elapsed.count() * ticksToEntry / ticksElapsed : 0);
}

} // namespace Lumen
