#include "agent/StatusJson.h"

#include "agent/FileDescriptor.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <system_error>

namespace Agent {

namespace {

[[noreturn]] void fail(std::string const& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

nlohmann::json toJson(HostCounters const& counters) {
    nlohmann::json json;
#define AGENT_SHOW(name) json[#name] = counters.name;
    AGENT_HOST_COUNTERS(AGENT_SHOW)
#undef AGENT_SHOW
#define AGENT_SHOW(name)                                                                           \
    json["receivedDropped"][#name] = counters.dropped[std::size_t(DropReason::name)];
    AGENT_DROP_REASONS(AGENT_SHOW)
#undef AGENT_SHOW
    return json;
}

void fileReplace(std::string const& path, std::string const& text) {
    std::string const fresh = path + ".new";
    {
        FileDescriptor const file(
            open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644));
        if (file.get() < 0) fail(fresh);
        for (std::size_t at = 0; at < text.size();) {
            ssize_t const written = write(file.get(), text.data() + at, text.size() - at);
            if (written < 0 && errno != EINTR) fail(fresh);
            if (written > 0) at += std::size_t(written);
        }
    }
    if (std::rename(fresh.c_str(), path.c_str()) != 0) fail(path);
}

} // namespace Agent
