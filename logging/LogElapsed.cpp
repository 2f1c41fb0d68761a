// SPDX-License-Identifier: MIT
#include "logging/Log.h"
#include "logging/LogConfig.h"

#include "thread/Mutex.h"
#include "thread/TimeValue.h"

#include <atomic>
#include <ctime>
#include <ios>

namespace {

// Releases the start-up lock however the configuration ends, so that a
// configuration that throws is run again by the next log statement.
class StartupLockHold {
public:
    explicit StartupLockHold(thread::Mutex& startupLock) : m_startupLock(startupLock) { m_startupLock.lock(); }
    ~StartupLockHold() { m_startupLock.unlock(); }

    StartupLockHold(const StartupLockHold&) = delete;
    StartupLockHold& operator=(const StartupLockHold&) = delete;

private:
    thread::Mutex& m_startupLock;
};

}  // namespace

double logElapsedSeconds()
{
    const double now = thread::TimeValue::getSeconds(CLOCK_MONOTONIC);
    // Fixed by the first call in the process; concurrent first calls wait for
    // the one that initialises it and so share one start time.
    static const double startTime = now;
    // A caller that read the clock just before another thread's first call
    // fixed the start would come out a few microseconds below zero; both
    // calls are the first statements of the process, so both report 0.
    const double elapsed = now > startTime ? now - startTime : 0.0;

    static thread::Mutex startupLock(false);
    // Set with release once the configuration has completed; a thread that
    // sees it set (acquire) also sees the completed configuration.
    static std::atomic<bool> configured(false);

    if (configured.load(std::memory_order_acquire)) {
        return elapsed;
    }
    StartupLockHold hold(startupLock);
    if (configured.load(std::memory_order_acquire)) {
        return elapsed;
    }
    // The console appender writes to standard output, and the first log
    // statement may run during static initialisation, before the standard
    // stream objects are otherwise guaranteed to exist.
    const std::ios_base::Init keepStandardStreams;
    configureLogging();
    configured.store(true, std::memory_order_release);
    return elapsed;
}
