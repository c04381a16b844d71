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

NotifieeList::Pass::Pass(NotifieeList& list) : list_(list) {
    Many* const all = list.many();
    end_ = all ? all->notifiees.size() : 1;
    if (all) ++all->passes;
}

NotifieeList::Pass::~Pass() {
    Many* const all = list_.many();
    // A list that became `Many` during this pass did not count it.
    if (!all || all->passes == 0) return;
    if (--all->passes == 0 && all->holes) all->sweep();
}

NotifieeBase* NotifieeList::Pass::next() {
    Many* const all = list_.many();
    if (!all) return at_++ < end_ && !list_.empty() ? list_.one() : nullptr;
    while (at_ < end_)
        if (NotifieeBase* const notifiee = all->notifiees[at_++]) return notifiee;
    return nullptr;
}

String Entity::nexFullName() const {
    return parent_ ? parent_->nexFullName() + "/" + nexName() : nexName();
}

} // namespace Nex
