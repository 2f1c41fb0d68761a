// SPDX-License-Identifier: MIT
#pragma once

// The thread tests' executable defines its own clock_gettime, nanosleep,
// pthread_getschedparam and pthread_setschedparam. The library
// under test, linked statically into it, calls these instead of libc's, so
// a test can hand it chosen clock readings, script what nanosleep reports
// and see every request it makes, including scheduling changes.
//
// A Script applies only to the thread that made it (one at a time); every
// other thread, and every call while no Script exists, goes to libc.

#include <pthread.h>
#include <sys/time.h>
#include <time.h>

#include <deque>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

namespace interpose {

// (seconds, nanoseconds) of a request, a reading or a time value.
using Fields = std::pair<long, long>;

struct SleepOutcome {
    int result;          // what nanosleep returns
    int error;           // errno when result is -1
    timespec remaining;  // written to the remaining-time argument
};

struct Script {
    Script();
    ~Script();
    Script(const Script&) = delete;
    Script& operator=(const Script&) = delete;

    std::optional<timespec> clockReading;              // answered by clock_gettime, any clock
    std::optional<timeval> wallClock;                  // answered by gettimeofday
    std::optional<std::pair<int, int>> currentPolicy;  // (policy, priority) for pthread_getschedparam
    // Taken in turn by nanosleep instead of sleeping; once they are used up
    // it really sleeps, unrecorded.
    std::deque<SleepOutcome> sleeps;
    // What the library asked for; scheduling changes are recorded as
    // (handle, policy, priority) and not carried out.
    std::vector<Fields> sleepRequests;
    std::vector<std::tuple<pthread_t, int, int>> schedulingCalls;
};

}  // namespace interpose
