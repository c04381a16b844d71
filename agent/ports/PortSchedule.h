// When ports have something to do: at the end of the turn of the event loop, because something
// happened to them, or at a time of their own. What is not due costs nothing, however many ports
// there are.
#pragma once

#include "Nex/System.h"

#include <list>
#include <map>

namespace Agent {

class IgmpHostPort;

class PortSchedule {
    using Stirred = std::list<IgmpHostPort*>;
    using Times = std::multimap<double, IgmpHostPort*>;

  public:
    /// The places of one port, which it has for as long as it lives: moving them takes no memory.
    class Place {
      public:
        /// Begins as stirred, without a time. `schedule` outlives this.
        Place(PortSchedule& schedule, IgmpHostPort& port)
            : schedule_(schedule), turn_(schedule.stirred_.insert(schedule.stirred_.end(), &port)) {
            try {
                time_ = schedule.times_.emplace(Nex::never, &port);
            } catch (...) {
                schedule.stirred_.erase(turn_);
                throw;
            }
        }
        ~Place() {
            listNow().erase(turn_);
            schedule_.times_.erase(time_);
        }
        Place(Place const&) = delete;
        Place& operator=(Place const&) = delete;

        /// Has the port served at the end of the turn.
        void stir() noexcept {
            if (!stirred_) move(true);
        }
        /// The port has been served; it is next at this time, unless it is stirred before.
        void rest(double time) noexcept {
            move(false);
            setTime(time);
        }
        /// The port is about to be served. Unless it says that it was, it will be again: at the
        /// end of the turn, and at this time at the latest.
        void attempt(double retryTime) noexcept {
            move(true);
            setTime(retryTime);
        }

      private:
        Stirred& listNow() { return stirred_ ? schedule_.stirred_ : schedule_.resting_; }
        /// Behind all others.
        void move(bool stirred) noexcept {
            Stirred& from = listNow();
            stirred_ = stirred;
            listNow().splice(listNow().end(), from, turn_);
        }
        void setTime(double time) noexcept {
            if (time_->first == time) return;
            auto node = schedule_.times_.extract(time_);
            node.key() = time;
            time_ = schedule_.times_.insert(std::move(node));
        }

        PortSchedule& schedule_;
        bool stirred_ = true;
        Stirred::iterator turn_;
        Times::iterator time_;
    };

    std::size_t stirredCount() const { return stirred_.size(); }
    /// The one that was stirred first; not to be called without any.
    IgmpHostPort& stirred() const { return *stirred_.front(); }
    /// The earliest time, `never` for none.
    double nextTime() const { return times_.empty() ? Nex::never : times_.begin()->first; }
    /// The port of that time; not to be called without any.
    IgmpHostPort& next() const { return *times_.begin()->second; }

  private:
    Stirred stirred_;
    Stirred resting_;
    Times times_;
};

} // namespace Agent
