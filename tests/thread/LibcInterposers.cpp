// SPDX-License-Identifier: MIT
#include "LibcInterposers.h"

#include <dlfcn.h>
#include <errno.h>

#include <atomic>

namespace interpose {

namespace {

std::atomic<Script*> g_script{nullptr};
std::atomic<pthread_t> g_owner{0};

// The calling thread's script, or null if it has none.
Script* ownScript()
{
    Script* const script = g_script.load();
    return script != nullptr && pthread_equal(g_owner.load(), pthread_self()) ? script : nullptr;
}

template <typename Function>
Function next(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

Script::Script()
{
    g_owner.store(pthread_self());
    g_script.store(this);
}

Script::~Script()
{
    g_script.store(nullptr);
}

}  // namespace interpose

using interpose::ownScript;

extern "C" int clock_gettime(clockid_t clockId, timespec* reading) noexcept
{
    static const auto real = interpose::next<int (*)(clockid_t, timespec*)>("clock_gettime");
    if (interpose::Script* const script = ownScript(); script != nullptr && script->clockReading) {
        *reading = *script->clockReading;
        return 0;
    }
    return real(clockId, reading);
}

extern "C" int nanosleep(const timespec* request, timespec* remaining)
{
    static const auto real = interpose::next<int (*)(const timespec*, timespec*)>("nanosleep");
    interpose::Script* const script = ownScript();
    if (script == nullptr || script->sleeps.empty()) {
        return real(request, remaining);
    }
    script->sleepRequests.emplace_back(static_cast<long>(request->tv_sec), request->tv_nsec);
    const interpose::SleepOutcome outcome = script->sleeps.front();
    script->sleeps.pop_front();
    *remaining = outcome.remaining;
    errno = outcome.error;
    return outcome.result;
}

extern "C" int pthread_getschedparam(pthread_t handle, int* policy, sched_param* parameters) noexcept
{
    static const auto real = interpose::next<int (*)(pthread_t, int*, sched_param*)>("pthread_getschedparam");
    if (interpose::Script* const script = ownScript(); script != nullptr && script->currentPolicy) {
        *policy = script->currentPolicy->first;
        parameters->sched_priority = script->currentPolicy->second;
        return 0;
    }
    return real(handle, policy, parameters);
}

extern "C" int pthread_setschedparam(pthread_t handle, int policy, const sched_param* parameters) noexcept
{
    static const auto real = interpose::next<int (*)(pthread_t, int, const sched_param*)>("pthread_setschedparam");
    if (interpose::Script* const script = ownScript(); script != nullptr) {
        script->schedulingCalls.emplace_back(handle, policy, parameters->sched_priority);
        return 0;
    }
    return real(handle, policy, parameters);
}
