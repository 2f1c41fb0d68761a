// SPDX-License-Identifier: MIT
// The simulator's own file operations, made as direct system calls so that
// they never pass through the interposed C library functions (no recursion
// into the simulator, no sanitizer interceptors) and work before the C
// library is fully set up in the process.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>

namespace boardsim {
namespace sys {

inline int openFile(const char* path, int flags, mode_t mode = 0)
{
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

inline int closeFile(int fd)
{
    return static_cast<int>(syscall(SYS_close, fd));
}

inline ssize_t readFile(int fd, void* buffer, std::size_t length)
{
    return static_cast<ssize_t>(syscall(SYS_read, fd, buffer, length));
}

inline ssize_t writeFile(int fd, const void* buffer, std::size_t length)
{
    return static_cast<ssize_t>(syscall(SYS_write, fd, buffer, length));
}

inline int truncateFile(int fd, off_t length)
{
    return static_cast<int>(syscall(SYS_ftruncate, fd, length));
}

// Fills the identity (st_dev, st_ino), type and size fields of info, and the
// rest of what the kernel reports. On 32-bit targets the kernel's plain fstat
// structure is not the C library's struct stat: there the 64-bit call fills
// the kernel's stat64 and the fields are copied over, with EOVERFLOW for an
// inode or size that does not fit (as the C library answers).
int statFile(int fd, struct stat* info);

// Whether fd is an open descriptor of this process.
inline bool descriptorOpen(int fd)
{
    return syscall(SYS_fcntl, fd, F_GETFD) >= 0;
}

inline int makeFolder(const char* path, mode_t mode)
{
    return static_cast<int>(syscall(SYS_mkdirat, AT_FDCWD, path, mode));
}

inline int removeFile(const char* path)
{
    return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

inline int removeFolder(const char* path)
{
    return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, AT_REMOVEDIR));
}

inline int anonymousFile(const char* name, unsigned int flags)
{
    return static_cast<int>(syscall(SYS_memfd_create, name, flags));
}

inline pid_t threadId()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

inline pid_t processId()
{
    return static_cast<pid_t>(syscall(SYS_getpid));
}

// The simulator's own files (the trace, the mirrored GPIO attribute files)
// are written on a best-effort basis: a failure there must never change what
// the program under test sees, so neither call reports one.

// Writes all of buffer, retrying short writes and interruptions; stops at
// the first other failure.
void writeAll(int fd, const void* buffer, std::size_t length);

// Replaces the content of the file at path with text (no creation).
void replaceContent(const char* path, const char* text, std::size_t length);

}  // namespace sys
}  // namespace boardsim
