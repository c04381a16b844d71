// Files that a process may have open.
#pragma once

#include <filesystem>
#include <string>
#include <sys/resource.h>

namespace Support {

/// Lets a process open only so many files besides those that it has, from now on.
inline void leaveDescriptors(pid_t process, int count) {
    std::string const used = "/proc/" + std::to_string(process) + "/fd/";
    rlimit limit{};
    prlimit(process, RLIMIT_NOFILE, nullptr, &limit);
    for (limit.rlim_cur = 0; count > 0; ++limit.rlim_cur)
        if (!std::filesystem::is_symlink(used + std::to_string(limit.rlim_cur))) --count;
    prlimit(process, RLIMIT_NOFILE, &limit, nullptr);
}

} // namespace Support
