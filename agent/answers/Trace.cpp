#include "agent/answers/Trace.h"

#include "agent/loop/Log.h"

#include "Lumen/Ring.h"
#include "Nex/System.h"

#include <algorithm>

namespace Agent {

namespace {

class TraceRows : public JsonElements {
  public:
    explicit TraceRows(std::uint64_t most)
        : end_(Lumen::ring.written()),
          at_(end_ - std::min({most, end_, std::uint64_t(Lumen::Ring::capacity())})) {}
    bool next(JsonStream& stream) override {
        // What has been written meanwhile may have taken the place of some.
        if (Lumen::ring.written() > Lumen::Ring::capacity())
            at_ = std::max(at_, Lumen::ring.written() - Lumen::Ring::capacity());
        if (at_ >= end_) return false;
        Lumen::Entry const entry = Lumen::ring.entry(at_);
        stream.addElement({{"number", at_++},
                           {"time", sinceSteady_ + Lumen::ring.secondsOf(entry)},
                           {"level", entry.point->level},
                           {"text", entry.text()}});
        return true;
    }

  private:
    /// From the steady clock to 1970.
    static double steadyOffset() {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return secondsSince1970() - double(now.tv_sec) - double(now.tv_nsec) * 1e-9;
    }

    std::uint64_t end_;
    std::uint64_t at_;
    double sinceSteady_ = steadyOffset();
};

} // namespace

std::unique_ptr<JsonElements> traceAnswer(std::uint64_t most) {
    return std::make_unique<TraceRows>(most);
}

} // namespace Agent
