#include "agent/kernel/LeftNamespace.h"

#include <exception>
#include <sys/epoll.h>
#include <utility>

namespace Agent {

namespace {

constexpr double retrySeconds = 5;

} // namespace

LeftNamespace::LeftNamespace(EventLoop& loop, std::string name, Observer observer)
    : loop_(loop),
      name_(std::move(name)),
      observer_(std::move(observer)),
      retry_(loop, [this] { doStart(); }) {
    doStart();
}

LeftNamespace::~LeftNamespace() { doStop(); }

Whereabouts LeftNamespace::whereabouts(std::string const& interface) const {
    if (!interfaces_) return {watch_ && watch_->absent(), {}, -1};
    return {interfaces_->synchronized(), interfaces_->table().device(interface),
            watch_->namespaceFd()};
}

void LeftNamespace::handleNamespace() {
    doStop();
    doStart();
    observer_();
}

void LeftNamespace::doStart() {
    retry_.arm(retrySeconds);
    if (interfaces_ && !interfaces_->stalled()) return;
    doStop();
    std::string obstacle;
    try {
        if (!watch_)
            watch_ = std::make_unique<NamespaceWatch>(loop_, name_, [this] { handleNamespace(); });
        if (watch_->absent()) return;
        obstacle = watch_->obstacle();
        if (obstacle.empty()) {
            interfaces_ = std::make_unique<KernelInterfaces>([](int) {}, watch_->namespaceFd());
            loop_.watch(interfaces_->fd(), EPOLLIN, [this](std::uint32_t) {
                interfaces_->receive();
                observer_();
            });
        }
    } catch (std::exception const& error) {
        interfaces_ = nullptr;
        obstacle = "namespace " + name_ + ": " + error.what();
    }
    if (obstacle.empty() || !failureLimit_.admitted(EventLoop::now())) return;
    log(LogLevel::warning, "groups have yet to be left: {}", obstacle);
}

void LeftNamespace::doStop() {
    if (interfaces_) loop_.unwatch(interfaces_->fd());
    interfaces_ = nullptr;
}

} // namespace Agent
