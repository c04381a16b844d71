// Watches records, all that lies below them and all that appears there later, and does something at
// one notification, counted from 0, or at each.
#pragma once

#include "Igmp/IgmpHost.h"
#include "IgmpHostProxy/Status.h"
#include "Ip/SourceIntf.h"
#include "Nex/Machine.h"

#include <functional>
#include <vector>

namespace IgmpHostProxy {

/// The reactor that tells a `Disturber` of a record's every notification.
template <class Record>
struct Watch;

class Disturber : public Nex::PtrInterface {
  public:
    static constexpr unsigned always = ~0u;

    Disturber(unsigned at, std::function<void()> disturb) : at_(at), disturb_(std::move(disturb)) {}
    ~Disturber() override { stop(); }
    void stop() {
        for (auto const& watch : std::exchange(watches_, {})) watch->nexRetire();
    }
    bool disturbed() const { return count_ > at_; }

    template <class Record>
    void follow(Record const* record) {
        auto const watch = Nex::newObject<Watch<Record>>(Nex::Ptr<Record const>(record), this);
        watch->hasNotificationActiveIs(true);
        watches_.push_back(watch);
        if constexpr (requires { record->nexVisit(Below{*this}); }) record->nexVisit(Below{*this});
    }
    /// An attribute has changed, perhaps to another record.
    template <class Value>
    void hear(Value const& value) {
        Below{*this}.attr("", value);
        if (count_++ == at_ || at_ == always) disturb_();
    }

  private:
    /// Visits a record's attributes for the records among them.
    struct Below {
        Disturber& disturber;

        template <class Value>
        void attr(char const*, Value const& value) const {
            if constexpr (requires { value->nexVisit(*this); })
                if (value) disturber.follow(&*value);
        }
        void set(char const*, auto const&) const {}
        void map(char const*, auto const&) const {}
        void records(char const* name, auto const& makeWalk) const {
            for (auto const& item : makeWalk()) attr(name, item.value);
        }
    };

    unsigned at_;
    unsigned count_ = 0;
    std::function<void()> disturb_;
    std::vector<Nex::Ptr<Nex::NotifieeBase>> watches_;
};

template <class Record>
struct Listener : Nex::Reactor<typename Record::NotifieeConst, Disturber> {
    using Nex::Reactor<typename Record::NotifieeConst, Disturber>::Reactor;
    void hear(auto const& value) { this->machine()->hear(value); }
};
template <class Record>
struct Watch : Record::template NotifieeOfAll<Listener<Record>> {
    using Record::template NotifieeOfAll<Listener<Record>>::NotifieeOfAll;
};
template <>
struct Watch<Ip::SourceIntf::SourceIntfSm>
    : Nex::Reactor<Ip::SourceIntf::SourceIntfSm::NotifieeConst, Disturber> {
    using Reactor::Reactor;
    void onSourceIntf(Lox::IntfId) override { machine()->hear(nullptr); }
};

} // namespace IgmpHostProxy
