// Mounts shared-memory tables through the entity manager.
#pragma once

#include "Vardo/EntityManager.h"

namespace NexKesh {

class Mount {
  public:
    explicit Mount(Nex::Ptr<Vardo::EntityManager> entityManager)
        : entityManager_(std::move(entityManager)) {}

    void mountIs(Nex::String const& path, Nex::String const& typeName, unsigned mountInfoType) {
        entityManager_->doMount(path, typeName, mountInfoType);
    }
    void mountDel(Nex::String const& path) { entityManager_->doUnmount(path); }
    /// The table mounted at `path`, or null when there is none or it is no `Table`.
    template <class Table>
    Nex::Ptr<Table> entity(Nex::String const& path) const {
        auto const* const mounted = entityManager_->mounted(path);
        return mounted ? dynamic_cast<Table*>(mounted->entity().get()) : nullptr;
    }

  private:
    Nex::Ptr<Vardo::EntityManager> entityManager_;
};

} // namespace NexKesh
