// SPDX-License-Identifier: MIT
#pragma once

#include <pthread.h>
#include <sys/time.h>
#include <time.h>

#include <cstdint>

namespace thread {

// A point in time on one POSIX clock (CLOCK_MONOTONIC by default, or
// CLOCK_REALTIME), with the arithmetic and comparisons that deadline loops
// need. Every member operation holds the value's own recursive lock.
//
// A value whose seconds and nanoseconds are both 0 counts as not set.
class TimeValue {
public:
    // Clock ids other than CLOCK_REALTIME (0) and CLOCK_MONOTONIC (1) are
    // refused and leave CLOCK_MONOTONIC.
    explicit TimeValue(clockid_t clockId = CLOCK_MONOTONIC, bool now = false);
    TimeValue(clockid_t clockId, const timespec& time);
    TimeValue(clockid_t clockId, const timeval& time);
    TimeValue(clockid_t clockId, int32_t wholeSeconds);
    virtual ~TimeValue();

    // A value owns a mutex, so it is neither copied nor moved.
    TimeValue(const TimeValue&) = delete;
    TimeValue& operator=(const TimeValue&) = delete;

    // The value's seconds and nanoseconds as a timespec that lives inside
    // the value. Reading through the pointer later is not guarded.
    const timespec* getTimespec() const;

    void clear();
    bool isSet() const;
    bool isZero() const;

    // Compare seconds, then nanoseconds; the clock ids take no part. Each
    // holds this value's lock while it takes and releases the other's to
    // read it, so two threads must not compare the same two values in
    // opposite orders at the same time.
    bool operator<(const TimeValue& other) const;
    bool operator>(const TimeValue& other) const;
    bool operator==(const TimeValue& other) const;

    clockid_t getClockId() const { return m_clockId; }

    // time := the clock's current time.
    void setNow();
    // time := the clock's current time + seconds.
    void setFromNow(double seconds);
    // time := time + seconds. Negative amounts are not normalised: the
    // nanoseconds may become negative.
    void add(double seconds);
    // Microseconds from now until this time point on its clock; 0 once it
    // has been reached.
    int remainingMicroseconds() const;

    // Reads a clock as seconds (nanoseconds divided by 1000.0 three times),
    // optionally handing the raw reading out.
    static double getTime(clockid_t clockId, timespec* reading = nullptr);
    // As above; the reading's nanoseconds become truncated microseconds.
    static double getTime(clockid_t clockId, timeval* reading);
    static double getSeconds(clockid_t clockId);
    static void toTimeval(const timespec& in, timeval& out);
    static void toTimespec(const timeval& in, timespec& out);
    // 1 if a is earlier than b, -1 if later, 0 if equal.
    static int compare(const timespec& a, const timespec& b);

private:
    void setTime(int32_t seconds, int32_t nanoseconds);
    void addTo(const timespec& base, double seconds);
    timespec fields() const;

    int32_t m_seconds;
    int32_t m_nanoseconds;
    clockid_t m_clockId;
    mutable pthread_mutex_t m_lock;
    // timespec's fields are wider than the two 32-bit fields on 64-bit
    // targets, so getTimespec() hands out this copy, refreshed under the
    // lock at each call.
    mutable timespec m_timespec;
};

}  // namespace thread
