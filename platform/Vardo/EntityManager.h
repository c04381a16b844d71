// The state database's entity manager: shared-memory tables by path, mounted on demand.
//
// Whoever provides the tables of a type (the agent, a test) gives a factory for it and fills what
// is mounted; it watches the manager to learn of mounts and unmounts. A path that is mounted more
// than once stays until it was unmounted as often.
//
// A table that was unmounted and is mounted again is another one, empty. Whoever fills it goes by
// `mounted(path)` in its callback, and fills what is there now.
#pragma once

#include "Nex/Record.h"

#include <functional>

namespace Vardo {

#define MOUNTED_TABLE(ATTR, SET, MAP, RECORDS)                                                     \
    ATTR(Nex::String, typeName, TypeName)                                                          \
    ATTR(unsigned, mountInfoType, MountInfoType)                                                   \
    ATTR(Nex::Ptr<Nex::Entity>, entity, Entity)                                                    \
    ATTR(unsigned, mounts, Mounts) /* how often */

/// A mount, for whoever wants to know what is mounted. The manager alone writes it; `mounts` is 0
/// once it has been forgotten.
class MountedTable : public Nex::RecordBase {
    NEX_RECORD(MountedTable, Nex::String, path, MOUNTED_TABLE)
};
#undef MOUNTED_TABLE

class EntityManager : public Nex::Entity {
  public:
    /// Makes the table to be mounted at a path, empty. May return null, which is then mounted, and
    /// may mount others, or this very path, whose table then stands and its own is dropped.
    using Factory = std::function<Nex::Ptr<Nex::Entity>(Nex::String const& path)>;

    static Nex::Ptr<EntityManager> EntityManagerIs() { return Nex::newObject<EntityManager>(); }
    Nex::String nexName() const override { return "vardo"; }

    class NotifieeConst : public Nex::NotifieeOf<EntityManager> {
      public:
        /// A path was mounted for the first time, or unmounted for the last; `mounted` tells which.
        /// Told inside the call that does it, before whoever mounts the table reads it.
        virtual void onMounted(Nex::String) {}

      protected:
        using Nex::NotifieeOf<EntityManager>::NotifieeOf;
    };

    /// How tables of a type come into being, from the next mount on; in place of the factory that
    /// was there. Mounting a type without one throws Nex::RangeException. The manager holds it: one
    /// that holds the manager keeps both for ever.
    void factoryIs(Nex::String typeName, Factory factory);
    /// Counts one mount more, or makes the table by its type's factory and tells everybody. Throws
    /// what the factory throws, and then nothing is mounted; what a watcher throws reaches the
    /// caller with the table mounted.
    void doMount(Nex::String path, Nex::String typeName, unsigned mountInfoType);
    /// Counts one less; with the last the table is forgotten and everybody told. Whoever holds it
    /// keeps it. A path that is not mounted is no error.
    void doUnmount(Nex::String path);
    /// The table at a path, or null while it is not mounted. Lent, good until the last unmount.
    MountedTable const* mounted(Nex::String const& path) const;
    auto mounted() const { return mounted_.walk<Nex::Ptr<MountedTable const>>(); }

  private:
    /// False when nothing is mounted there.
    bool doMountAgain(Nex::String const& path);

    Nex::Map<Nex::String, Factory> factories_;
    Nex::Map<Nex::String, Nex::Ptr<MountedTable>> mounted_;
};

} // namespace Vardo
