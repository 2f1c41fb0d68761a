// SPDX-License-Identifier: MIT
#include "thread/Sleep.h"

#include <cerrno>
#include <ctime>

namespace thread {

namespace {
constexpr unsigned kMicrosecondsPerSecond = 1000000;
constexpr long kNanosecondsPerMicrosecond = 1000;
}  // namespace

int sleepMicroseconds(unsigned microseconds)
{
    timespec request{};
    if (microseconds < kMicrosecondsPerSecond) {
        request.tv_sec = 0;
        request.tv_nsec = static_cast<long>(microseconds) * kNanosecondsPerMicrosecond;
    } else {
        request.tv_sec = static_cast<time_t>(microseconds / kMicrosecondsPerSecond);
        request.tv_nsec = static_cast<long>(microseconds % kMicrosecondsPerSecond) * kNanosecondsPerMicrosecond;
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
