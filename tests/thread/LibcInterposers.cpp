// SPDX-License-Identifier: MIT
#include "LibcInterposers.h"

#include <dlfcn.h>
#include <errno.h>
#include <sched.h>

#include <atomic>
#include <cstdlib>
#include <deque>

namespace interpose {

namespace {

// What a Script has set up. Only the owner thread reads or writes it; other
// threads only compare their id with the owner's.
struct ScriptState {
    bool hasClockReading = false;
    timespec clockReading{};
    bool hasWallClock = false;
    timeval wallClock{};
    bool hasScheduling = false;
    int policy = SCHED_OTHER;
    int priority = 0;
    std::deque<SleepOutcome> sleepOutcomes;
    std::vector<timespec> sleepRequests;
    std::vector<SchedulingCall> schedulingCalls;
};

std::atomic<bool> g_scriptActive{false};
std::atomic<pthread_t> g_owner{0};
ScriptState* g_state = nullptr;
std::atomic<int> g_interruptedSleeps{0};

// The calling thread's script, or null if it has none.
ScriptState* ownScript()
{
    if (!g_scriptActive.load(std::memory_order_acquire)) {
        return nullptr;
    }
    return pthread_equal(g_owner.load(std::memory_order_acquire), pthread_self()) ? g_state : nullptr;
}

template <typename Function>
Function nextDefinition(const char* name)
{
    void* const symbol = dlsym(RTLD_NEXT, name);
    if (symbol == nullptr) {
        std::abort();
    }
    return reinterpret_cast<Function>(symbol);
}

}  // namespace

Script::Script()
{
    g_state = new ScriptState();
    g_owner.store(pthread_self(), std::memory_order_release);
    g_scriptActive.store(true, std::memory_order_release);
}

Script::~Script()
{
    g_scriptActive.store(false, std::memory_order_release);
    delete g_state;
    g_state = nullptr;
}

void Script::setClockReading(const timespec& reading)
{
    g_state->hasClockReading = true;
    g_state->clockReading = reading;
}

void Script::setWallClock(const timeval& time)
{
    g_state->hasWallClock = true;
    g_state->wallClock = time;
}

void Script::setScheduling(int policy, int priority)
{
    g_state->hasScheduling = true;
    g_state->policy = policy;
    g_state->priority = priority;
}

void Script::scriptSleeps(const std::vector<SleepOutcome>& outcomes)
{
    g_state->sleepOutcomes.assign(outcomes.begin(), outcomes.end());
}

const std::vector<timespec>& Script::sleepRequests() const
{
    return g_state->sleepRequests;
}

const std::vector<SchedulingCall>& Script::schedulingCalls() const
{
    return g_state->schedulingCalls;
}

int interruptedSleeps()
{
    return g_interruptedSleeps.load();
}

}  // namespace interpose

using interpose::ownScript;

extern "C" int clock_gettime(clockid_t clockId, timespec* reading) noexcept
{
    static const auto real = interpose::nextDefinition<int (*)(clockid_t, timespec*)>("clock_gettime");
    if (interpose::ScriptState* const script = ownScript(); script != nullptr && script->hasClockReading) {
        *reading = script->clockReading;
        return 0;
    }
    return real(clockId, reading);
}

extern "C" int gettimeofday(timeval* time, void* zone) noexcept
{
    static const auto real = interpose::nextDefinition<int (*)(timeval*, void*)>("gettimeofday");
    if (interpose::ScriptState* const script = ownScript(); script != nullptr && script->hasWallClock) {
        *time = script->wallClock;
        return 0;
    }
    return real(time, zone);
}

extern "C" int nanosleep(const timespec* request, timespec* remaining)
{
    static const auto real = interpose::nextDefinition<int (*)(const timespec*, timespec*)>("nanosleep");
    interpose::ScriptState* const script = ownScript();
    if (script != nullptr) {
        script->sleepRequests.push_back(*request);
        if (!script->sleepOutcomes.empty()) {
            const interpose::SleepOutcome outcome = script->sleepOutcomes.front();
            script->sleepOutcomes.pop_front();
            if (remaining != nullptr) {
                *remaining = outcome.remaining;
            }
            if (outcome.result == -1) {
                errno = outcome.error;
            }
            return outcome.result;
        }
    }
    const int result = real(request, remaining);
    if (result == -1 && errno == EINTR) {
        const int error = errno;
        interpose::g_interruptedSleeps.fetch_add(1);
        errno = error;
    }
    return result;
}

extern "C" int pthread_getschedparam(pthread_t handle, int* policy, sched_param* parameters) noexcept
{
    static const auto real = interpose::nextDefinition<int (*)(pthread_t, int*, sched_param*)>("pthread_getschedparam");
    if (interpose::ScriptState* const script = ownScript(); script != nullptr && script->hasScheduling) {
        *policy = script->policy;
        parameters->sched_priority = script->priority;
        return 0;
    }
    return real(handle, policy, parameters);
}

extern "C" int pthread_setschedparam(pthread_t handle, int policy, const sched_param* parameters) noexcept
{
    static const auto real =
        interpose::nextDefinition<int (*)(pthread_t, int, const sched_param*)>("pthread_setschedparam");
    if (interpose::ScriptState* const script = ownScript(); script != nullptr) {
        script->schedulingCalls.push_back({handle, policy, parameters->sched_priority});
        return 0;
    }
    return real(handle, policy, parameters);
}
