// How often something took how long, in seconds.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace Agent {

class Histogram {
  public:
    /// Upper ends of the buckets; the last one has none.
    static constexpr std::array bounds{0.0001, 0.0005, 0.001, 0.002, 0.005,
                                       0.01,   0.02,   0.05,  0.1,   1.0};

    void add(double seconds) {
        std::size_t at = 0;
        while (at < bounds.size() && seconds > bounds[at]) ++at;
        ++counts_[at];
        sum_ += seconds;
    }
    /// How many took no longer than `bounds[bucket]`, or all behind the last.
    std::uint64_t upTo(std::size_t bucket) const {
        std::uint64_t count = 0;
        for (std::size_t at = 0; at <= bucket; ++at) count += counts_[at];
        return count;
    }
    double sum() const { return sum_; }

  private:
    std::array<std::uint64_t, bounds.size() + 1> counts_{};
    double sum_ = 0;
};

} // namespace Agent
