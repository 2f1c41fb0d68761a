// SPDX-License-Identifier: MIT
#include "thread/Thread.h"

#include "thread/Lock.h"
#include "thread/TimeValue.h"

#include <sched.h>
#include <signal.h>
#include <sys/time.h>

#include <cstring>

namespace thread {

static_assert(Thread::INTERRUPT_SIGNAL == SIGWINCH, "the interrupt signal is SIGWINCH, ignored by default");

namespace {

// Guarded by Thread's class lock.
bool s_interruptHandlerInstalled = false;

// The handlers do nothing: their only purpose is that a delivered interrupt
// signal makes the receiving thread's blocking call fail with EINTR instead
// of being ignored.
void ignoreInterrupt(int) {}
void ignoreInterruptWithInfo(int, siginfo_t*, void*) {}

// Installs the do-nothing handler for the interrupt signal once per process,
// keeping the signal mask and flags of the action in place (so SA_RESTART is
// only set if somebody set it before).
void installInterruptHandlerOnce()
{
    Lock guard(Thread::getClassLock());
    if (s_interruptHandlerInstalled) {
        return;
    }
    s_interruptHandlerInstalled = true;
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    sigaction(Thread::INTERRUPT_SIGNAL, nullptr, &action);
    if ((action.sa_flags & SA_SIGINFO) != 0) {
        action.sa_sigaction = ignoreInterruptWithInfo;
    } else {
        action.sa_handler = ignoreInterrupt;
    }
    sigaction(Thread::INTERRUPT_SIGNAL, &action, nullptr);
}

}  // namespace

Thread::Thread(const char* scope, int priority, bool constructionFlag, std::size_t stackSize)
    : Monitor(constructionFlag), m_priority(priority), m_scope(scope), m_handle(0), m_pendingSleep(0)
{
    std::memset(&m_creationAttributes, 0, sizeof m_creationAttributes);
    pthread_attr_init(&m_creationAttributes);
    pthread_attr_setdetachstate(&m_creationAttributes, PTHREAD_CREATE_JOINABLE);
    if (stackSize != 0) {
        pthread_attr_setstacksize(&m_creationAttributes, stackSize);
    }
    installInterruptHandlerOnce();
}

// The handle map is left alone: whoever set the handle clears it first.
Thread::~Thread()
{
    pthread_attr_destroy(&m_creationAttributes);
}

bool Thread::isRunning()
{
    const pthread_t handle = getHandle();
    return handle != 0 && pthread_kill(handle, 0) == 0;
}

bool Thread::sleep(unsigned microseconds)
{
    const pthread_t handle = getHandle();
    if (handle != 0 && pthread_equal(pthread_self(), handle)) {
        return sleepMicroseconds(microseconds) == 0;
    }
    Lock guard(*this);
    if (m_pendingSleep != 0) {
        return false;
    }
    m_pendingSleep = microseconds;
    return true;
}

void Thread::interrupt()
{
    Lock guard(*this);
    const pthread_t handle = getHandle();
    if (handle != 0 && isRunning() && !pthread_equal(pthread_self(), handle)) {
        pthread_kill(handle, INTERRUPT_SIGNAL);
    }
}

int Thread::setPriority(int priority)
{
    Lock guard(*this);
    const int previous = m_priority;
    m_priority = priority;
    if (isRunning()) {
        return applyPriority(getHandle(), priority);
    }
    return previous;
}

const char* Thread::getScope() const
{
    return m_scope;
}

pthread_t Thread::getHandle()
{
    Lock guard(*this);
    return m_handle;
}

void Thread::setHandle(pthread_t handle)
{
    Lock guard(*this);
    const pthread_t previous = m_handle;
    m_handle = handle;
    if (handle == 0) {
        unregisterThread(previous);
    } else {
        registerThread(this, handle);
    }
}

unsigned Thread::getPendingSleep()
{
    Lock guard(*this);
    return m_pendingSleep;
}

void Thread::setPendingSleep(unsigned microseconds)
{
    Lock guard(*this);
    m_pendingSleep = microseconds;
}

int Thread::applyPriority(pthread_t handle, int priority)
{
    if (handle == 0) {
        handle = pthread_self();
    }
    int currentPolicy = SCHED_OTHER;
    sched_param current{};
    pthread_getschedparam(handle, &currentPolicy, &current);
    const int wantedPolicy = priority > 0 ? SCHED_RR : SCHED_OTHER;
    if (current.sched_priority != priority || currentPolicy != wantedPolicy) {
        sched_param wanted{};
        wanted.sched_priority = priority;
        pthread_setschedparam(handle, wantedPolicy, &wanted);
    }
    return current.sched_priority;
}

bool Thread::yield()
{
    return sched_yield() == 0;
}

void Thread::absoluteTime(timespec& result, int seconds)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    TimeValue::toTimespec(now, result);
    result.tv_sec += seconds;
}

const pthread_attr_t* Thread::getCreationAttributes() const
{
    return &m_creationAttributes;
}

}  // namespace thread
