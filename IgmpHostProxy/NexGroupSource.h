// The frame of every per-group reactor: it watches one group's sources and hands each to the
// machine's rule for its list, whether the source came, went, or stood there at start-up.
#pragma once

#include "IgmpHostProxy/GroupSource.h"
#include "IgmpHostProxy/Trace.h"
#include "Nex/Machine.h"

namespace IgmpHostProxy {

/// `Self` is the reactor; it has the rules for one source, which may be in the list or gone from
/// it: `handleIncludeSourceList(source)` and `handleExcludeSourceList(source)`. They look whether
/// it is (`includeHas`, `excludeHas`), and again after anything that tells others. A rule may be
/// run for a source that has not changed.
///
/// The constructor of `Self` ends by the walks over both lists, or by `startUpIsOver`: until then
/// sources that come are left to those walks.
template <class Self, class Machine>
class NexGroupSource : public Nex::Reactor<GroupSource::NotifieeConst, Machine> {
  public:
    /// Fixed, also after the record has gone.
    Lox::IpAddr group() const { return group_; }

    /// Hands over every source that the list has now, as long as the same record is watched: what a
    /// rule brings about may point the reactor elsewhere.
    void handleIncludeSourceList() {
        IHP_TRACE_ENTRY();
        includeAwaitsStartUp_ = false;
        if (!this->notifier() || !this->notifier()->includes()) return;
        Nex::Ptr<GroupSource const> const watched = this->notifier();
        for (Lox::IpAddr const source : watched->includeSourceList()) {
            if (this->notifier() != watched.get()) return;
            self().handleIncludeSourceList(source);
        }
    }
    void handleExcludeSourceList() {
        IHP_TRACE_ENTRY();
        excludeAwaitsStartUp_ = false;
        if (!this->notifier() || !this->notifier()->excludes()) return;
        Nex::Ptr<GroupSource const> const watched = this->notifier();
        for (Lox::IpAddr const source : watched->excludeSourceList()) {
            if (this->notifier() != watched.get()) return;
            self().handleExcludeSourceList(source);
        }
    }

    void onIncludeSourceList(Lox::IpAddr source) final {
        if (!includeAwaitsStartUp_) self().handleIncludeSourceList(source);
    }
    void onExcludeSourceList(Lox::IpAddr source) final {
        if (!excludeAwaitsStartUp_) self().handleExcludeSourceList(source);
    }
    void onIncludeSourceListnexImmediate() final { handleIncludeSourceList(); }
    void onExcludeSourceListnexImmediate() final { handleExcludeSourceList(); }

  protected:
    /// Active from here on: what the reactor's own start-up brings about is heard, too. Only a
    /// source of a list that start-up has yet to walk is left to that walk, or it would be taken
    /// twice. `groupSource` is not null.
    NexGroupSource(Nex::Ptr<GroupSource const> groupSource, Machine* machine)
        : Nex::Reactor<GroupSource::NotifieeConst, Machine>(std::move(groupSource), machine),
          group_(this->notifier()->group()) {
        this->hasNotificationActiveIs(true);
    }
    /// Whether the watched list has the source. No, once the group is gone.
    bool includeHas(Lox::IpAddr source) const {
        return this->notifier() && this->notifier()->includeSourceListHas(source);
    }
    bool excludeHas(Lox::IpAddr source) const {
        return this->notifier() && this->notifier()->excludeSourceListHas(source);
    }
    /// The derived class has started up, be it without a walk.
    void startUpIsOver() { includeAwaitsStartUp_ = excludeAwaitsStartUp_ = false; }

  private:
    Self& self() { return static_cast<Self&>(*this); }

    Lox::IpAddr group_;
    bool includeAwaitsStartUp_ = true;
    bool excludeAwaitsStartUp_ = true;
};

} // namespace IgmpHostProxy
