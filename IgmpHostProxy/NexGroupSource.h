// The frame of every per-group reactor: it watches one group's sources and hands each to the
// machine's rule for its list, whether the source came, went, or stood there at start-up.
#pragma once

#include "IgmpHostProxy/GroupSource.h"
#include "IgmpHostProxy/Trace.h"
#include "Nex/Machine.h"

namespace IgmpHostProxy {

template <class Machine>
class NexGroupSource : public Nex::Reactor<GroupSource::NotifieeConst, Machine> {
  public:
    /// The rules for one source; it may be in the list, or gone from it.
    virtual void handleIncludeSourceList(Lox::IpAddr source) = 0;
    virtual void handleExcludeSourceList(Lox::IpAddr source) = 0;

    void handleIncludeSourceList() {
        IHP_TRACE_ENTRY();
        if (Nex::Ptr<GroupSource const> const watched = this->notifier())
            for (Lox::IpAddr const source : watched->includeSourceList())
                handleIncludeSourceList(source);
    }
    void handleExcludeSourceList() {
        IHP_TRACE_ENTRY();
        if (Nex::Ptr<GroupSource const> const watched = this->notifier())
            for (Lox::IpAddr const source : watched->excludeSourceList())
                handleExcludeSourceList(source);
    }

    void onIncludeSourceList(Lox::IpAddr source) final { handleIncludeSourceList(source); }
    void onExcludeSourceList(Lox::IpAddr source) final { handleExcludeSourceList(source); }
    void onIncludeSourceListnexImmediate() final { handleIncludeSourceList(); }
    void onExcludeSourceListnexImmediate() final { handleExcludeSourceList(); }

  protected:
    /// Active from here on: what the reactor's own start-up brings about is heard, too.
    NexGroupSource(Nex::Ptr<GroupSource const> groupSource, Machine* machine)
        : Nex::Reactor<GroupSource::NotifieeConst, Machine>(std::move(groupSource), machine) {
        this->hasNotificationActiveIs(true);
    }

    Lox::IpAddr group() const { return this->notifier()->group(); }
};

} // namespace IgmpHostProxy
