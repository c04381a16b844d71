#include "Nex/Entity.h"

#include <memory>

namespace Nex {

void NotifieeList::add(NotifieeBase* notifiee) {
    if (empty()) {
        head_ = reinterpret_cast<std::uintptr_t>(notifiee);
    } else if (Many* const all = many()) {
        all->findOrInsert(notifiee);
    } else {
        auto fresh = std::make_unique<Many>();
        fresh->findOrInsert(one());
        fresh->findOrInsert(notifiee);
        head_ = reinterpret_cast<std::uintptr_t>(fresh.release()) | tag;
    }
}

void NotifieeList::del(NotifieeBase* notifiee) {
    if (Many* const all = many())
        all->take(notifiee);
    else if (one() == notifiee)
        head_ = 0;
}

bool NotifieeBase::outerSilenced() const { return silenced(); }

String Entity::nexFullName() const {
    return parent_ ? parent_->nexFullName() + "/" + parent_->nexPlaceOf(*this) : nexName();
}

} // namespace Nex
