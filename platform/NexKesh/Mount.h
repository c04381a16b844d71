// Mounts shared-memory tables through the entity manager.
#pragma once

#include "Vardo/EntityManager.h"

namespace NexKesh {

/// A shorthand for one manager. Keeps no count of its own: each `mountIs` wants its `mountDel`.
class Mount {
  public:
    /// Not null; held.
    explicit Mount(Nex::Ptr<Vardo::EntityManager> entityManager)
        : entityManager_(std::move(entityManager)) {}

    /// As `EntityManager::doMount`, errors included. `mountInfoType` is noted in the mounted table
    /// and means nothing here.
    void mountIs(Nex::String const& path, Nex::String const& typeName, unsigned mountInfoType) {
        entityManager_->doMount(path, typeName, mountInfoType);
    }
    /// As `EntityManager::doUnmount`.
    void mountDel(Nex::String const& path) { entityManager_->doUnmount(path); }
    /// The table mounted at `path`, or null when there is none or it is no `Table`: a type that the
    /// provider makes is not checked before. Who holds it keeps it past its last unmount.
    template <class Table>
    Nex::Ptr<Table> entity(Nex::String const& path) const {
        auto const* const mounted = entityManager_->mounted(path);
        return mounted ? dynamic_cast<Table*>(mounted->entity().get()) : nullptr;
    }

  private:
    Nex::Ptr<Vardo::EntityManager> entityManager_;
};

} // namespace NexKesh
