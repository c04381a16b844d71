#include "Vardo/EntityManager.h"

#include "Nex/Error.h"

namespace Vardo {

void EntityManager::factoryIs(Nex::String typeName, Factory factory) {
    *factories_.findOrInsert(typeName).first = std::move(factory);
}

void EntityManager::doMount(Nex::String path, Nex::String typeName, unsigned mountInfoType) {
    if (auto* const known = mounted_.find(path)) return (*known)->mountsIs((*known)->mounts() + 1);
    Factory const* const factory = factories_.find(typeName);
    if (!factory)
        throw Nex::RangeException("no tables of type " + typeName + " to mount at " + path);
    auto const table = MountedTable::MountedTableIs(path);
    table->typeNameIs(typeName);
    table->mountInfoTypeIs(mountInfoType);
    table->entityIs((*factory)(path));
    table->mountsIs(1);
    *mounted_.findOrInsert(path).first = table;
    nexNotify<NotifieeConst, &NotifieeConst::onMounted>(path);
}

void EntityManager::doUnmount(Nex::String path) {
    auto* const known = mounted_.find(path);
    if (!known) return;
    unsigned const left = (*known)->mounts() - 1;
    (*known)->mountsIs(left);
    if (left > 0) return;
    auto const gone = mounted_.take(path);
    nexNotify<NotifieeConst, &NotifieeConst::onMounted>(path);
}

MountedTable const* EntityManager::mounted(Nex::String const& path) const {
    auto const* const found = mounted_.find(path);
    return found ? found->get() : nullptr;
}

} // namespace Vardo
