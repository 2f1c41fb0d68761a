// SPDX-License-Identifier: MIT
// The interposed C library functions. Each one hands calls on simulated
// paths and descriptors to the simulator and passes everything else, with its
// arguments untouched, to the next definition.
#undef _FORTIFY_SOURCE

#include "real_calls.h"
#include "simulator.h"
#include "sys_io.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio_ext.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

using boardsim::Simulator;

namespace boardsim {

void missingRealCall(const char* name)
{
    const std::string message = std::string("boardsim: the C library has no ") + name + "\n";
    sys::writeFile(2, message.data(), message.size());
    _exit(125);
}

namespace {

Simulator* attachSimulator()
{
    std::string error;
    std::unique_ptr<Simulator> simulator = Simulator::create(std::getenv("BOARDSIM_RUN"), error);
    if (!simulator) {
        // Never let the program reach the real devices instead.
        const std::string message = "boardsim: " + error + "\n";
        sys::writeFile(2, message.data(), message.size());
        _exit(125);
    }
    // Kept for the life of the process on purpose: the program may use its
    // devices from atexit handlers and static destructors.
    return simulator.release();
}

Simulator& simulator()
{
    static Simulator* const instance = attachSimulator();
    return *instance;
}

__attribute__((constructor)) void attachAtLoad()
{
    simulator();
}

__attribute__((destructor)) void noteExit()
{
    simulator().processExit();
}

bool needsMode(int flags)
{
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

template <typename Result>
Result failWith(int err, Result value)
{
    errno = err;
    return value;
}

// What the program sees of a call the simulator served.
template <typename Result>
Result returned(const boardsim::Served<Result>& served)
{
    return served.result < 0 ? failWith(served.err, served.result) : served.result;
}

// The path that dirfd + path name, when path is relative to a folder
// descriptor; path itself otherwise.
std::string pathAt(int dirfd, const char* path)
{
    if (path == nullptr || path[0] == '/' || dirfd == AT_FDCWD) {
        return path != nullptr ? std::string(path) : std::string();
    }
    char link[64];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", dirfd);
    char folder[4096];
    const long length = syscall(SYS_readlinkat, AT_FDCWD, link, folder, sizeof folder - 1);
    if (length <= 0) {
        return std::string(path);
    }
    return std::string(folder, static_cast<std::size_t>(length)) + "/" + path;
}

// Serves an open of a simulated path; false when the caller passes it on.
// redirect is set when the caller must open that path instead.
bool openSimulated(int dirfd, const char* path, int flags, mode_t mode, int& result, std::string& redirect)
{
    if (path == nullptr) {
        return false;
    }
    const std::string full = pathAt(dirfd, path);
    Simulator::Opened opened = simulator().open(full.c_str(), flags, mode);
    switch (opened.outcome) {
    case Simulator::OpenOutcome::kDone:
        result = opened.fd < 0 ? failWith(opened.err, opened.fd) : opened.fd;
        return true;
    case Simulator::OpenOutcome::kRedirect:
        redirect = std::move(opened.redirect);
        break;
    case Simulator::OpenOutcome::kPassThrough:
        break;
    }
    return false;
}

int afterRealOpen(int fd)
{
    if (fd >= 0) {
        simulator().forget(fd);
    }
    return fd;
}

// open, open64, openat, openat64 and their fortified forms share this.
template <typename Real>
int openAny(int dirfd, const char* path, int flags, mode_t mode, Real real)
{
    int result = -1;
    std::string redirect;
    if (openSimulated(dirfd, path, flags, mode, result, redirect)) {
        return result;
    }
    if (!redirect.empty()) {
        return afterRealOpen(BOARDSIM_REAL(openat)(AT_FDCWD, redirect.c_str(), flags, mode));
    }
    return afterRealOpen(real());
}

int flagsOfMode(const char* mode)
{
    int flags = 0;
    switch (mode[0]) {
    case 'r':
        flags = O_RDONLY;
        break;
    case 'w':
        flags = O_WRONLY | O_CREAT | O_TRUNC;
        break;
    case 'a':
        flags = O_WRONLY | O_CREAT | O_APPEND;
        break;
    default:
        return -1;
    }
    for (const char* c = mode + 1; *c != '\0' && *c != ','; ++c) {
        if (*c == '+') {
            flags = (flags & ~O_ACCMODE) | O_RDWR;
        } else if (*c == 'e') {
            flags |= O_CLOEXEC;
        } else if (*c == 'x') {
            flags |= O_EXCL;
        }
    }
    return flags;
}

template <typename Real>
FILE* fopenAny(const char* path, const char* mode, Real real)
{
    const int flags = mode != nullptr ? flagsOfMode(mode) : -1;
    if (flags >= 0) {
        int fd = -1;
        std::string redirect;
        if (openSimulated(AT_FDCWD, path, flags, 0666, fd, redirect)) {
            if (fd < 0) {
                return nullptr;
            }
            FILE* stream = fdopen(fd, mode);
            if (stream == nullptr) {
                const int err = errno;
                simulator().close(fd);
                BOARDSIM_REAL(close)(fd);
                errno = err;
            }
            return stream;
        }
        if (!redirect.empty()) {
            FILE* stream = BOARDSIM_REAL(fopen)(redirect.c_str(), mode);
            if (stream != nullptr) {
                simulator().forget(fileno(stream));
            }
            return stream;
        }
    }
    FILE* stream = real();
    if (stream != nullptr) {
        simulator().forget(fileno(stream));
    }
    return stream;
}

// Output that stdio holds for a simulated stream goes to the device here, as
// the stream's own flush would have written it; the buffer is then emptied
// so that the C library does not write it to the file behind the descriptor.
bool deliverPending(FILE* stream)
{
    const int fd = fileno(stream);
    if (fd < 0 || !simulator().simulated(fd)) {
        return true;
    }
    const std::size_t pending = __fpending(stream);
    if (pending == 0) {
        return true;
    }
    const auto served = simulator().write(fd, stream->_IO_write_base, pending);
    stream->_IO_write_ptr = stream->_IO_write_base;
    if (served && served->result < 0) {
        errno = served->err;
        return false;
    }
    return true;
}

bool virtualClock(clockid_t clock)
{
    return clock == CLOCK_REALTIME || clock == CLOCK_MONOTONIC || clock == CLOCK_BOOTTIME || clock == CLOCK_TAI;
}

bool validTime(const timespec* time)
{
    return time->tv_sec >= 0 && time->tv_nsec >= 0 && time->tv_nsec < 1000000000L;
}

std::int64_t nanoseconds(const timespec* time)
{
    return static_cast<std::int64_t>(time->tv_sec) * 1000000000LL + time->tv_nsec;
}

// stat-like calls: the path to look at instead, or a device node's data.
enum class StatAnswer { kPass, kRedirect, kDevice, kAbsent };

StatAnswer statAnswer(int dirfd, const char* path, std::string& target, struct stat& info)
{
    if (path == nullptr || path[0] == '\0') {
        return StatAnswer::kPass;
    }
    const std::string full = pathAt(dirfd, path);
    switch (simulator().statTarget(full.c_str(), target, info)) {
    case Simulator::StatTarget::kBacking:
        return StatAnswer::kRedirect;
    case Simulator::StatTarget::kDevice:
        return StatAnswer::kDevice;
    case Simulator::StatTarget::kAbsent:
        return StatAnswer::kAbsent;
    case Simulator::StatTarget::kNone:
        break;
    }
    return StatAnswer::kPass;
}

template <typename Stat, typename Real>
int statAny(int dirfd, const char* path, Stat* buffer, Real real)
{
    std::string target;
    struct stat info {};
    switch (statAnswer(dirfd, path, target, info)) {
    case StatAnswer::kRedirect:
        return real(target.c_str());
    case StatAnswer::kDevice:
        *buffer = Stat{};
        buffer->st_mode = info.st_mode;
        buffer->st_rdev = info.st_rdev;
        buffer->st_nlink = info.st_nlink;
        buffer->st_blksize = info.st_blksize;
        return 0;
    case StatAnswer::kAbsent:
        return failWith(ENOENT, -1);
    case StatAnswer::kPass:
        break;
    }
    return real(path);
}

int pollAny(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask, bool& handled)
{
    const auto served = simulator().poll(fds, count, timeout, mask);
    handled = served.has_value();
    return served ? returned(*served) : 0;
}

// freopen closes the stream's old descriptor inside the C library, where no
// interposed close sees it, and reopens a real (never simulated) file.
template <typename Real>
FILE* freopenAny(FILE* stream, Real real)
{
    if (stream != nullptr) {
        deliverPending(stream);
        simulator().close(fileno(stream));
    }
    FILE* result = real();
    if (result != nullptr) {
        simulator().forget(fileno(result));
    }
    return result;
}

// access and faccessat share this; real(dirfd, path) makes the real call.
template <typename Real>
int accessAny(int dirfd, const char* path, int mode, Real real)
{
    std::string target;
    struct stat info {};
    switch (statAnswer(dirfd, path, target, info)) {
    case StatAnswer::kRedirect:
        return real(AT_FDCWD, target.c_str());
    case StatAnswer::kDevice:
        return (mode & X_OK) != 0 ? failWith(EACCES, -1) : 0;
    case StatAnswer::kAbsent:
        return failWith(ENOENT, -1);
    case StatAnswer::kPass:
        break;
    }
    return real(dirfd, path);
}

}  // namespace
}  // namespace boardsim

using namespace boardsim;

// The mode argument of open, open64, openat and openat64, which is there
// only when the flags create a file. va_start must run in the variadic
// function itself, hence a macro.
#define BOARDSIM_READ_MODE(flags, mode)                                                                                \
    do {                                                                                                               \
        if (needsMode(flags)) {                                                                                        \
            va_list arguments;                                                                                         \
            va_start(arguments, flags);                                                                                \
            (mode) = va_arg(arguments, mode_t);                                                                        \
            va_end(arguments);                                                                                         \
        }                                                                                                              \
    } while (false)

// The interposed functions are the library's only exported symbols.
#pragma GCC visibility push(default)
extern "C" {

int open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    BOARDSIM_READ_MODE(flags, mode);
    return openAny(AT_FDCWD, path, flags, mode, [&] { return BOARDSIM_REAL(open)(path, flags, mode); });
}

int open64(const char* path, int flags, ...)
{
    mode_t mode = 0;
    BOARDSIM_READ_MODE(flags, mode);
    return openAny(AT_FDCWD, path, flags, mode, [&] { return BOARDSIM_REAL(open64)(path, flags, mode); });
}

int openat(int dirfd, const char* path, int flags, ...)
{
    mode_t mode = 0;
    BOARDSIM_READ_MODE(flags, mode);
    return openAny(dirfd, path, flags, mode, [&] { return BOARDSIM_REAL(openat)(dirfd, path, flags, mode); });
}

int openat64(int dirfd, const char* path, int flags, ...)
{
    mode_t mode = 0;
    BOARDSIM_READ_MODE(flags, mode);
    return openAny(dirfd, path, flags, mode, [&] { return BOARDSIM_REAL(openat64)(dirfd, path, flags, mode); });
}

int __open_2(const char* path, int flags);
int __open_2(const char* path, int flags)
{
    return openAny(AT_FDCWD, path, flags, 0, [&] { return BOARDSIM_REAL(__open_2)(path, flags); });
}

int __open64_2(const char* path, int flags);
int __open64_2(const char* path, int flags)
{
    return openAny(AT_FDCWD, path, flags, 0, [&] { return BOARDSIM_REAL(__open64_2)(path, flags); });
}

int __openat_2(int dirfd, const char* path, int flags);
int __openat_2(int dirfd, const char* path, int flags)
{
    return openAny(dirfd, path, flags, 0, [&] { return BOARDSIM_REAL(__openat_2)(dirfd, path, flags); });
}

int __openat64_2(int dirfd, const char* path, int flags);
int __openat64_2(int dirfd, const char* path, int flags)
{
    return openAny(dirfd, path, flags, 0, [&] { return BOARDSIM_REAL(__openat64_2)(dirfd, path, flags); });
}

int creat(const char* path, mode_t mode)
{
    const int flags = O_CREAT | O_WRONLY | O_TRUNC;
    return openAny(AT_FDCWD, path, flags, mode, [&] { return BOARDSIM_REAL(creat)(path, mode); });
}

int creat64(const char* path, mode_t mode)
{
    const int flags = O_CREAT | O_WRONLY | O_TRUNC;
    return openAny(AT_FDCWD, path, flags, mode, [&] { return BOARDSIM_REAL(creat64)(path, mode); });
}

FILE* fopen(const char* path, const char* mode)
{
    return fopenAny(path, mode, [&] { return BOARDSIM_REAL(fopen)(path, mode); });
}

FILE* fopen64(const char* path, const char* mode)
{
    return fopenAny(path, mode, [&] { return BOARDSIM_REAL(fopen64)(path, mode); });
}

FILE* freopen(const char* path, const char* mode, FILE* stream)
{
    return freopenAny(stream, [&] { return BOARDSIM_REAL(freopen)(path, mode, stream); });
}

FILE* freopen64(const char* path, const char* mode, FILE* stream)
{
    return freopenAny(stream, [&] { return BOARDSIM_REAL(freopen64)(path, mode, stream); });
}

int fflush(FILE* stream)
{
    if (stream != nullptr && !deliverPending(stream)) {
        return EOF;
    }
    return BOARDSIM_REAL(fflush)(stream);
}

int fclose(FILE* stream)
{
    if (stream == nullptr) {
        return BOARDSIM_REAL(fclose)(stream);
    }
    const bool delivered = deliverPending(stream);
    const int err = errno;
    // The C library closes the descriptor inside fclose, out of our sight.
    simulator().close(fileno(stream));
    const int result = BOARDSIM_REAL(fclose)(stream);
    if (!delivered) {
        errno = err;
        return EOF;
    }
    return result;
}

DIR* opendir(const char* path)
{
    std::string target;
    // A null path is refused inside the classification and passed on.
    if (simulator().redirect(path, target)) {
        return BOARDSIM_REAL(opendir)(target.c_str());
    }
    return BOARDSIM_REAL(opendir)(path);
}

int stat(const char* path, struct stat* buffer) noexcept
{
    return statAny(AT_FDCWD, path, buffer, [&](const char* name) { return BOARDSIM_REAL(stat)(name, buffer); });
}

int stat64(const char* path, struct stat64* buffer) noexcept
{
    return statAny(AT_FDCWD, path, buffer, [&](const char* name) { return BOARDSIM_REAL(stat64)(name, buffer); });
}

int lstat(const char* path, struct stat* buffer) noexcept
{
    return statAny(AT_FDCWD, path, buffer, [&](const char* name) { return BOARDSIM_REAL(lstat)(name, buffer); });
}

int lstat64(const char* path, struct stat64* buffer) noexcept
{
    return statAny(AT_FDCWD, path, buffer, [&](const char* name) { return BOARDSIM_REAL(lstat64)(name, buffer); });
}

int fstatat(int dirfd, const char* path, struct stat* buffer, int flags) noexcept
{
    return statAny(dirfd, path, buffer, [&](const char* name) {
        return BOARDSIM_REAL(fstatat)(name == path ? dirfd : AT_FDCWD, name, buffer, flags);
    });
}

int fstatat64(int dirfd, const char* path, struct stat64* buffer, int flags) noexcept
{
    return statAny(dirfd, path, buffer, [&](const char* name) {
        return BOARDSIM_REAL(fstatat64)(name == path ? dirfd : AT_FDCWD, name, buffer, flags);
    });
}

int statx(int dirfd, const char* path, int flags, unsigned int mask, struct statx* buffer) noexcept
{
    std::string target;
    struct stat info {};
    switch (statAnswer(dirfd, path, target, info)) {
    case StatAnswer::kRedirect:
        return BOARDSIM_REAL(statx)(AT_FDCWD, target.c_str(), flags, mask, buffer);
    case StatAnswer::kDevice:
        *buffer = {};
        buffer->stx_mask = STATX_TYPE | STATX_MODE | STATX_NLINK;
        buffer->stx_mode = static_cast<std::uint16_t>(info.st_mode);
        buffer->stx_nlink = 1;
        buffer->stx_blksize = 4096;
        buffer->stx_rdev_major = major(info.st_rdev);
        buffer->stx_rdev_minor = minor(info.st_rdev);
        return 0;
    case StatAnswer::kAbsent:
        return failWith(ENOENT, -1);
    case StatAnswer::kPass:
        break;
    }
    return BOARDSIM_REAL(statx)(dirfd, path, flags, mask, buffer);
}

int access(const char* path, int mode) noexcept
{
    return accessAny(AT_FDCWD, path, mode, [&](int, const char* name) { return BOARDSIM_REAL(access)(name, mode); });
}

int faccessat(int dirfd, const char* path, int mode, int flags) noexcept
{
    return accessAny(dirfd, path, mode,
                     [&](int folder, const char* name) { return BOARDSIM_REAL(faccessat)(folder, name, mode, flags); });
}

int close(int fd)
{
    if (simulator().ownDescriptor(fd)) {
        return failWith(EBADF, -1);
    }
    simulator().close(fd);
    return BOARDSIM_REAL(close)(fd);
}

int close_range(unsigned int first, unsigned int last, int flags) noexcept
{
    Simulator& board = simulator();
    if ((static_cast<unsigned int>(flags) & CLOSE_RANGE_CLOEXEC) == 0) {
        for (unsigned int fd = first; fd <= last && fd < static_cast<unsigned int>(OpenFiles::kSlots); ++fd) {
            board.close(static_cast<int>(fd));
        }
    }
    const int own = board.board().trace().fd();
    if (own >= 0 && static_cast<unsigned int>(own) >= first && static_cast<unsigned int>(own) <= last) {
        // Close around the simulator's own descriptor.
        int result = 0;
        if (static_cast<unsigned int>(own) > first) {
            result = BOARDSIM_REAL(close_range)(first, static_cast<unsigned int>(own) - 1, flags);
        }
        if (result == 0 && static_cast<unsigned int>(own) < last) {
            result = BOARDSIM_REAL(close_range)(static_cast<unsigned int>(own) + 1, last, flags);
        }
        return result;
    }
    return BOARDSIM_REAL(close_range)(first, last, flags);
}

void closefrom(int lowest) noexcept
{
    close_range(static_cast<unsigned int>(lowest < 0 ? 0 : lowest), ~0U, 0);
}

int dup(int fd) noexcept
{
    const int result = BOARDSIM_REAL(dup)(fd);
    if (result >= 0) {
        simulator().duplicated(fd, result);
    }
    return result;
}

int dup2(int fd, int target) noexcept
{
    if (fd != target) {
        simulator().vacate(target);
    }
    const int result = BOARDSIM_REAL(dup2)(fd, target);
    if (result >= 0 && fd != target) {
        simulator().duplicated(fd, result);
    }
    return result;
}

int dup3(int fd, int target, int flags) noexcept
{
    simulator().vacate(target);
    const int result = BOARDSIM_REAL(dup3)(fd, target, flags);
    if (result >= 0) {
        simulator().duplicated(fd, result);
    }
    return result;
}

ssize_t read(int fd, void* buffer, size_t count)
{
    const auto served = simulator().simulated(fd) ? simulator().read(fd, buffer, count) : std::nullopt;
    return served ? returned(*served) : BOARDSIM_REAL(read)(fd, buffer, count);
}

ssize_t __read_chk(int fd, void* buffer, size_t count, size_t size);
ssize_t __read_chk(int fd, void* buffer, size_t count, size_t size)
{
    if (count > size) {
        BOARDSIM_REAL(__read_chk)(fd, buffer, count, size);  // reports the overflow and aborts
    }
    return read(fd, buffer, count);
}

ssize_t write(int fd, const void* buffer, size_t count)
{
    const auto served = simulator().simulated(fd) ? simulator().write(fd, buffer, count) : std::nullopt;
    return served ? returned(*served) : BOARDSIM_REAL(write)(fd, buffer, count);
}

off_t lseek(int fd, off_t offset, int whence) noexcept
{
    const auto served = simulator().simulated(fd) ? simulator().seek(fd, offset, whence) : std::nullopt;
    return served ? returned(*served) : BOARDSIM_REAL(lseek)(fd, offset, whence);
}

off64_t lseek64(int fd, off64_t offset, int whence) noexcept
{
    const auto served =
        simulator().simulated(fd) ? simulator().seek(fd, static_cast<off_t>(offset), whence) : std::nullopt;
    return served ? returned(*served) : BOARDSIM_REAL(lseek64)(fd, offset, whence);
}

int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    const auto served = simulator().simulated(fd) ? simulator().ioctl(fd, request, argument) : std::nullopt;
    if (served) {
        return returned(*served);
    }
    // The kernel answers EBADF for any ioctl on a descriptor that is not
    // open. Emulators of other architectures do not always (qemu-user says
    // ENOSYS), so the devices' own requests on such a descriptor are answered
    // here, the way the board's kernel would; nothing else is touched.
    if (Simulator::deviceRequest(request) && !boardsim::sys::descriptorOpen(fd)) {
        return failWith(EBADF, -1);
    }
    return BOARDSIM_REAL(ioctl)(fd, request, argument);
}

int poll(pollfd* fds, nfds_t count, int timeoutMs)
{
    timespec timeout{timeoutMs / 1000, static_cast<long>(timeoutMs % 1000) * 1000000L};
    bool handled = false;
    const int result = pollAny(fds, count, timeoutMs >= 0 ? &timeout : nullptr, nullptr, handled);
    return handled ? result : BOARDSIM_REAL(poll)(fds, count, timeoutMs);
}

int __poll_chk(pollfd* fds, nfds_t count, int timeoutMs, size_t size);
int __poll_chk(pollfd* fds, nfds_t count, int timeoutMs, size_t size)
{
    if (size / sizeof(pollfd) < count) {
        return BOARDSIM_REAL(__poll_chk)(fds, count, timeoutMs, size);  // reports the overflow and aborts
    }
    return poll(fds, count, timeoutMs);
}

int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask)
{
    bool handled = false;
    const int result = pollAny(fds, count, timeout, mask, handled);
    return handled ? result : BOARDSIM_REAL(ppoll)(fds, count, timeout, mask);
}

int __ppoll_chk(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask, size_t size);
int __ppoll_chk(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask, size_t size)
{
    if (size / sizeof(pollfd) < count) {
        return BOARDSIM_REAL(__ppoll_chk)(fds, count, timeout, mask, size);
    }
    return ppoll(fds, count, timeout, mask);
}

unsigned int sleep(unsigned int seconds)
{
    if (simulator().sleep(static_cast<std::int64_t>(seconds) * 1000000000LL, "sleep")) {
        return 0;
    }
    return BOARDSIM_REAL(sleep)(seconds);
}

int usleep(useconds_t microseconds)
{
    if (simulator().sleep(static_cast<std::int64_t>(microseconds) * 1000LL, "usleep")) {
        return 0;
    }
    return BOARDSIM_REAL(usleep)(microseconds);
}

int nanosleep(const timespec* request, timespec* remaining)
{
    if (request == nullptr) {
        return failWith(EFAULT, -1);
    }
    if (!validTime(request)) {
        return failWith(EINVAL, -1);
    }
    if (simulator().sleep(nanoseconds(request), "nanosleep")) {
        return 0;
    }
    return BOARDSIM_REAL(nanosleep)(request, remaining);
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* request, timespec* remaining)
{
    // Absolute deadlines belong to the real clocks: those sleeps stay real.
    if ((flags & TIMER_ABSTIME) == 0 && virtualClock(clock) && request != nullptr) {
        if (!validTime(request)) {
            return EINVAL;
        }
        if (simulator().sleep(nanoseconds(request), "clock_nanosleep")) {
            return 0;
        }
    }
    return BOARDSIM_REAL(clock_nanosleep)(clock, flags, request, remaining);
}

}  // extern "C"
#pragma GCC visibility pop
