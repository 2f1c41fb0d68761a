// SPDX-License-Identifier: MIT
#include "thread/Sleep.h"

#include <cerrno>
#include <ctime>

namespace thread {

namespace {
constexpr unsigned MICROSECONDS_PER_SECOND = 1000000;
constexpr long NANOSECONDS_PER_MICROSECOND = 1000;
}  // namespace

int sleepMicroseconds(unsigned microseconds)
{
    timespec request{};
    if (microseconds < MICROSECONDS_PER_SECOND) {
        request.tv_sec = 0;
        request.tv_nsec = static_cast<long>(microseconds) * NANOSECONDS_PER_MICROSECOND;
    } else {
        request.tv_sec = static_cast<time_t>(microseconds / MICROSECONDS_PER_SECOND);
        request.tv_nsec = static_cast<long>(microseconds % MICROSECONDS_PER_SECOND) * NANOSECONDS_PER_MICROSECOND;
    }
    timespec remaining{};
    int result = nanosleep(&request, &remaining);
    while (result == -1 && errno == EINTR) {
        request = remaining;
        result = nanosleep(&request, &remaining);
    }
    return result;
}

}  // namespace thread
