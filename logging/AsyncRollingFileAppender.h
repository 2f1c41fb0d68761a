// SPDX-License-Identifier: MIT
#pragma once

// The log file appender that keeps the disk away from the threads that log.
// append() only formats the record and puts it into a bounded cache; a
// commit thread of the appender's own writes the cache to the file once per
// period, rolls the file over and flushes once per commit. When the cache is
// full the oldest record makes room and is counted; the next commit writes
// the count as a warning line in front of the records that survived.
//
// Declared in log4cplus's namespace like the library's own appenders.

#include <log4cplus/fileappender.h>
#include <log4cplus/spi/loggingevent.h>
#include <log4cplus/thread/syncprims.h>
#include <log4cplus/thread/threads.h>
#include <log4cplus/streams.h>
#include <log4cplus/tstring.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <sstream>
#include <thread>

namespace log4cplus {

// Final: the constructor starts the commit thread, which calls run() on an
// object that must already be complete.
class AsyncRollingFileAppender final : public RollingFileAppender, public thread::AbstractThread {
public:
    // Opens fileName for appending (its directory is not created), starts the
    // commit thread and writes the restart banner. The cache bound and the
    // period are made safe first: see boundedCacheEntries and
    // boundedCommitPeriodMs. rolloverSize goes to RollingFileAppender
    // unchanged; that class raises sizes below 200 KiB to 204800, and the
    // commit's rollover test uses the size it keeps.
    //
    // The commit thread holds a reference to the appender while it runs (as
    // log4cplus threads do), so the appender outlives it. An owner that wants
    // the appender destroyed calls stop() before dropping its last reference;
    // the process-wide instance of the tool is never stopped or destroyed.
    AsyncRollingFileAppender(const tstring& fileName, long rolloverSize, int maxCacheEntries, int commitPeriodMs);
    ~AsyncRollingFileAppender() override;

    AsyncRollingFileAppender(const AsyncRollingFileAppender&) = delete;
    AsyncRollingFileAppender& operator=(const AsyncRollingFileAppender&) = delete;

    // Writes the cached records (after the overflow warning, if records were
    // lost) to the file, rolling over after a record that takes the file past
    // the rollover size, and flushes once. Reports "file is not open: " and
    // the name to the error handler, and keeps the cache, when the file
    // stream is in error.
    void commit();

    // The commit thread: a commit every period, measured from the start of
    // each commit; continuous commits for a period of 0. Returns only after
    // stop().
    void run() override;

    // Ends the commit thread, commits what is cached and closes the file,
    // under the commit lock so that a close never cuts into a running
    // commit. Later commits (by a caller or the destructor) report the file
    // as not open and keep their records.
    void close() override;

    // Ends the commit thread after its current commit and waits for it.
    // Cached records stay for the destructor's (or a caller's) final commit.
    // Safe to call more than once and from several threads; called from the
    // commit thread itself it only asks the thread to end.
    void stop();

    // True once close() has run, whoever called it (log4cplus closes every
    // appender when it shuts down at process exit). A closed appender
    // commits nothing more, so exit-time code checks this instead of asking
    // log4cplus, which may already be torn down.
    bool hasClosed() const { return fileClosed.load(std::memory_order_acquire); }

    // Records waiting for the next commit, and records dropped since the
    // last successful commit.
    std::size_t getCachedCount() const;
    unsigned long getLostCount() const;

    // A bound below 1 has no meaning (a negative one would leave the cache,
    // and so memory, unbounded; 0 would leave no room for any record): such
    // values fall back to the default bound of 50 records.
    static int boundedCacheEntries(int requested);
    // A negative period has no meaning and would turn into an enormous one in
    // the period arithmetic: it falls back to the default of 80 ms. Periods
    // are capped at 2147483 ms (about 36 minutes), the longest whose
    // microseconds fit the signed 32-bit count that the deadline arithmetic
    // (and usleep-style sleeping) works with. 0 stays 0: continuous commits.
    static int boundedCommitPeriodMs(int requested);

    static constexpr int MAX_COMMIT_PERIOD_MS = 2147483;

protected:
    // Formats the event with the appender's layout and caches the text;
    // drops (and counts) the oldest record when the cache is full. log4cplus
    // calls it for one event at a time per appender, which guards
    // formatBuffer; only cacheMutex is taken, never the commit lock.
    void append(const spi::InternalLoggingEvent& event) override;

private:
    void writeRestartBanner(const tstring& fileName);
    // Sleeps until the next commit is due or stop() is called; false once a
    // stop has been requested.
    bool waitForNextCommit(int microseconds);

    int maxCacheEntries;
    std::deque<tstring> cache;
    int commitPeriodMs;
    tostringstream formatBuffer;
    unsigned long lostCount;
    // log4cplus 2.0's thread::Mutex is always recursive (a std::recursive_mutex).
    thread::Mutex cacheMutex;   // guards cache and lostCount
    thread::Mutex commitMutex;  // serialises commits, close and so the file; taken before cacheMutex

    // Stopping the commit thread (only owners that destroy the appender do).
    std::mutex stopMutex;
    std::condition_variable stopSignal;
    bool stopRequested;              // guarded by stopMutex
    std::thread::id commitThreadId;  // guarded by stopMutex
    std::once_flag joinOnce;

    std::atomic<bool> fileClosed;  // set at the end of close()
};

}  // namespace log4cplus
