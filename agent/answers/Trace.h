// What the machines have done lately: their ring of trace points, which is always written.
#pragma once

#include "agent/answers/View.h"

#include <cstdint>
#include <memory>

namespace Agent {

/// The last entries, `most` of them at most, the oldest in front. Those that say the same one after
/// the other are one, unless `all` are wanted.
std::unique_ptr<JsonElements> traceAnswer(std::uint64_t most, bool all);

} // namespace Agent
