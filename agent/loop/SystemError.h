// Failed system calls as exceptions.
#pragma once

#include <cerrno>
#include <system_error>

namespace Agent {

/// Throws std::system_error for `errno`; `what` names the call or the file.
[[noreturn]] inline void errnoThrow(char const* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// What a system call has returned, if that is not negative; otherwise throws as `errnoThrow`.
inline int checked(int result, char const* what) {
    if (result < 0) errnoThrow(what);
    return result;
}

} // namespace Agent
