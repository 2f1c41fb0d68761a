// SPDX-License-Identifier: MIT
// The simulated board as the interposed C library calls reach it: opens of
// device paths, and the calls on the descriptors they return. Every call that
// is not about a simulated device is left to the caller to pass on.
#pragma once

#include "board.h"
#include "device_paths.h"
#include "flash_chip.h"
#include "gpio_sysfs.h"
#include "melody_device.h"
#include "open_files.h"
#include "spi_bus.h"

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace boardsim {

// A call the simulator served: what the call returns, and the errno it sets
// when that is negative. The calls return no Served (std::nullopt) when the
// descriptor is not simulated and the caller makes the real call.
template <typename T>
struct Served {
    T result;
    int err;
};

class Simulator {
public:
    // Attaches to the run block at runPath. nullptr with a reason on failure.
    static std::unique_ptr<Simulator> create(const char* runPath, std::string& error);
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    Board& board() { return *m_board; }

    // Lock-free check used on every descriptor call.
    bool simulated(int fd) const { return m_files.peek(fd) != nullptr; }
    // The simulator's own descriptor (the trace), which the program must not
    // close or replace.
    bool ownDescriptor(int fd) const { return fd >= 0 && fd == m_board->trace().fd(); }
    // The program is about to make fd refer to something else (dup2 onto it).
    void vacate(int fd);

    enum class OpenOutcome { kPassThrough, kRedirect, kDone };
    // kDone: the open was served, fd (or -1 and err) is its result.
    // kRedirect: the caller opens redirect instead of path (the GPIO tree's
    // folders).
    struct Opened {
        OpenOutcome outcome;
        int fd;
        int err;
        std::string redirect;
    };
    Opened open(const char* path, int flags, mode_t mode);
    // The state-folder path behind a GPIO folder path (for opendir).
    bool redirect(const char* path, std::string& target) const;

    // What stat and access of a path look at: the real file (kNone), the
    // state-folder file behind a GPIO path (kBacking, target set), or a
    // simulated device node (kDevice, info filled; kAbsent when a fault
    // removed it).
    enum class StatTarget { kNone, kBacking, kDevice, kAbsent };
    StatTarget statTarget(const char* path, std::string& target, struct stat& info) const;
    // fd now holds something that is not simulated (a real open, a dup).
    void forget(int fd);
    // After a successful dup of oldFd to newFd.
    void duplicated(int oldFd, int newFd);

    // False when fd is not simulated; the caller then does the real call.
    bool close(int fd);
    std::optional<Served<ssize_t>> read(int fd, void* buffer, std::size_t count);
    std::optional<Served<ssize_t>> write(int fd, const void* buffer, std::size_t count);
    std::optional<Served<off_t>> seek(int fd, off_t offset, int whence);
    std::optional<Served<int>> ioctl(int fd, unsigned long request, void* argument);
    // Whether request is one of the simulated devices' own requests (spidev's
    // and the alarm-sound device's).
    static bool deviceRequest(unsigned long request);
    // Serves a poll that involves a simulated descriptor.
    std::optional<Served<int>> poll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask);

    // A relative sleep of ns nanoseconds. True when it was served in virtual
    // time (main thread); false when the caller must sleep for real.
    bool sleep(std::int64_t ns, const char* call);

    void processExit();

private:
    explicit Simulator(std::unique_ptr<Board> board);
    OpenFile* current(int fd);
    OpenFile* currentChecked(int fd);
    template <typename Serve>
    auto onFile(int fd, bool checked, Serve serve) -> decltype(serve(std::declval<OpenFile&>()));
    // read() and write() share the checks; `refusedAccess` is the open mode
    // that forbids the transfer, `spidev` and `gpio` do it on each device.
    template <typename SpidevIo, typename GpioIo>
    std::optional<Served<ssize_t>> transfer(int fd, int refusedAccess, SpidevIo spidev, GpioIo gpio);
    int openDevice(const DevicePath& path, int flags, int& err);
    int openGpio(const DevicePath& path, int flags, int& err);
    int bindNew(int backingFd, FileKind kind, const DevicePath& path, int flags, int& err);
    ssize_t readGpio(OpenFile& file, void* buffer, std::size_t count, int& err);
    ssize_t writeGpio(OpenFile& file, const void* buffer, std::size_t count, int& err);
    short readiness(const OpenFile& file, short events) const;

    // poll(), in steps: the simulated files' readiness, the real wait, the
    // wait in virtual time, and the trace record.
    class RealPollSet;
    // The poll's result and errno, and the outcome the trace names.
    struct PollOutcome {
        int result;
        int err;
        const char* name;
    };
    // The GPIO value file the poll watches, and whether its line went away.
    struct PollWatch {
        int line = -1;
        bool gone = false;
    };
    int markSimulated(pollfd* fds, nfds_t count, PollWatch& watch) const;
    std::int64_t nextWatchedEdge(const pollfd* fds, nfds_t count) const;
    PollOutcome waitReal(pollfd* fds, nfds_t count, RealPollSet& real, const timespec* timeout);
    bool waitVirtual(const pollfd* fds, nfds_t count, std::int64_t deadline, const sigset_t* mask,
                     PollOutcome& outcome);
    void tracePoll(const PollWatch& watch, std::int64_t timeoutNs, const char* outcome);
    void traceOpen(const char* name, const DevicePath& path, int flags, int result, int err);

    std::unique_ptr<Board> m_board;
    DevicePaths m_paths;
    FlashChip m_chip;
    SpiBus m_bus;
    GpioSysfs m_gpio;
    MelodyDevice m_melody;
    OpenFiles m_files;
};

bool isMainThread();

}  // namespace boardsim
