#include "agent/igmp/GroupQueue.h"

#include <cmath>
#include <utility>

namespace Agent {

void GroupLink::unlink() {
    previous->next = next;
    next->previous = previous;
    previous = next = this;
}

void GroupList::add(GroupLink& link) {
    link.unlink();
    link.previous = head_.previous;
    link.next = &head_;
    head_.previous->next = &link;
    head_.previous = &link;
}

void GroupList::addAll(GroupList& other) {
    if (other.isEmpty()) return;
    GroupLink* first = other.head_.next;
    GroupLink* last = other.head_.previous;
    other.head_.unlink();
    first->previous = head_.previous;
    last->next = &head_;
    head_.previous->next = first;
    head_.previous = last;
}

void GroupQueue::prepare() {
    if (!spare_.empty()) return;
    Lists one;
    spare_ = one.extract(one.try_emplace(0).first);
}

void GroupQueue::add(TimedLink& link, double now, double due) {
    constexpr double steps = 128; // a power of two: the borders are exact
    double early = std::floor(due * steps) / steps;
    if (early > now) due = early;
    if (!lists_.contains(due)) prepare();
    del(link); // and so maybe the last of this time
    auto list = lists_.find(due);
    if (list == lists_.end()) {
        spare_.key() = due;
        list = lists_.insert(std::move(spare_)).position;
    }
    list->second.add(link);
    link.due = due;
    link.queue = this;
}

void GroupQueue::del(TimedLink& link) noexcept {
    if (link.queue == nullptr) return;
    link.unlink();
    GroupQueue& queue = *std::exchange(link.queue, nullptr);
    auto list = queue.lists_.find(link.due);
    if (list->second.isEmpty()) queue.spare_ = queue.lists_.extract(list);
}

void GroupEntry::dropChange() {
    GroupQueue::del(change);
    group.dropChange();
}

void GroupEntry::dropAnswer() {
    GroupQueue::del(answer);
    group.forgetAsked();
}

GroupEntry* GroupQueue::first(double now) const {
    return nextExpiry() <= now && !lists_.empty() ? lists_.begin()->second.first() : nullptr;
}

} // namespace Agent
