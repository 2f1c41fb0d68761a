// SPDX-License-Identifier: MIT
#include "sys_io.h"

#include <cerrno>

namespace boardsim {
namespace sys {

int statFile(int fd, struct stat* info)
{
#if defined(SYS_fstat64)
    struct stat64 wide {};
    if (syscall(SYS_fstat64, fd, &wide) != 0) {
        return -1;
    }
    struct stat narrow {};
    narrow.st_dev = wide.st_dev;
    narrow.st_ino = static_cast<ino_t>(wide.st_ino);
    narrow.st_mode = wide.st_mode;
    narrow.st_nlink = wide.st_nlink;
    narrow.st_uid = wide.st_uid;
    narrow.st_gid = wide.st_gid;
    narrow.st_rdev = wide.st_rdev;
    narrow.st_size = static_cast<off_t>(wide.st_size);
    narrow.st_blksize = wide.st_blksize;
    narrow.st_blocks = static_cast<blkcnt_t>(wide.st_blocks);
    narrow.st_atim = wide.st_atim;
    narrow.st_mtim = wide.st_mtim;
    narrow.st_ctim = wide.st_ctim;
    if (static_cast<decltype(wide.st_ino)>(narrow.st_ino) != wide.st_ino ||
        static_cast<decltype(wide.st_size)>(narrow.st_size) != wide.st_size ||
        static_cast<decltype(wide.st_blocks)>(narrow.st_blocks) != wide.st_blocks) {
        errno = EOVERFLOW;
        return -1;
    }
    *info = narrow;
    return 0;
#else
    // 64-bit targets: the kernel's struct stat is the C library's.
    return static_cast<int>(syscall(SYS_fstat, fd, info));
#endif
}

void writeAll(int fd, const void* buffer, std::size_t length)
{
    const auto* bytes = static_cast<const char*>(buffer);
    while (length > 0) {
        const ssize_t written = writeFile(fd, bytes, length);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return;
        }
        bytes += written;
        length -= static_cast<std::size_t>(written);
    }
}

void replaceContent(const char* path, const char* text, std::size_t length)
{
    const int fd = openFile(path, O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd >= 0) {
        writeAll(fd, text, length);
        closeFile(fd);
    }
}

}  // namespace sys
}  // namespace boardsim
