// How many packets may leave: never more than the limit within any 100 ms, wherever these begin.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace Agent {

class PacketBudget {
  public:
    /// Packets per 100 ms, at least 1. What went out already counts against the new limit.
    void setLimit(unsigned limit) { limit_ = limit; }
    /// Whether a packet may leave now (absolute seconds, never going back).
    bool has(double now);
    /// The same, as of the last has() and what was counted since.
    bool has() const { return total_ < limit_; }
    /// Counts a packet that leaves at the time of the last has().
    void countPacket();
    /// When the next packet may leave, as of the last has(): absolute seconds, in the past if at
    /// once.
    double nextExpiry() const;
    /// How long so many packets take at the limit, in seconds.
    double secondsFor(double packets) const;

  private:
    // Slots of 1/128 s, whose borders a double holds exactly: 13 whole ones cover 100 ms, and the
    // one at hand is not complete.
    static constexpr double slotsPerSecond = 128;
    static constexpr std::int64_t slotCount = 14;

    std::uint64_t& sentIn(std::int64_t slot) { return sent_[std::size_t(slot % slotCount)]; }

    std::array<std::uint64_t, std::size_t(slotCount)> sent_{};
    std::uint64_t total_ = 0; // of all slots
    std::int64_t slot_ = 0;   // the one at hand
    std::uint64_t limit_ = 1;
};

} // namespace Agent
