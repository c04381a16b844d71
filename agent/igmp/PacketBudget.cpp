#include "agent/igmp/PacketBudget.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Agent {

bool PacketBudget::has(double now) {
    std::int64_t slot = std::max(slot_, std::int64_t(std::floor(now * slotsPerSecond)));
    for (std::int64_t aged = std::max(slot_ + 1, slot - slotCount + 1); aged <= slot; ++aged) {
        total_ -= sentIn(aged);
        sentIn(aged) = 0;
    }
    slot_ = slot;
    return has();
}

void PacketBudget::countPacket() {
    ++sentIn(slot_);
    ++total_;
}

double PacketBudget::nextExpiry() const {
    if (has()) return -std::numeric_limits<double>::infinity();
    std::uint64_t left = total_;
    std::int64_t slot = slot_ - slotCount;
    while (left >= limit_) left -= sent_[std::size_t((++slot + slotCount) % slotCount)];
    return double(slot + slotCount) / slotsPerSecond;
}

double PacketBudget::secondsFor(double packets) const {
    return packets / double(limit_) * double(slotCount) / slotsPerSecond;
}

} // namespace Agent
