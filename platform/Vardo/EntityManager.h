// The state database's entity manager: shared-memory tables by path, mounted on demand.
//
// Whoever provides the tables of a type (the agent, a test) gives a factory for it and fills what
// is mounted; it watches the manager to learn of mounts and unmounts. A path that is mounted more
// than once stays until it was unmounted as often.
#pragma once

#include "Nex/Record.h"

#include <functional>

namespace Vardo {

#define MOUNTED_TABLE(ATTR, SET, MAP, RECORDS)                                                     \
    ATTR(Nex::String, typeName, TypeName)                                                          \
    ATTR(unsigned, mountInfoType, MountInfoType)                                                   \
    ATTR(Nex::Ptr<Nex::Entity>, entity, Entity)                                                    \
    ATTR(unsigned, mounts, Mounts) /* how often */

class MountedTable : public Nex::RecordBase {
    NEX_RECORD(MountedTable, Nex::String, path, MOUNTED_TABLE)
};
#undef MOUNTED_TABLE

class EntityManager : public Nex::Entity {
  public:
    using Factory = std::function<Nex::Ptr<Nex::Entity>(Nex::String const& path)>;

    static Nex::Ptr<EntityManager> EntityManagerIs() { return Nex::newObject<EntityManager>(); }
    Nex::String nexName() const override { return "vardo"; }

    class NotifieeConst : public Nex::NotifieeOf<EntityManager> {
      public:
        /// A path was mounted for the first time, or unmounted for the last; `mounted` tells.
        virtual void onMounted(Nex::String) {}

      protected:
        using Nex::NotifieeOf<EntityManager>::NotifieeOf;
    };

    /// How tables of a type come into being. Mounting a type without a factory throws
    /// Nex::RangeException.
    void factoryIs(Nex::String typeName, Factory factory);
    /// Counts one mount more, or makes the table by its type's factory and tells everybody. Throws
    /// what the factory throws, and then nothing is mounted; what a watcher throws reaches the
    /// caller with the table mounted.
    void doMount(Nex::String path, Nex::String typeName, unsigned mountInfoType);
    /// Counts one less; with the last the table is forgotten and everybody told. Whoever holds it
    /// keeps it. A path that is not mounted is no error.
    void doUnmount(Nex::String path);
    /// The table at a path, or null while it is not mounted.
    MountedTable const* mounted(Nex::String const& path) const;
    auto mounted() const { return mounted_.walk<Nex::Ptr<MountedTable const>>(); }

  private:
    /// False when nothing is mounted there.
    bool doMountAgain(Nex::String const& path);

    Nex::Map<Nex::String, Factory> factories_;
    Nex::Map<Nex::String, Nex::Ptr<MountedTable>> mounted_;
};

} // namespace Vardo
