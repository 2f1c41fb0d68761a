// SPDX-License-Identifier: MIT
#include "simulator.h"

#include "errno_names.h"
#include "sys_io.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace boardsim {
namespace {

// What a poll on a device file that has no poll of its own reports.
constexpr short kDefaultPollMask = POLLIN | POLLOUT | POLLRDNORM | POLLWRNORM;
// sysfs attribute files report this size.
constexpr off_t kSysfsFileSize = 4096;

std::string executablePath()
{
    char buffer[kPathCapacity];
    const long length = syscall(SYS_readlinkat, AT_FDCWD, "/proc/self/exe", buffer, sizeof buffer - 1);
    return length > 0 ? std::string(buffer, static_cast<std::size_t>(length)) : std::string();
}

void putErrno(JsonWriter& event, int err)
{
    if (err != 0) {
        event.string("errno", errnoName(err));
    } else {
        event.null("errno");
    }
}

std::int64_t toNanoseconds(const timespec& time)
{
    return static_cast<std::int64_t>(time.tv_sec) * 1000000000LL + time.tv_nsec;
}

}  // namespace

bool isMainThread()
{
    return sys::threadId() == sys::processId();
}

std::unique_ptr<Simulator> Simulator::create(const char* runPath, std::string& error)
{
    std::unique_ptr<Board> board = Board::attach(runPath, error);
    if (!board) {
        return nullptr;
    }
    std::unique_ptr<Simulator> simulator(new Simulator(std::move(board)));
    Board& attached = simulator->board();
    BoardLock lock(attached);
    ++attached.run().counters.processes;
    if (attached.trace().enabled()) {
        JsonWriter event = Trace::event(attached.now(), "process_start");
        event.number("pid", sys::processId()).string("exe", executablePath());
        attached.trace().emit(event);
    }
    return simulator;
}

Simulator::Simulator(std::unique_ptr<Board> board)
    : m_board(std::move(board)), m_paths(m_board->config()), m_chip(*m_board), m_bus(*m_board, m_chip),
      m_gpio(*m_board), m_melody(*m_board)
{
    m_board->setEdgeHandler(&m_gpio);
}

Simulator::~Simulator()
{
    m_board->setEdgeHandler(nullptr);
}

void Simulator::processExit()
{
    BoardLock lock(*m_board);
    if (m_board->trace().enabled()) {
        JsonWriter event = Trace::event(m_board->now(), "process_exit");
        event.number("pid", sys::processId()).string("exe", executablePath());
        m_board->trace().emit(event);
    }
}

void Simulator::vacate(int fd)
{
    if (ownDescriptor(fd)) {
        BoardLock lock(*m_board);
        m_board->trace().moveAway();
    }
}

OpenFile* Simulator::current(int fd)
{
    return m_files.peek(fd);
}

OpenFile* Simulator::currentChecked(int fd)
{
    OpenFile* file = m_files.peek(fd);
    if (file == nullptr) {
        return nullptr;
    }
    // A descriptor that the C library closed and reused behind our back no
    // longer refers to the device's file: forget it.
    struct stat info {};
    if (sys::statFile(fd, &info) != 0 || info.st_dev != file->device || info.st_ino != file->inode) {
        m_files.unbind(fd);
        return nullptr;
    }
    return file;
}

void Simulator::forget(int fd)
{
    if (m_files.peek(fd) == nullptr) {
        return;
    }
    BoardLock lock(*m_board);
    m_files.unbind(fd);
}

void Simulator::duplicated(int oldFd, int newFd)
{
    BoardLock lock(*m_board);
    OpenFile* file = m_files.peek(oldFd);
    if (file != nullptr) {
        m_files.bind(newFd, file);
    } else {
        m_files.unbind(newFd);
    }
}

void Simulator::traceOpen(const char* name, const DevicePath& path, int flags, int result, int err)
{
    Trace& trace = m_board->trace();
    if (!trace.enabled()) {
        return;
    }
    JsonWriter event = Trace::event(m_board->now(), name);
    event.string("path", path.relative);
    if (path.kind != PathKind::kMelody) {
        event.number("flags", flags);
    }
    event.number("fd", result).number("result", result);
    putErrno(event, err);
    trace.emit(event);
}

int Simulator::bindNew(int backingFd, FileKind kind, const DevicePath& path, int flags, int& err)
{
    if (backingFd < 0) {
        err = errno;
        return -1;
    }
    if (backingFd >= OpenFiles::kSlots) {
        sys::closeFile(backingFd);
        err = EMFILE;
        return -1;
    }
    struct stat info {};
    sys::statFile(backingFd, &info);
    OpenFile* file = m_files.create();
    file->kind = kind;
    file->access = flags & O_ACCMODE;
    file->device = info.st_dev;
    file->inode = info.st_ino;
    file->line = path.line;
    file->attribute = path.attribute;
    file->path = path.relative;
    if (path.line >= 0) {
        file->generation = m_gpio.generation(path.line);
        file->seenNotify = m_gpio.notifyCount(path.line);
    }
    m_files.bind(backingFd, file);
    return backingFd;
}

int Simulator::openDevice(const DevicePath& path, int flags, int& err)
{
    const bool spidev = path.kind == PathKind::kSpidev;
    const Faults& faults = m_board->config().faults;
    if ((spidev && faults.noSpidev != 0) || (!spidev && faults.noMelody != 0)) {
        err = ENOENT;
        return -1;
    }
    if ((flags & O_DIRECTORY) != 0) {
        err = ENOTDIR;
        return -1;
    }
    if ((flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) {
        err = EEXIST;
        return -1;
    }
    // An anonymous file stands behind the descriptor, so that it is a real
    // descriptor for everything the device model does not handle.
    const int backing =
        sys::anonymousFile(spidev ? "boardsim-spidev" : "boardsim-mldalm", (flags & O_CLOEXEC) != 0 ? MFD_CLOEXEC : 0);
    const int fd = bindNew(backing, spidev ? FileKind::kSpidev : FileKind::kMelody, path, flags, err);
    if (fd >= 0) {
        ++(spidev ? m_board->run().counters.spiOpens : m_board->run().counters.melodyOpens);
    }
    return fd;
}

int Simulator::openGpio(const DevicePath& path, int flags, int& err)
{
    const int access = flags & O_ACCMODE;
    const bool create = (flags & O_CREAT) != 0;
    switch (path.kind) {
    case PathKind::kGpioExport:
    case PathKind::kGpioUnexport:
        // Write-only attributes: no read access, not even for root.
        if (access != O_WRONLY) {
            err = EACCES;
            return -1;
        }
        break;
    case PathKind::kGpioAttribute:
        if (!m_gpio.exported(path.line)) {
            err = ENOENT;
            return -1;
        }
        break;
    default:  // a name that is not an attribute of a line
        err = m_gpio.exported(path.line) && create ? EACCES : ENOENT;
        return -1;
    }
    if ((flags & O_DIRECTORY) != 0) {
        err = ENOTDIR;
        return -1;
    }
    if (create && (flags & O_EXCL) != 0) {
        err = EEXIST;
        return -1;
    }
    const std::string backingPath = m_paths.backing(path);
    const int backing = sys::openFile(backingPath.c_str(), O_RDWR | (flags & O_CLOEXEC));
    const FileKind kind = path.kind == PathKind::kGpioExport     ? FileKind::kGpioExport
                          : path.kind == PathKind::kGpioUnexport ? FileKind::kGpioUnexport
                                                                 : FileKind::kGpioAttribute;
    return bindNew(backing, kind, path, flags, err);
}

bool Simulator::redirect(const char* path, std::string& target) const
{
    const DevicePath device = m_paths.classify(path);
    if (device.kind != PathKind::kGpioRedirect && device.kind != PathKind::kLockRedirect) {
        return false;
    }
    target = m_paths.backing(device);
    return true;
}

Simulator::StatTarget Simulator::statTarget(const char* path, std::string& target, struct stat& info) const
{
    const DevicePath device = m_paths.classify(path);
    switch (device.kind) {
    case PathKind::kNone:
        return StatTarget::kNone;
    case PathKind::kSpidev:
    case PathKind::kMelody: {
        const bool spidev = device.kind == PathKind::kSpidev;
        const Faults& faults = m_board->config().faults;
        if ((spidev && faults.noSpidev != 0) || (!spidev && faults.noMelody != 0)) {
            return StatTarget::kAbsent;
        }
        // Character device nodes as udev makes them: spidev's major 153,
        // the sound device as a misc device (major 10).
        info = {};
        info.st_mode = S_IFCHR | (spidev ? 0600 : 0660);
        info.st_rdev = spidev ? makedev(153, 0) : makedev(10, 130);
        info.st_nlink = 1;
        info.st_blksize = 4096;
        return StatTarget::kDevice;
    }
    default:
        target = m_paths.backing(device);
        return StatTarget::kBacking;
    }
}

Simulator::OpenOutcome Simulator::open(const char* path, int flags, mode_t mode, int& result, int& err,
                                       std::string& redirect)
{
    (void)mode;  // nothing is ever created at a simulated path
    const DevicePath device = m_paths.classify(path);
    if (device.kind == PathKind::kNone) {
        return OpenOutcome::kPassThrough;
    }
    if (device.kind == PathKind::kGpioRedirect || device.kind == PathKind::kLockRedirect) {
        redirect = m_paths.backing(device);
        return OpenOutcome::kRedirect;
    }
    BoardLock lock(*m_board);
    err = 0;
    if (device.kind == PathKind::kSpidev || device.kind == PathKind::kMelody) {
        result = openDevice(device, flags, err);
        traceOpen(device.kind == PathKind::kSpidev ? "spi_open" : "melody_open", device, flags, result, err);
    } else {
        result = openGpio(device, flags, err);
        traceOpen("gpio_open", device, flags, result, err);
    }
    return OpenOutcome::kDone;
}

bool Simulator::close(int fd)
{
    if (m_files.peek(fd) == nullptr) {
        return false;
    }
    BoardLock lock(*m_board);
    OpenFile* file = m_files.unbind(fd);
    if (file == nullptr) {
        // Another descriptor still refers to the file, or it was gone.
        return true;
    }
    Trace& trace = m_board->trace();
    if (trace.enabled() && (file->kind == FileKind::kSpidev || file->kind == FileKind::kMelody)) {
        JsonWriter event = Trace::event(m_board->now(), file->kind == FileKind::kSpidev ? "spi_close" : "melody_close");
        event.number("fd", fd);
        trace.emit(event);
    }
    return true;
}

template <typename SpidevIo, typename GpioIo>
bool Simulator::transfer(int fd, int refusedAccess, ssize_t& result, int& err, SpidevIo spidev, GpioIo gpio)
{
    if (m_files.peek(fd) == nullptr) {
        return false;
    }
    BoardLock lock(*m_board);
    OpenFile* file = currentChecked(fd);
    if (file == nullptr) {
        return false;
    }
    err = 0;
    if (file->access == refusedAccess) {
        err = EBADF;
        result = -1;
        return true;
    }
    switch (file->kind) {
    case FileKind::kSpidev:
        result = spidev();
        break;
    case FileKind::kMelody:
        err = EINVAL;
        result = -1;
        break;
    default:
        result = gpio(*file);
        break;
    }
    return true;
}

bool Simulator::read(int fd, void* buffer, std::size_t count, ssize_t& result, int& err)
{
    return transfer(
        fd, O_WRONLY, result, err, [&] { return m_bus.read(fd, buffer, count, err); },
        [&](OpenFile& file) { return readGpio(file, buffer, count, err); });
}

bool Simulator::write(int fd, const void* buffer, std::size_t count, ssize_t& result, int& err)
{
    return transfer(
        fd, O_RDONLY, result, err, [&] { return m_bus.write(fd, buffer, count, err); },
        [&](OpenFile& file) { return writeGpio(file, buffer, count, err); });
}

ssize_t Simulator::readGpio(OpenFile& file, void* buffer, std::size_t count, int& err)
{
    if (file.kind != FileKind::kGpioAttribute) {
        err = EACCES;  // not reachable: the write-only files are opened O_WRONLY
        return -1;
    }
    if (m_gpio.generation(file.line) != file.generation) {
        err = ENODEV;
        return -1;
    }
    const std::string text = m_gpio.show(file.line, file.attribute);
    std::size_t length = 0;
    if (file.offset < static_cast<std::int64_t>(text.size())) {
        length = std::min(count, text.size() - static_cast<std::size_t>(file.offset));
        std::memcpy(buffer, text.data() + file.offset, length);
        file.offset += static_cast<std::int64_t>(length);
    }
    if (file.attribute == GpioAttribute::kValue) {
        // Reading the value acknowledges the edges seen so far.
        file.seenNotify = m_gpio.notifyCount(file.line);
    }
    Trace& trace = m_board->trace();
    if (trace.enabled()) {
        JsonWriter event = Trace::event(m_board->now(), "gpio_read");
        event.string("path", file.path).string("data", static_cast<const char*>(buffer), length);
        trace.emit(event);
    }
    return static_cast<ssize_t>(length);
}

ssize_t Simulator::writeGpio(OpenFile& file, const void* buffer, std::size_t count, int& err)
{
    const auto* data = static_cast<const char*>(buffer);
    if (count == 0) {
        return 0;
    }
    if (file.kind == FileKind::kGpioAttribute && m_gpio.generation(file.line) != file.generation) {
        err = ENODEV;
    } else if (file.kind == FileKind::kGpioExport) {
        err = m_gpio.writeExport(data, count);
    } else if (file.kind == FileKind::kGpioUnexport) {
        err = m_gpio.writeUnexport(data, count);
    } else {
        err = m_gpio.writeAttribute(file.line, file.attribute, data, count);
    }
    if (err == 0) {
        file.offset += static_cast<std::int64_t>(count);
    }
    Trace& trace = m_board->trace();
    if (trace.enabled()) {
        JsonWriter event = Trace::event(m_board->now(), "gpio_write");
        event.string("path", file.path).string("data", data, count).string("result", err == 0 ? "ok" : errnoName(err));
        trace.emit(event);
    }
    return err == 0 ? static_cast<ssize_t>(count) : -1;
}

bool Simulator::seek(int fd, off_t offset, int whence, off_t& result, int& err)
{
    if (m_files.peek(fd) == nullptr) {
        return false;
    }
    BoardLock lock(*m_board);
    OpenFile* file = currentChecked(fd);
    if (file == nullptr) {
        return false;
    }
    err = 0;
    result = -1;
    if (file->kind == FileKind::kSpidev || file->kind == FileKind::kMelody) {
        err = ESPIPE;
        return true;
    }
    std::int64_t position = -1;
    if (whence == SEEK_SET) {
        position = offset;
    } else if (whence == SEEK_CUR) {
        position = file->offset + offset;
    } else if (whence == SEEK_END) {
        position = kSysfsFileSize + offset;
    }
    if (position < 0) {
        err = EINVAL;
        return true;
    }
    file->offset = position;
    result = static_cast<off_t>(position);
    return true;
}

bool Simulator::ioctl(int fd, unsigned long request, void* argument, int& result, int& err)
{
    if (m_files.peek(fd) == nullptr) {
        return false;
    }
    BoardLock lock(*m_board);
    OpenFile* file = current(fd);
    if (file == nullptr) {
        return false;
    }
    bool handled = false;
    err = 0;
    if (file->kind == FileKind::kSpidev) {
        result = m_bus.ioctl(fd, request, argument, err, handled);
    } else if (file->kind == FileKind::kMelody) {
        result = m_melody.ioctl(fd, request, argument, err, handled);
    }
    if (handled) {
        return true;
    }
    // Requests the VFS answers for every file go to the real descriptor;
    // anything else is not a request of these devices.
    if (request == FIOCLEX || request == FIONCLEX || request == FIONBIO || request == FIOASYNC) {
        return false;
    }
    result = -1;
    err = ENOTTY;
    return true;
}

bool Simulator::deviceRequest(unsigned long request)
{
    return _IOC_TYPE(request) == SPI_IOC_MAGIC || request == MelodyDevice::kTypeRequest ||
           request == MelodyDevice::kStartStopRequest;
}

short Simulator::readiness(const OpenFile& file, short events) const
{
    short mask = kDefaultPollMask;
    if (file.kind == FileKind::kGpioAttribute && file.attribute == GpioAttribute::kValue &&
        (m_gpio.generation(file.line) != file.generation || m_gpio.notifyCount(file.line) != file.seenNotify)) {
        mask |= POLLPRI | POLLERR;
    }
    return static_cast<short>(mask & (events | POLLERR | POLLHUP));
}

bool Simulator::poll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask, int& result, int& err)
{
    bool any = false;
    for (nfds_t i = 0; i < count && !any; ++i) {
        any = m_files.peek(fds[i].fd) != nullptr;
    }
    if (!any) {
        return false;
    }
    err = 0;
    if (timeout != nullptr && (timeout->tv_sec < 0 || timeout->tv_nsec < 0 || timeout->tv_nsec >= 1000000000L)) {
        err = EINVAL;
        result = -1;
        return true;
    }

    // The real descriptors of the set, polled without waiting.
    std::vector<pollfd> real;
    std::vector<nfds_t> realIndex;
    for (nfds_t i = 0; i < count; ++i) {
        if (m_files.peek(fds[i].fd) == nullptr) {
            real.push_back(fds[i]);
            realIndex.push_back(i);
        }
    }
    auto pollReal = [&](const timespec* wait) {
        int ready = 0;
        const bool zeroWait = wait != nullptr && wait->tv_sec == 0 && wait->tv_nsec == 0;
        if (!real.empty() || !zeroWait) {
            timespec copy = wait != nullptr ? *wait : timespec{};
            ready = static_cast<int>(syscall(SYS_ppoll, real.empty() ? nullptr : real.data(), real.size(),
                                             wait != nullptr ? &copy : nullptr, mask, _NSIG / 8));
        }
        if (ready > 0) {
            for (std::size_t k = 0; k < real.size(); ++k) {
                fds[realIndex[k]].revents = real[k].revents;
            }
        }
        return ready;
    };
    const timespec zero{};

    const bool main = isMainThread();
    const std::int64_t timeoutNs = timeout != nullptr ? toNanoseconds(*timeout) : -1;
    const char* outcome = "timeout";
    int watchedLine = -1;
    bool gone = false;

    m_board->lock();
    const std::int64_t deadline = timeoutNs >= 0 ? m_board->now() + timeoutNs : -1;
    for (;;) {
        int ready = 0;
        for (nfds_t i = 0; i < count; ++i) {
            const OpenFile* file = m_files.peek(fds[i].fd);
            if (file == nullptr) {
                continue;
            }
            if (file->kind == FileKind::kGpioAttribute && file->attribute == GpioAttribute::kValue) {
                watchedLine = file->line;
                gone = gone || m_gpio.generation(file->line) != file->generation;
            }
            fds[i].revents = readiness(*file, fds[i].events);
            if (fds[i].revents != 0) {
                ++ready;
            }
        }
        m_board->unlock();
        const int realReady = pollReal(&zero);
        if (realReady < 0) {
            err = errno;
            result = -1;
            return true;
        }
        ready += realReady;
        m_board->lock();
        if (ready > 0) {
            result = ready;
            outcome = gone ? "gone" : "edge";
            break;
        }
        if (timeoutNs == 0) {
            result = 0;
            break;
        }
        if (!main || !real.empty()) {
            // Another thread, or real descriptors to wait for: the wait is
            // real; the simulated files are looked at again after it.
            m_board->unlock();
            const int waited = pollReal(timeout);
            m_board->lock();
            if (waited < 0) {
                err = errno;
                result = -1;
                outcome = "error";
                break;
            }
            result = waited;
            for (nfds_t i = 0; i < count; ++i) {
                const OpenFile* file = m_files.peek(fds[i].fd);
                if (file != nullptr) {
                    fds[i].revents = readiness(*file, fds[i].events);
                    result += fds[i].revents != 0 ? 1 : 0;
                }
            }
            outcome = result > 0 ? "edge" : "timeout";
            break;
        }
        // Main thread, simulated files only: wait in virtual time for the
        // next scripted edge of a watched line, up to the deadline.
        std::int64_t next = -1;
        for (nfds_t i = 0; i < count; ++i) {
            const OpenFile* file = m_files.peek(fds[i].fd);
            if (file != nullptr && file->line >= 0) {
                const std::int64_t edge = m_board->nextEdgeTime(file->line);
                if (edge >= 0 && (next < 0 || edge < next)) {
                    next = edge;
                }
            }
        }
        if (next >= 0 && (deadline < 0 || next <= deadline)) {
            m_board->advanceTo(next);
            continue;
        }
        if (deadline >= 0) {
            m_board->advanceTo(deadline);
            result = 0;
            break;
        }
        // No timeout and nothing will ever happen: block until a signal, as
        // the real wait would.
        outcome = "forever";
        m_board->unlock();
        const int waited = static_cast<int>(syscall(SYS_ppoll, nullptr, 0, nullptr, mask, _NSIG / 8));
        err = waited < 0 ? errno : 0;
        m_board->lock();
        result = -1;
        if (err == 0) {
            err = EINTR;
        }
        break;
    }
    Trace& trace = m_board->trace();
    if (trace.enabled() && watchedLine >= 0) {
        JsonWriter event = Trace::event(m_board->now(), "gpio_poll");
        event.number("line", watchedLine);
        if (timeoutNs >= 0) {
            event.number("timeout_ns", timeoutNs);
        } else {
            event.null("timeout_ns");
        }
        event.string("result", outcome);
        trace.emit(event);
    }
    m_board->unlock();
    return true;
}

bool Simulator::sleep(std::int64_t ns, const char* call)
{
    const bool main = isMainThread();
    BoardLock lock(*m_board);
    Trace& trace = m_board->trace();
    if (trace.enabled()) {
        JsonWriter event = Trace::event(m_board->now(), "sleep");
        event.string("call", call)
            .number("us", ns / 1000)
            .number("ns", ns)
            .boolean("virtual", main)
            .string("thread", main ? "main" : "other");
        trace.emit(event);
    }
    if (main) {
        m_board->advanceTo(m_board->now() + ns);
    }
    return main;
}

}  // namespace boardsim
