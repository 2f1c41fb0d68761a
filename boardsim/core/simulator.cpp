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
    Trace::putErrno(event, err);
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

Simulator::Opened Simulator::open(const char* path, int flags, mode_t mode)
{
    (void)mode;  // nothing is ever created at a simulated path
    const DevicePath device = m_paths.classify(path);
    if (device.kind == PathKind::kNone) {
        return {OpenOutcome::kPassThrough, -1, 0, std::string()};
    }
    if (device.kind == PathKind::kGpioRedirect || device.kind == PathKind::kLockRedirect) {
        return {OpenOutcome::kRedirect, -1, 0, m_paths.backing(device)};
    }
    BoardLock lock(*m_board);
    int err = 0;
    int fd = -1;
    if (device.kind == PathKind::kSpidev || device.kind == PathKind::kMelody) {
        fd = openDevice(device, flags, err);
        traceOpen(device.kind == PathKind::kSpidev ? "spi_open" : "melody_open", device, flags, fd, err);
    } else {
        fd = openGpio(device, flags, err);
        traceOpen("gpio_open", device, flags, fd, err);
    }
    return {OpenOutcome::kDone, fd, err, std::string()};
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

// Runs serve on the simulated file behind fd under the board lock; nothing
// when fd is not simulated (or, checked, no longer refers to its file).
template <typename Serve>
auto Simulator::onFile(int fd, bool checked, Serve serve) -> decltype(serve(std::declval<OpenFile&>()))
{
    if (m_files.peek(fd) == nullptr) {
        return std::nullopt;
    }
    BoardLock lock(*m_board);
    OpenFile* file = checked ? currentChecked(fd) : current(fd);
    if (file == nullptr) {
        return std::nullopt;
    }
    return serve(*file);
}

template <typename SpidevIo, typename GpioIo>
std::optional<Served<ssize_t>> Simulator::transfer(int fd, int refusedAccess, SpidevIo spidev, GpioIo gpio)
{
    return onFile(fd, true, [&](OpenFile& file) -> std::optional<Served<ssize_t>> {
        if (file.access == refusedAccess) {
            return Served<ssize_t>{-1, EBADF};
        }
        int err = 0;
        switch (file.kind) {
        case FileKind::kSpidev: {
            const ssize_t result = spidev(err);
            return Served<ssize_t>{result, err};
        }
        case FileKind::kMelody:
            return Served<ssize_t>{-1, EINVAL};
        default: {
            const ssize_t result = gpio(file, err);
            return Served<ssize_t>{result, err};
        }
        }
    });
}

std::optional<Served<ssize_t>> Simulator::read(int fd, void* buffer, std::size_t count)
{
    return transfer(
        fd, O_WRONLY, [&](int& err) { return m_bus.read(fd, buffer, count, err); },
        [&](OpenFile& file, int& err) { return readGpio(file, buffer, count, err); });
}

std::optional<Served<ssize_t>> Simulator::write(int fd, const void* buffer, std::size_t count)
{
    return transfer(
        fd, O_RDONLY, [&](int& err) { return m_bus.write(fd, buffer, count, err); },
        [&](OpenFile& file, int& err) { return writeGpio(file, buffer, count, err); });
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

std::optional<Served<off_t>> Simulator::seek(int fd, off_t offset, int whence)
{
    return onFile(fd, true, [&](OpenFile& file) -> std::optional<Served<off_t>> {
        if (file.kind == FileKind::kSpidev || file.kind == FileKind::kMelody) {
            return Served<off_t>{-1, ESPIPE};
        }
        std::int64_t position = -1;
        if (whence == SEEK_SET) {
            position = offset;
        } else if (whence == SEEK_CUR) {
            position = file.offset + offset;
        } else if (whence == SEEK_END) {
            position = kSysfsFileSize + offset;
        }
        if (position < 0) {
            return Served<off_t>{-1, EINVAL};
        }
        file.offset = position;
        return Served<off_t>{static_cast<off_t>(position), 0};
    });
}

std::optional<Served<int>> Simulator::ioctl(int fd, unsigned long request, void* argument)
{
    return onFile(fd, false, [&](OpenFile& file) -> std::optional<Served<int>> {
        bool handled = false;
        int err = 0;
        int result = 0;
        if (file.kind == FileKind::kSpidev) {
            result = m_bus.ioctl(fd, request, argument, err, handled);
        } else if (file.kind == FileKind::kMelody) {
            result = m_melody.ioctl(fd, request, argument, err, handled);
        }
        if (handled) {
            return Served<int>{result, err};
        }
        // Requests the VFS answers for every file go to the real descriptor;
        // anything else is not a request of these devices.
        if (request == FIOCLEX || request == FIONCLEX || request == FIONBIO || request == FIOASYNC) {
            return std::nullopt;
        }
        return Served<int>{-1, ENOTTY};
    });
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

// The real descriptors of a poll set that also holds simulated ones, with
// their places in the caller's set.
class Simulator::RealPollSet {
public:
    RealPollSet(pollfd* fds, nfds_t count, const OpenFiles& files, const sigset_t* mask) : m_fds(fds), m_mask(mask)
    {
        for (nfds_t i = 0; i < count; ++i) {
            if (files.peek(fds[i].fd) == nullptr) {
                m_real.push_back(fds[i]);
                m_index.push_back(i);
            }
        }
    }

    bool empty() const { return m_real.empty(); }

    // ppoll on the real descriptors (no call at all for none and a zero
    // wait); their results go back into the caller's set when any is ready.
    int poll(const timespec* wait)
    {
        int ready = 0;
        const bool zeroWait = wait != nullptr && wait->tv_sec == 0 && wait->tv_nsec == 0;
        if (!m_real.empty() || !zeroWait) {
            timespec copy = wait != nullptr ? *wait : timespec{};
            ready = static_cast<int>(syscall(SYS_ppoll, m_real.empty() ? nullptr : m_real.data(), m_real.size(),
                                             wait != nullptr ? &copy : nullptr, m_mask, _NSIG / 8));
        }
        if (ready > 0) {
            for (std::size_t k = 0; k < m_real.size(); ++k) {
                m_fds[m_index[k]].revents = m_real[k].revents;
            }
        }
        return ready;
    }

private:
    pollfd* m_fds;
    const sigset_t* m_mask;
    std::vector<pollfd> m_real;
    std::vector<nfds_t> m_index;
};

namespace {

bool validTimeout(const timespec* timeout)
{
    return timeout == nullptr || (timeout->tv_sec >= 0 && timeout->tv_nsec >= 0 && timeout->tv_nsec < 1000000000L);
}

}  // namespace

int Simulator::markSimulated(pollfd* fds, nfds_t count, PollWatch& watch) const
{
    int ready = 0;
    for (nfds_t i = 0; i < count; ++i) {
        const OpenFile* file = m_files.peek(fds[i].fd);
        if (file == nullptr) {
            continue;
        }
        if (file->kind == FileKind::kGpioAttribute && file->attribute == GpioAttribute::kValue) {
            watch.line = file->line;
            watch.gone = watch.gone || m_gpio.generation(file->line) != file->generation;
        }
        fds[i].revents = readiness(*file, fds[i].events);
        if (fds[i].revents != 0) {
            ++ready;
        }
    }
    return ready;
}

std::int64_t Simulator::nextWatchedEdge(const pollfd* fds, nfds_t count) const
{
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
    return next;
}

// Another thread, or real descriptors to wait for: the wait is real; the
// simulated files are looked at again after it.
Simulator::PollOutcome Simulator::waitReal(pollfd* fds, nfds_t count, RealPollSet& real, const timespec* timeout)
{
    const int waited = real.poll(timeout);
    BoardLock lock(*m_board);
    if (waited < 0) {
        return {-1, errno, "error"};
    }
    int result = waited;
    for (nfds_t i = 0; i < count; ++i) {
        const OpenFile* file = m_files.peek(fds[i].fd);
        if (file != nullptr) {
            fds[i].revents = readiness(*file, fds[i].events);
            result += fds[i].revents != 0 ? 1 : 0;
        }
    }
    return {result, 0, result > 0 ? "edge" : "timeout"};
}

// Main thread, simulated files only: time moves on to the next scripted edge
// of a watched line, up to the deadline. False when it moved to an edge and
// the files are to be looked at again; true with the poll's outcome
// otherwise.
bool Simulator::waitVirtual(const pollfd* fds, nfds_t count, std::int64_t deadline, const sigset_t* mask,
                            PollOutcome& outcome)
{
    {
        BoardLock lock(*m_board);
        const std::int64_t next = nextWatchedEdge(fds, count);
        if (next >= 0 && (deadline < 0 || next <= deadline)) {
            m_board->advanceTo(next);
            return false;
        }
        if (deadline >= 0) {
            m_board->advanceTo(deadline);
            outcome = {0, 0, "timeout"};
            return true;
        }
    }
    // No timeout and nothing will ever happen: block until a signal, as the
    // real wait would.
    const int waited = static_cast<int>(syscall(SYS_ppoll, nullptr, 0, nullptr, mask, _NSIG / 8));
    const int err = waited < 0 ? errno : 0;
    outcome = {-1, err == 0 ? EINTR : err, "forever"};
    return true;
}

void Simulator::tracePoll(const PollWatch& watch, std::int64_t timeoutNs, const char* outcome)
{
    Trace& trace = m_board->trace();
    if (!trace.enabled() || watch.line < 0) {
        return;
    }
    JsonWriter event = Trace::event(m_board->now(), "gpio_poll");
    event.number("line", watch.line);
    if (timeoutNs >= 0) {
        event.number("timeout_ns", timeoutNs);
    } else {
        event.null("timeout_ns");
    }
    event.string("result", outcome);
    trace.emit(event);
}

std::optional<Served<int>> Simulator::poll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask)
{
    bool any = false;
    for (nfds_t i = 0; i < count && !any; ++i) {
        any = m_files.peek(fds[i].fd) != nullptr;
    }
    if (!any) {
        return std::nullopt;
    }
    if (!validTimeout(timeout)) {
        return Served<int>{-1, EINVAL};
    }
    RealPollSet real(fds, count, m_files, mask);
    const timespec zero{};
    const bool waitIsReal = !isMainThread() || !real.empty();
    const std::int64_t timeoutNs = timeout != nullptr ? toNanoseconds(*timeout) : -1;
    std::int64_t deadline = -1;
    {
        BoardLock lock(*m_board);
        deadline = timeoutNs >= 0 ? m_board->now() + timeoutNs : -1;
    }
    PollWatch watch;
    PollOutcome outcome{0, 0, "timeout"};
    for (;;) {
        int ready = 0;
        {
            BoardLock lock(*m_board);
            ready = markSimulated(fds, count, watch);
        }
        const int realReady = real.poll(&zero);
        if (realReady < 0) {
            return Served<int>{-1, errno};
        }
        ready += realReady;
        if (ready > 0) {
            outcome = {ready, 0, watch.gone ? "gone" : "edge"};
            break;
        }
        if (timeoutNs == 0) {
            break;
        }
        if (waitIsReal) {
            outcome = waitReal(fds, count, real, timeout);
            break;
        }
        if (waitVirtual(fds, count, deadline, mask, outcome)) {
            break;
        }
    }
    BoardLock lock(*m_board);
    tracePoll(watch, timeoutNs, outcome.name);
    return Served<int>{outcome.result, outcome.err};
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
