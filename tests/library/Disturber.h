// Watches records, all that lies below them and all that appears there later, and does something at
// one notification, counted from 0.
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
        if (count_++ == at_) disturb_();
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

#define HEAR_ATTR(TYPE, NAME, UPPER)                                                               \
    void on##UPPER() override { machine()->hear(notifier()->NAME()); }
#define HEAR_SET(KEY, NAME, UPPER)                                                                 \
    void on##UPPER(KEY) override { machine()->hear(nullptr); }
#define HEAR_MAP(KEY, VALUE, NAME, UPPER) HEAR_SET(KEY, NAME, UPPER)
#define HEAR_RECORDS(KEY, TYPE, NAME, UPPER)                                                       \
    void on##UPPER(KEY key) override { machine()->hear(notifier()->NAME(std::move(key))); }
#define WATCH(RECORD, LIST)                                                                        \
    template <>                                                                                    \
    struct Watch<RECORD> : Nex::Reactor<RECORD::NotifieeConst, Disturber> {                        \
        using Reactor::Reactor;                                                                    \
        LIST(HEAR_ATTR, HEAR_SET, HEAR_MAP, HEAR_RECORDS)                                          \
    };
WATCH(Status, STATUS)
WATCH(IntfStatus, INTF_STATUS)
WATCH(GroupSource, GROUP_SOURCE)
WATCH(Igmp::IgmpHostDir, IGMP_HOST_DIR)
WATCH(Igmp::IgmpHost, IGMP_HOST)
WATCH(Igmp::IgmpV3GroupRecord, IGMP_V3_GROUP_RECORD)
WATCH(Igmp::IgmpV3HostGroupSourceList, IGMP_V3_HOST_GROUP_SOURCE_LIST)
WATCH(Igmp::IgmpHostStatusDir, IGMP_HOST_STATUS_DIR)
WATCH(Igmp::IgmpHostStatus, IGMP_HOST_STATUS)
#undef WATCH
template <>
struct Watch<Ip::SourceIntf::SourceIntfSm>
    : Nex::Reactor<Ip::SourceIntf::SourceIntfSm::NotifieeConst, Disturber> {
    using Reactor::Reactor;
    void onSourceIntf(Lox::IntfId) override { machine()->hear(nullptr); }
};
#undef HEAR_RECORDS
#undef HEAR_MAP
#undef HEAR_SET
#undef HEAR_ATTR

} // namespace IgmpHostProxy
