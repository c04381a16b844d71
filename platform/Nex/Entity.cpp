#include "Nex/Entity.h"

#include <algorithm>

namespace Nex {

void NotifieeList::add(NotifieeBase* notifiee) {
    if (empty()) {
        head_ = reinterpret_cast<std::uintptr_t>(notifiee);
    } else if (Many* const all = many()) {
        all->notifiees.push_back(notifiee);
    } else {
        auto* const fresh = new Many{{one(), notifiee}};
        head_ = reinterpret_cast<std::uintptr_t>(fresh) | tag;
    }
}

void NotifieeList::del(NotifieeBase* notifiee) {
    Many* const all = many();
    if (!all) {
        if (one() == notifiee) head_ = 0;
        return;
    }
    auto const found = std::find(all->notifiees.begin(), all->notifiees.end(), notifiee);
    if (found == all->notifiees.end()) return;
    *found = nullptr;
    all->holes = true;
    if (all->passes == 0) all->sweep();
}

void NotifieeList::Many::sweep() {
    std::erase(notifiees, nullptr);
    holes = false;
}

bool NotifieeBase::outerSilenced() const { return silenced(); }

String Entity::nexFullName() const {
    return parent_ ? parent_->nexFullName() + "/" + nexName() : nexName();
}

} // namespace Nex
