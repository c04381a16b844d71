#include "agent/loop/ServiceStatus.h"

#include "agent/loop/ServiceManager.h"

#include <cstdlib>
#include <unistd.h>
#include <utility>

namespace Agent {

namespace {

constexpr double tellSeconds = 1;

double lifeSeconds() {
    char const* const microseconds = std::getenv("WATCHDOG_USEC");
    char const* const process = std::getenv("WATCHDOG_PID");
    if (!microseconds || (process && std::atol(process) != getpid())) return 0;
    return std::strtod(microseconds, nullptr) * 1e-6 / 2;
}

} // namespace

ServiceStatus::ServiceStatus(EventLoop& loop, std::function<std::string()> text)
    : text_(std::move(text)),
      heard_(std::getenv("NOTIFY_SOCKET") != nullptr),
      change_(loop, [this] { doTell(); }),
      lifeSeconds_(lifeSeconds()),
      life_(loop, [this] { doSignalLife(); }) {
    if (lifeSeconds_ > 0) doSignalLife();
}

void ServiceStatus::handleChange() {
    if (heard_ && !change_.armed()) change_.arm(tellSeconds);
}

void ServiceStatus::doTell() {
    if (!heard_) return;
    change_.disarm();
    std::string text = text_();
    if (text == told_) return;
    if (!serviceNotify("STATUS=" + text)) return change_.arm(tellSeconds);
    told_ = std::move(text);
}

void ServiceStatus::doSignalLife() {
    life_.arm(lifeSeconds_);
    serviceNotify("WATCHDOG=1");
}

} // namespace Agent
