#include "agent/answers/Trace.h"

#include "Lumen/Ring.h"
#include "Nex/System.h"
#include "agent/loop/Json.h"
#include "agent/loop/Log.h"

#include <algorithm>

namespace Agent {

namespace {

/// Whether an entry says the same as the one before it. What a timer finds unchanged each second
/// would fill a screen.
bool repeats(std::uint64_t number) {
    Lumen::Entry const& entry = Lumen::ring.entry(number);
    Lumen::Entry const& before = Lumen::ring.entry(number - 1);
    return entry.point == before.point && entry.text() == before.text();
}

class TraceRows : public JsonElements {
  public:
    TraceRows(std::uint64_t most, bool all) : end_(Lumen::ring.written()), at_(end_), all_(all) {
        std::uint64_t const oldest = end_ - std::min<std::uint64_t>(end_, Lumen::Ring::capacity());
        if (most >= end_ - oldest)
            at_ = oldest;
        else
            while (at_ > oldest && most > 0)
                if (--at_ == oldest || all_ || !repeats(at_)) --most;
    }
    bool next(JsonStream& stream) override {
        // What has been written meanwhile may have taken the place of some.
        if (Lumen::ring.written() > Lumen::Ring::capacity())
            at_ = std::max(at_, Lumen::ring.written() - Lumen::Ring::capacity());
        if (at_ >= end_) return false;
        std::uint64_t const first = at_++;
        while (!all_ && at_ < end_ && repeats(at_)) ++at_;
        Lumen::Entry const& entry = Lumen::ring.entry(first);
        stream.addElement({{"number", first},
                           {"time", timeOf(entry)},
                           {"level", entry.point->level},
                           {"text", entry.text()},
                           {"times", at_ - first},
                           {"until", timeOf(Lumen::ring.entry(at_ - 1))}});
        return true;
    }

  private:
    /// From the steady clock to 1970.
    static double steadyOffset() {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return secondsSince1970() - double(now.tv_sec) - double(now.tv_nsec) * 1e-9;
    }

    double timeOf(Lumen::Entry const& entry) const {
        return sinceSteady_ + Lumen::ring.secondsOf(entry);
    }

    std::uint64_t end_;
    std::uint64_t at_; ///< to go on with
    bool all_;
    double sinceSteady_ = steadyOffset();
};

} // namespace

std::unique_ptr<JsonElements> traceAnswer(std::uint64_t most, bool all) {
    return std::make_unique<TraceRows>(most, all);
}

} // namespace Agent
