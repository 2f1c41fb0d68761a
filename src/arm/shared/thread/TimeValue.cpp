// SPDX-License-Identifier: MIT
#include "thread/TimeValue.h"

#include <climits>
#include <cstring>

namespace thread {

namespace {

constexpr int32_t kNanosecondsPerSecond = 1000000000;
constexpr int64_t kMicrosecondsPerSecond = 1000000;

// Holds a value's mutex for one member operation.
class FieldGuard {
public:
    explicit FieldGuard(pthread_mutex_t& mutex) : m_mutex(mutex) { pthread_mutex_lock(&m_mutex); }
    ~FieldGuard() { pthread_mutex_unlock(&m_mutex); }
    FieldGuard(const FieldGuard&) = delete;
    FieldGuard& operator=(const FieldGuard&) = delete;

private:
    pthread_mutex_t& m_mutex;
};

clockid_t acceptedClockId(clockid_t requested)
{
    return requested == CLOCK_REALTIME || requested == CLOCK_MONOTONIC ? requested : CLOCK_MONOTONIC;
}

// clock_gettime's result is not looked at; the reading starts zeroed so a
// refused clock id gives 0 rather than stack garbage.
timespec readClock(clockid_t clockId)
{
    timespec reading{};
    clock_gettime(clockId, &reading);
    return reading;
}

// timeval's microseconds are wider than timespec's nanoseconds on 32-bit
// targets with 64-bit time; a microsecond count always fits.
long nanosecondsFromMicroseconds(long long microseconds)
{
    return static_cast<long>(microseconds * 1000);
}

int32_t truncatedMicroseconds(long nanoseconds)
{
    return static_cast<int32_t>(static_cast<double>(nanoseconds) / 1000.0);
}

}  // namespace

TimeValue::TimeValue(clockid_t clockId, bool now)
    : m_seconds(0), m_nanoseconds(0), m_clockId(CLOCK_MONOTONIC), m_timespec{}
{
    std::memset(&m_lock, 0, sizeof m_lock);
    m_clockId = acceptedClockId(clockId);
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_lock, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (now) {
        setNow();
    }
}

TimeValue::TimeValue(clockid_t clockId, const timespec& time) : TimeValue(clockId, false)
{
    setTime(static_cast<int32_t>(time.tv_sec), static_cast<int32_t>(time.tv_nsec));
}

TimeValue::TimeValue(clockid_t clockId, const timeval& time) : TimeValue(clockId, false)
{
    setTime(static_cast<int32_t>(time.tv_sec), static_cast<int32_t>(nanosecondsFromMicroseconds(time.tv_usec)));
}

TimeValue::TimeValue(clockid_t clockId, int32_t wholeSeconds) : TimeValue(clockId, false)
{
    setTime(wholeSeconds, 0);
}

TimeValue::~TimeValue()
{
    pthread_mutex_destroy(&m_lock);
}

void TimeValue::setTime(int32_t seconds, int32_t nanoseconds)
{
    FieldGuard guard(m_lock);
    m_seconds = seconds;
    m_nanoseconds = nanoseconds;
    m_timespec.tv_sec = seconds;
    m_timespec.tv_nsec = nanoseconds;
}

timespec TimeValue::fields() const
{
    FieldGuard guard(m_lock);
    timespec copy{};
    copy.tv_sec = m_seconds;
    copy.tv_nsec = m_nanoseconds;
    return copy;
}

const timespec* TimeValue::getTimespec() const
{
    FieldGuard guard(m_lock);
    return &m_timespec;
}

void TimeValue::clear()
{
    setTime(0, 0);
}

bool TimeValue::isSet() const
{
    FieldGuard guard(m_lock);
    return m_seconds != 0 || m_nanoseconds != 0;
}

bool TimeValue::isZero() const
{
    return !isSet();
}

// The other value is read under its own lock, taken and released while this
// value's lock is held; copying its fields there (rather than reading through
// the pointer of getTimespec() after its lock is gone) keeps the read guarded.
bool TimeValue::operator<(const TimeValue& other) const
{
    FieldGuard guard(m_lock);
    return compare(fields(), other.fields()) == 1;
}

bool TimeValue::operator>(const TimeValue& other) const
{
    FieldGuard guard(m_lock);
    return compare(fields(), other.fields()) == -1;
}

bool TimeValue::operator==(const TimeValue& other) const
{
    FieldGuard guard(m_lock);
    return compare(fields(), other.fields()) == 0;
}

void TimeValue::setNow()
{
    const timespec now = readClock(m_clockId);
    setTime(static_cast<int32_t>(now.tv_sec), static_cast<int32_t>(now.tv_nsec));
}

void TimeValue::setFromNow(double seconds)
{
    FieldGuard guard(m_lock);
    addTo(readClock(m_clockId), seconds);
}

void TimeValue::add(double seconds)
{
    FieldGuard guard(m_lock);
    addTo(fields(), seconds);
}

// Whole seconds are truncated toward zero; the fraction becomes nanoseconds
// by three multiplications by 1000 in double, truncated. One carry keeps the
// nanoseconds below a second for non-negative amounts; negative amounts are
// left unnormalised. Results beyond the 32-bit seconds range are the
// caller's to avoid.
void TimeValue::addTo(const timespec& base, double seconds)
{
    const int whole = static_cast<int>(seconds);
    int32_t newSeconds = whole + static_cast<int32_t>(base.tv_sec);
    int32_t newNanoseconds =
        static_cast<int32_t>((seconds - whole) * 1000.0 * 1000.0 * 1000.0) + static_cast<int32_t>(base.tv_nsec);
    if (newNanoseconds >= kNanosecondsPerSecond) {
        newSeconds += 1;
        newNanoseconds -= kNanosecondsPerSecond;
    }
    setTime(newSeconds, newNanoseconds);
}

// The difference is taken in whole seconds and truncated microseconds, with
// one borrow. It is clamped to 0 .. INT_MAX: a deadline more than about 35
// minutes away would overflow an int, and an unnormalised value (negative
// nanoseconds) may lie in the past although its seconds are later than now's;
// a caller that sleeps the result must never see a negative number.
int TimeValue::remainingMicroseconds() const
{
    FieldGuard guard(m_lock);
    const timespec now = readClock(m_clockId);
    const timespec point = fields();
    if (compare(point, now) != -1) {
        return 0;
    }
    int64_t seconds = static_cast<int64_t>(point.tv_sec) - static_cast<int64_t>(now.tv_sec);
    int64_t microseconds =
        static_cast<int64_t>(truncatedMicroseconds(point.tv_nsec)) - truncatedMicroseconds(now.tv_nsec);
    if (microseconds < 0) {
        microseconds += kMicrosecondsPerSecond;
        seconds -= 1;
    }
    const int64_t remaining = seconds * kMicrosecondsPerSecond + microseconds;
    if (remaining <= 0) {
        return 0;
    }
    return remaining > INT_MAX ? INT_MAX : static_cast<int>(remaining);
}

double TimeValue::getTime(clockid_t clockId, timespec* reading)
{
    const timespec now = readClock(clockId);
    if (reading != nullptr) {
        *reading = now;
    }
    const double seconds = static_cast<double>(now.tv_sec);
    const double nanoseconds = static_cast<double>(now.tv_nsec);
    return seconds + nanoseconds / 1000.0 / 1000.0 / 1000.0;
}

double TimeValue::getTime(clockid_t clockId, timeval* reading)
{
    timespec now{};
    const double seconds = getTime(clockId, &now);
    if (reading != nullptr) {
        toTimeval(now, *reading);
    }
    return seconds;
}

double TimeValue::getSeconds(clockid_t clockId)
{
    return getTime(clockId);
}

void TimeValue::toTimeval(const timespec& in, timeval& out)
{
    out.tv_sec = in.tv_sec;
    out.tv_usec = truncatedMicroseconds(in.tv_nsec);
}

void TimeValue::toTimespec(const timeval& in, timespec& out)
{
    out.tv_sec = in.tv_sec;
    out.tv_nsec = nanosecondsFromMicroseconds(in.tv_usec);
}

int TimeValue::compare(const timespec& a, const timespec& b)
{
    if (a.tv_sec != b.tv_sec) {
        return a.tv_sec < b.tv_sec ? 1 : -1;
    }
    if (a.tv_nsec != b.tv_nsec) {
        return a.tv_nsec < b.tv_nsec ? 1 : -1;
    }
    return 0;
}

}  // namespace thread
