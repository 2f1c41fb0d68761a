// SPDX-License-Identifier: MIT
#include "logging/AsyncRollingFileAppender.h"

#include "logging/LogSettings.h"
#include "thread/TimeValue.h"

#include <log4cplus/layout.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <ostream>
#include <utility>

namespace log4cplus {

AsyncRollingFileAppender::AsyncRollingFileAppender(const tstring& fileName, long rolloverSize, int cacheBound,
                                                   int periodMs)
    // One backup file, flush after every commit; the directory is not created.
    : RollingFileAppender(fileName, rolloverSize, 1, true), maxCacheEntries(boundedCacheEntries(cacheBound)), cache(),
      commitPeriodMs(boundedCommitPeriodMs(periodMs)), formatBuffer(), lostCount(0), cacheMutex(), commitMutex(),
      stopMutex(), stopSignal(), stopRequested(false), commitThreadId(), joinOnce(), fileClosed(false)
{
    // The banner is written under the commit lock: the commit thread's first
    // commit, which may start at once, waits until the banner is complete.
    thread::MutexGuard commitGuard(commitMutex);
    start();
    writeRestartBanner(fileName);
}

AsyncRollingFileAppender::~AsyncRollingFileAppender()
{
    try {
        stop();
        // A closed appender has already written what it could (see close);
        // committing again would only report the closed file.
        if (!isClosed()) {
            commit();
        }
        destructorImpl();
    } catch (...) {
        static const char kMessage[] = "Error committing cached log messages.\n";
        std::fwrite(kMessage, 1, sizeof kMessage - 1, stderr);
        std::abort();
    }
}

int AsyncRollingFileAppender::boundedCacheEntries(int requested)
{
    return requested < 1 ? logging::kDefaultCacheEntries : requested;
}

int AsyncRollingFileAppender::boundedCommitPeriodMs(int requested)
{
    if (requested < 0) {
        return logging::kDefaultCommitPeriodMs;
    }
    return requested > MAX_COMMIT_PERIOD_MS ? MAX_COMMIT_PERIOD_MS : requested;
}

std::size_t AsyncRollingFileAppender::getCachedCount() const
{
    thread::MutexGuard cacheGuard(cacheMutex);
    return cache.size();
}

unsigned long AsyncRollingFileAppender::getLostCount() const
{
    thread::MutexGuard cacheGuard(cacheMutex);
    return lostCount;
}

void AsyncRollingFileAppender::writeRestartBanner(const tstring& fileName)
{
    out << std::endl
        << LOG4CPLUS_TEXT("*") << std::endl
        << LOG4CPLUS_TEXT("* Process writing to ") << fileName << LOG4CPLUS_TEXT(" was restarted") << std::endl
        << LOG4CPLUS_TEXT("*") << std::endl
        << std::endl;
}

void AsyncRollingFileAppender::append(const spi::InternalLoggingEvent& event)
{
    formatBuffer.str(LOG4CPLUS_TEXT(""));
    layout->formatAndAppend(formatBuffer, event);
    tstring record = formatBuffer.str();

    // A dropped record is released after the lock, to keep the critical
    // section to the bound test and the insertion.
    tstring dropped;
    thread::MutexGuard cacheGuard(cacheMutex);
    if (cache.size() >= static_cast<std::size_t>(maxCacheEntries)) {
        ++lostCount;
        dropped = std::move(cache.front());
        cache.pop_front();
    }
    cache.push_back(std::move(record));
}

void AsyncRollingFileAppender::commit()
{
    thread::MutexGuard commitGuard(commitMutex);
    // A stream in error, or one that is closed: log4cplus 2.0's close()
    // leaves the stream's state good, so the test for an open file is needed
    // as well for the records to survive a close.
    if (!out.good() || !out.is_open()) {
        getErrorHandler()->error(LOG4CPLUS_TEXT("file is not open: ") + filename);
        return;
    }

    std::deque<tstring> batch;
    unsigned long lost = 0;
    {
        thread::MutexGuard cacheGuard(cacheMutex);
        batch.swap(cache);
        lost = lostCount;
        lostCount = 0;
    }

    // The file is written without cacheMutex: logging threads never wait
    // for the disk.
    if (lost != 0) {
        out << LOG4CPLUS_TEXT("--- WARNING: Log messages overflowed the cache!") << LOG4CPLUS_TEXT(" Lost ") << lost
            << LOG4CPLUS_TEXT(" messages") << LOG4CPLUS_TEXT(" before the next message. ---") << std::endl;
    }
    for (const tstring& record : batch) {
        out << record;
        // The record that crosses the size stays whole in the old file. The
        // argument of rollover is about log4cplus's inter-process lock file
        // (not used here), not about a mutex: the commit lock covers it.
        if (static_cast<std::streamoff>(out.tellp()) > maxFileSize) {
            rollover(false);
        }
    }
    if (immediateFlush) {
        out.flush();
    }
}

void AsyncRollingFileAppender::run()
{
    {
        std::lock_guard<std::mutex> stopGuard(stopMutex);
        commitThreadId = std::this_thread::get_id();
    }
    // The period in seconds, from its microseconds as an unsigned 32-bit
    // product; the bounded period keeps the product from wrapping.
    const double periodSeconds =
        static_cast<double>(static_cast<std::uint32_t>(commitPeriodMs) * 1000U) / 1000.0 / 1000.0;
    ::thread::TimeValue deadline(CLOCK_MONOTONIC, false);
    do {
        deadline.setFromNow(periodSeconds);
        commit();
    } while (waitForNextCommit(deadline.remainingMicroseconds()));
}

bool AsyncRollingFileAppender::waitForNextCommit(int microseconds)
{
    // A timed wait on the stop signal rather than a plain sleep, so that
    // stop() does not have to sit out a long period.
    std::unique_lock<std::mutex> stopLock(stopMutex);
    if (microseconds > 0) {
        stopSignal.wait_for(stopLock, std::chrono::microseconds(microseconds), [this] { return stopRequested; });
    }
    return !stopRequested;
}

void AsyncRollingFileAppender::close()
{
    // log4cplus 2.0 closes every appender when it shuts down at process exit
    // and then tears down its own error reporting. A commit thread that went
    // on past that point would find the file closed and report it through
    // that torn-down reporting. The file is never reopened, so periodic
    // commits have nothing left to do after a close: the thread ends here.
    stop();
    thread::MutexGuard commitGuard(commitMutex);
    // What is still cached goes into the file before it closes (records of
    // the last moments of a process, logged after the exit-time commit).
    if (out.good() && out.is_open()) {
        commit();
    }
    RollingFileAppender::close();
    fileClosed.store(true, std::memory_order_release);
}

void AsyncRollingFileAppender::stop()
{
    {
        std::lock_guard<std::mutex> stopGuard(stopMutex);
        stopRequested = true;
        // The commit thread cannot wait for itself (it may end up here when it
        // releases the last reference to the appender after being stopped).
        if (commitThreadId == std::this_thread::get_id()) {
            return;
        }
    }
    stopSignal.notify_all();
    std::call_once(joinOnce, [this] { join(); });
}

}  // namespace log4cplus
