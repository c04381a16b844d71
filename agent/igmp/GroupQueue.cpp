#include "agent/igmp/GroupQueue.h"

#include <cmath>

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

void GroupQueue::add(TimedLink& link, double now, double due) {
    constexpr double steps = 128; // a power of two: the borders are exact
    double early = std::floor(due * steps) / steps;
    del(link);
    link.due = early > now ? early : due;
    link.queue = this;
    lists_[link.due].add(link);
}

void GroupQueue::del(TimedLink& link) {
    if (link.queue == nullptr) return;
    link.unlink();
    auto& lists = link.queue->lists_;
    auto list = lists.find(link.due);
    if (list->second.isEmpty()) lists.erase(list);
    link.queue = nullptr;
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
