#include "Vardo/EntityManager.h"

#include "Nex/Error.h"

namespace Vardo {

void EntityManager::factoryIs(Nex::String typeName, Factory factory) {
    *factories_.findOrInsert(typeName).first = std::move(factory);
}

void EntityManager::doMount(Nex::String path, Nex::String typeName, unsigned mountInfoType) {
    if (doMountAgain(path)) return;
    Factory const* const known = factories_.find(typeName);
    if (!known) throw Nex::RangeException("no tables of type " + typeName + " to mount at " + path);
    Factory const factory = *known; // it may register others
    auto const table = MountedTable::MountedTableIs(path);
    table->typeNameIs(typeName);
    table->mountInfoTypeIs(mountInfoType);
    table->entityIs(factory(path));
    table->mountsIs(1);
    if (doMountAgain(path)) return; // the factory has mounted it
    *mounted_.findOrInsert(path).first = table;
    nexNotify<NotifieeConst, &NotifieeConst::onMounted>(path);
}

bool EntityManager::doMountAgain(Nex::String const& path) {
    auto* const known = mounted_.find(path);
    if (!known) return false;
    Nex::Ptr<MountedTable> const table = *known;
    table->mountsIs(table->mounts() + 1);
    return true;
}

void EntityManager::doUnmount(Nex::String path) {
    auto* const known = mounted_.find(path);
    if (!known) return;
    Nex::Ptr<MountedTable> const table = *known;
    unsigned const left = table->mounts() - 1;
    // Out of the way before anybody hears of it, who may mount the path anew.
    if (left == 0) mounted_.take(path);
    table->mountsIs(left);
    if (left == 0) nexNotify<NotifieeConst, &NotifieeConst::onMounted>(path);
}

MountedTable const* EntityManager::mounted(Nex::String const& path) const {
    auto const* const found = mounted_.find(path);
    return found ? found->get() : nullptr;
}

} // namespace Vardo
