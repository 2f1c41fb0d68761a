// SPDX-License-Identifier: MIT
#ifndef MERIVAK_TESTS_THREAD_LIBCINTERPOSERS_H
#define MERIVAK_TESTS_THREAD_LIBCINTERPOSERS_H

// The thread tests' executable defines its own clock_gettime, gettimeofday,
// nanosleep, pthread_getschedparam and pthread_setschedparam. The library
// under test, linked statically into it, calls these instead of libc's, so
// a test can hand it chosen clock readings, script what nanosleep reports,
// see every request it makes and see whether it changes scheduling.
//
// A Script applies only to the thread that made it; every other thread, and
// every call while no Script exists, goes straight to libc. Only the owner
// thread touches a Script's recordings, so they need no lock.

#include <pthread.h>
#include <sys/time.h>
#include <time.h>

#include <vector>

namespace interpose {

struct SleepOutcome {
    int result;          // what nanosleep returns
    int error;           // errno when result is -1
    timespec remaining;  // written to the remaining-time argument
};

struct SchedulingCall {
    pthread_t handle;
    int policy;
    int priority;
};

class Script {
public:
    Script();
    ~Script();
    Script(const Script&) = delete;
    Script& operator=(const Script&) = delete;

    // clock_gettime answers this reading for every clock id.
    void setClockReading(const timespec& reading);
    // gettimeofday answers this time.
    void setWallClock(const timeval& time);
    // pthread_getschedparam answers this policy and priority.
    void setScheduling(int policy, int priority);
    // Each nanosleep call takes the next outcome instead of sleeping; once
    // they are used up, calls go to libc and really sleep.
    void scriptSleeps(const std::vector<SleepOutcome>& outcomes);

    // Requests handed to nanosleep, in order.
    const std::vector<timespec>& sleepRequests() const;
    // pthread_setschedparam calls; they are recorded, not carried out.
    const std::vector<SchedulingCall>& schedulingCalls() const;
};

// Real nanosleep calls, from any thread, that ended with EINTR.
int interruptedSleeps();

}  // namespace interpose

#endif
