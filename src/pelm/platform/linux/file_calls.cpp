#include <pelm/platform/linux/file_calls.hpp>

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>

namespace pelm::platform {
namespace {

int moveFile(const char* from, const char* to, bool replace) {
    if (replace) return ::rename(from, to);
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return -1;
    // A file system without RENAME_NOREPLACE: a hard link fails on an existing name just the same.
    if (::link(from, to) != 0) return -1;
    return ::unlink(from);
}

}  // namespace

const FileCalls& FileCalls::system() {
    static const FileCalls calls{
        [](const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); },
        [](int fd, void* buffer, size_t size) { return ::read(fd, buffer, size); },
        [](int fd, const void* buffer, size_t size) { return ::write(fd, buffer, size); },
        [](int fd) { return ::fsync(fd); },
        moveFile,
    };
    return calls;
}

}  // namespace pelm::platform
