#include "agent/loop/ServiceManager.h"

#include "agent/loop/FileDescriptor.h"
#include "agent/loop/SystemError.h"

#include <algorithm>
#include <cap-ng.h>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fmt/format.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <vector>

namespace Agent {

namespace {

constexpr std::string_view ready = "READY=1";

/// Whether nothing is left to be told.
bool doNotify(std::string_view assignment) {
    char const* const path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (!path || std::strlen(path) < 2 || std::strlen(path) >= sizeof address.sun_path) return true;
    address.sun_family = AF_UNIX;
    std::size_t const length = std::strlen(path);
    std::copy_n(path, length, address.sun_path);
    if (address.sun_path[0] == '@') address.sun_path[0] = '\0'; // the abstract namespace
    // Kept open: what has begun to reload must be able to say that it has ended.
    static FileDescriptor socketFd;
    if (socketFd.get() < 0)
        socketFd = FileDescriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return sendto(socketFd.get(), assignment.data(), assignment.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                  reinterpret_cast<sockaddr const*>(&address),
                  socklen_t(offsetof(sockaddr_un, sun_path) + length)) >= 0;
}

} // namespace

bool serviceNotify(std::string_view assignment) {
    // A start or a reload whose end is not heard of would pass for one that hangs.
    static bool readyOwed = false;
    if (readyOwed) readyOwed = !doNotify(ready);
    bool const taken = doNotify(assignment);
    if (assignment == ready) readyOwed = !taken;
    return taken;
}

void serviceReloading() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now); // for Type=notify-reload
    serviceNotify(
        fmt::format("RELOADING=1\nMONOTONIC_USEC={}",
                    std::uint64_t(now.tv_sec) * 1000000 + std::uint64_t(now.tv_nsec) / 1000));
}

void descriptorLimitRaise() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void capabilitiesLimit(bool namespaces) {
    if (capng_get_caps_process() != 0) errnoThrow("capabilities");
    capng_select_t const all = CAPNG_SELECT_CAPS;
    std::vector<unsigned> kept{CAP_NET_ADMIN, CAP_NET_RAW, CAP_DAC_READ_SEARCH};
    if (namespaces) kept.push_back(CAP_SYS_ADMIN);
    std::erase_if(
        kept, [](unsigned wanted) { return capng_have_capability(CAPNG_PERMITTED, wanted) == 0; });
    capng_clear(all);
    for (unsigned const each : kept)
        capng_update(CAPNG_ADD, capng_type_t(CAPNG_EFFECTIVE | CAPNG_PERMITTED), each);
    if (capng_apply(all) != 0) errnoThrow("capabilities");
}

bool hasCapability(unsigned capability) {
    return capng_get_caps_process() == 0 && capng_have_capability(CAPNG_EFFECTIVE, capability) != 0;
}

} // namespace Agent
