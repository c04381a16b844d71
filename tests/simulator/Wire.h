// The link between routers and hosts: what one sends all others get, a little later and in the same
// order, unless it is lost, held back or doubled.
#pragma once

#include "simulator/Router.h"

#include <deque>
#include <memory>
#include <random>

namespace Simulator {

class Wire {
  public:
    using Receive = std::function<void(unsigned end, Bytes const& packet)>;

    Wire(unsigned ends, std::uint32_t seed, Receive receive)
        : receive_(std::move(receive)), random_(seed), ends_(ends), last_(ends * ends) {}

    /// What robustness bears: so many packets lost or held back within any `seconds`.
    void setBearable(unsigned count, double seconds) {
        bearable_ = count;
        bearableSeconds_ = seconds;
    }
    /// Until then that many of a hundred packets are lost or held back.
    void storm(double until, unsigned percent) {
        stormEnd_ = until;
        stormPercent_ = percent;
    }
    void send(double now, unsigned from, Bytes const& bytes) {
        auto const packet = std::make_shared<Bytes const>(bytes);
        for (unsigned to = 0; to < ends_; ++to) {
            if (to == from) continue;
            double& last = last_[from * ends_ + to];
            last = std::max(last, now + 0.001 + 0.019 * part());
            bool const faulty = isFaulty(now);
            if (faulty && part() < 0.5) continue;
            double const due = faulty ? now + part() : last;
            if (faulty) lateTime_ = std::max(lateTime_, due);
            under_.emplace(due, Delivery{to, packet});
            if (part() < 0.02) under_.emplace(last, Delivery{to, packet});
        }
    }
    double nextExpiry() const { return under_.empty() ? never : under_.begin()->first; }
    void advance(double now) {
        while (nextExpiry() <= now) {
            Delivery const delivery = under_.begin()->second;
            under_.erase(under_.begin());
            receive_(delivery.to, *delivery.packet);
        }
    }
    /// When the last packet arrives that was held back.
    double lateTime() const { return lateTime_; }

  private:
    struct Delivery {
        unsigned to;
        std::shared_ptr<Bytes const> packet;
    };

    double part() { return std::uniform_real_distribution<double>()(random_); }
    bool isFaulty(double now) {
        if (now < stormEnd_) return part() * 100 < stormPercent_;
        while (!faults_.empty() && faults_.front() <= now - bearableSeconds_) faults_.pop_front();
        if (faults_.size() >= bearable_ || part() >= 0.05) return false;
        faults_.push_back(now);
        return true;
    }

    Receive receive_;
    std::mt19937 random_;
    unsigned ends_;
    std::vector<double> last_;
    std::multimap<double, Delivery> under_;
    unsigned bearable_ = 0, stormPercent_ = 0;
    double bearableSeconds_ = 0, stormEnd_ = -never, lateTime_ = -never;
    std::deque<double> faults_;
};

} // namespace Simulator
