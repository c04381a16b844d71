#include "agent/records/FollowedInterfaces.h"

#include <new>
#include <sys/epoll.h>
#include <utility>

namespace Agent {

FollowedInterfaces::FollowedInterfaces(IgmpHostProxy::PlatformState& state, EventLoop& loop,
                                       Place const& place, Owns owns, Observer observer)
    : InterfaceWriter(state, place, std::move(owns), std::move(observer)),
      loop_(loop),
      kernel_([this](int ifindex) { handleInterface(ifindex); }, place.namespaceFd) {
    doFollow();
}

FollowedInterfaces::~FollowedInterfaces() { loop_.unwatch(kernel_.fd()); }

void FollowedInterfaces::doFollow() {
    loop_.watch(kernel_.fd(), EPOLLIN, [this](std::uint32_t) { kernel_.receive(); });
}

void FollowedInterfaces::doRetry() {
    if (kernel_.stalled()) doReopen();
}

void FollowedInterfaces::doReopen() {
    loop_.unwatch(kernel_.fd());
    kernel_.doReopen();
    doFollow();
}

/// Whoever calls this logs what is thrown, and goes on.
void FollowedInterfaces::handleInterface(int ifindex) {
    try {
        doPublishInterface(ifindex);
    } catch (std::bad_alloc const&) {
        loop_.doReportExhaustion();
        throw;
    }
}

void FollowedInterfaces::doRenew() {
    doPublishAll();
    doReopen();
}

} // namespace Agent
