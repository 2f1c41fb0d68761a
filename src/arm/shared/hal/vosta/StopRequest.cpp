// SPDX-License-Identifier: MIT
#include "hal/vosta/StopRequest.h"

#include "logging/Log.h"

#include <signal.h>

#include <atomic>

namespace merivak {

namespace {

// Lock-free, so a signal handler may store into them.
std::atomic<int> g_stopSignal{0};
std::atomic<bool> g_stopLogged{false};
static_assert(std::atomic<int>::is_always_lock_free, "stop signal must be settable from a handler");
static_assert(std::atomic<bool>::is_always_lock_free, "stop record flag must be lock-free");

}  // namespace

void requestStop(int signalNumber) noexcept
{
    int none = 0;
    g_stopSignal.compare_exchange_strong(none, signalNumber);
}

int stopSignal() noexcept
{
    return g_stopSignal.load();
}

const char* signalName(int signalNumber) noexcept
{
    switch (signalNumber) {
    case SIGINT:
        return "SIGINT";
    case SIGTERM:
        return "SIGTERM";
    case SIGHUP:
        return "SIGHUP";
    case SIGQUIT:
        return "SIGQUIT";
    default:
        return "signal";
    }
}

void logStopOnce(const char* what)
{
    const int signalNumber = stopSignal();
    if (signalNumber == 0 || g_stopLogged.exchange(true)) {
        return;
    }
    MERIVAK_LOG_ERROR("spi_logger",
                      what << ": interrupted by signal " << signalNumber << " (" << signalName(signalNumber) << ")");
}

}  // namespace merivak
