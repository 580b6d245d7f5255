#pragma once

#include <sys/types.h>

#include <functional>

namespace pelm::platform {

/// The system calls through which the settings store and the bounded reader touch their files. Each is the
/// plain system call unless replaced, which lets a test make any one of them fail with any errno, at any
/// moment, without a special file system.
struct FileCalls {
    std::function<int(const char* path, int flags, mode_t mode)> open;
    std::function<ssize_t(int fd, void* buffer, size_t size)> read;
    std::function<ssize_t(int fd, const void* buffer, size_t size)> write;
    std::function<int(int fd)> fsync;
    /// Moves `from` to `to`; with `replace` false, fails with EEXIST rather than replace a file at `to`.
    std::function<int(const char* from, const char* to, bool replace)> rename;

    /// The real ones.
    static const FileCalls& system();
};

}  // namespace pelm::platform
