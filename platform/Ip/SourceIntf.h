// The source-interface service: whoever sends from an interface registers it here and watches its
// address. Whoever knows addresses writes them here, before an interface is registered
// (`sourceIntf` is null then: they register it themselves), as it is, or later.
#pragma once

#include "Lox/IpAddr.h"
#include "Lox/Names.h"
#include "Nex/Record.h"

namespace Ip::SourceIntf {

class SourceIntfSm;

#define SOURCE_INTF(ATTR, SET, MAP, RECORDS)                                                       \
    ATTR(Lox::IpAddr, ipAddr, IpAddr) /* 0.0.0.0 while it has none */

/// One interface's address to send from. Goes with the last who holds it, its address with it.
class SourceIntf : public Nex::RecordBase {
    NEX_RECORD(SourceIntf, Lox::IntfId, intfId, SOURCE_INTF)

  public:
    ~SourceIntf() override;

  private:
    friend class SourceIntfSm;
    SourceIntfSm* service_ = nullptr; ///< the service that knows the object; not owned
};
#undef SOURCE_INTF

/// There is one object per interface as long as anybody holds it, registered or not. So whoever
/// asks for an interface again, also after it was unregistered, watches the object that others
/// watch.
class SourceIntfSm : public Nex::Entity {
  public:
    static Nex::Ptr<SourceIntfSm> SourceIntfSmIs() { return Nex::newObject<SourceIntfSm>(); }
    ~SourceIntfSm() override;
    Nex::String nexName() const override { return "sourceIntf"; }

    class NotifieeConst : public Nex::NotifieeOf<SourceIntfSm> {
      public:
        /// An interface was registered; whoever knows its address writes it now.
        virtual void onSourceIntf(Lox::IntfId) {}

      protected:
        using Nex::NotifieeOf<SourceIntfSm>::NotifieeOf;
    };
    using Notifiee = Nex::WritingNotifiee<NotifieeConst, SourceIntfSm>;

    /// The interface's object, which the service holds from now on. Everybody is told; they may
    /// write its address before this returns. Registering what is registered tells nobody. Not
    /// counted: one unregistration ends it, however many have registered it. Throws what a watcher
    /// throws, with the interface registered.
    Nex::Ptr<SourceIntf> registerSourceIntf(Lox::IntfId intfId);
    /// The service holds the object no longer; its address stays as it is. Tells nobody. Not null;
    /// an interface that is not registered is no error.
    void unregisterSourceIntf(Nex::Ptr<SourceIntf> const& sourceIntf);
    /// The interface's object, or null when nobody holds one. Lent.
    SourceIntf* sourceIntf(Lox::IntfId const& intfId) const;
    bool registered(Lox::IntfId const& intfId) const { return registered_.has(intfId); }

  private:
    friend class SourceIntf;
    Nex::Map<Lox::IntfId, SourceIntf*> known_; ///< not owned; an object that goes takes itself out
    Nex::Map<Lox::IntfId, Nex::Ptr<SourceIntf>> registered_;
};

} // namespace Ip::SourceIntf
