// SPDX-License-Identifier: MIT
#ifndef MERIVAK_APP_SUPPORT_DEVICELOCK_H
#define MERIVAK_APP_SUPPORT_DEVICELOCK_H

// One program at a time per SPI device. A program that works on the DSP
// flash takes this lock before it touches the SPI device or a GPIO line; a
// second one finds it taken and stops. The lock is an advisory flock() on a
// file in the lock folder, named after the SPI device, so runs on different
// devices never meet. The kernel drops it when its holder dies, whatever
// the way.

#include <string>
#include <sys/types.h>

namespace frontend {

class DeviceLock {
public:
    enum class State {
        kAcquired,     // this process holds the lock until it is destroyed or exits
        kBusy,         // another process holds it: see holderPid()
        kUnavailable,  // no lock could be made here: see reason()
    };

    static const char* const DEFAULT_LOCK_FOLDER;  // "/run/lock"

    // Tries once to lock spiDevice, never waits.
    explicit DeviceLock(const std::string& spiDevice, const std::string& lockFolder = DEFAULT_LOCK_FOLDER);
    ~DeviceLock();

    DeviceLock(const DeviceLock&) = delete;
    DeviceLock& operator=(const DeviceLock&) = delete;

    State state() const { return m_state; }
    // The holder's process id as it wrote it into the lock file; 0 if unknown.
    pid_t holderPid() const { return m_holderPid; }
    // Why no lock could be made, e.g. "open /run/lock/...: Permission denied".
    const std::string& reason() const { return m_reason; }
    const std::string& lockFilePath() const { return m_path; }

    // "merivak-" + spiDevice with every byte outside [A-Za-z0-9.-] written
    // as "_XX" (hex) + ".lock": one device, one name; two devices, two names.
    static std::string lockFileName(const std::string& spiDevice);

private:
    int m_fd = -1;
    State m_state = State::kUnavailable;
    pid_t m_holderPid = 0;
    std::string m_reason;
    std::string m_path;
};

}  // namespace frontend

#endif
