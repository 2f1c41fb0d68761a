// SPDX-License-Identifier: MIT
#include "TerminationSignals.h"

#include "hal/vosta/StopRequest.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace frontend {

namespace {

const int TERMINATION_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// Seconds the main thread gets to notice a stop before the fallback acts.
const unsigned int STOP_GRACE_SECONDS = 1;

const char* const DSP_HOLD_LINE_VALUE = "/sys/class/gpio/gpio48/value";
const char* const STOP_RECORD_CONTEXT = "DSP flash operation stopped";

const char* g_programName = "merivak";
std::atomic<int> g_deferredSignal{0};
std::atomic<bool> g_fallbackEntered{false};

void writeText(const char* text)
{
    const ssize_t written = ::write(STDERR_FILENO, text, std::strlen(text));
    static_cast<void>(written);
}

// Async-signal-safe: write(2) only.
void writeInterruptedLine(int signalNumber)
{
    writeText(g_programName);
    writeText(": operation interrupted by ");
    writeText(merivak::signalName(signalNumber));
    writeText("\n");
}

void onStopSignal(int signalNumber)
{
    if (merivak::stopSignal() == 0) {
        merivak::requestStop(signalNumber);
        ::alarm(STOP_GRACE_SECONDS);
    }
}

void onDeferSignal(int signalNumber)
{
    int none = 0;
    g_deferredSignal.compare_exchange_strong(none, signalNumber);
}

// The main thread has not acted on a stop for a second: it is stuck in a
// system call that restarts after the signal (Qt loops on EINTR, e.g. in
// the open or read of a FIFO that nobody feeds). This handler then does the
// main thread's part itself. Logging and exit() are not async-signal-safe
// in general, but here the interrupted code has sat in one system call for
// a whole second, outside any logging call, so it holds none of the logging
// locks. Should logging or the exit handlers hang anyway, the alarm armed
// first fires again (SA_NODEFER) and ends the process at once.
void onStopFallback(int)
{
    const int signalNumber = merivak::stopSignal();
    if (signalNumber == 0) {
        return;
    }
    if (g_fallbackEntered.exchange(true)) {
        ::_exit(exitStatusForSignal(signalNumber));
    }
    ::alarm(STOP_GRACE_SECONDS);
    const int fd = ::open(DSP_HOLD_LINE_VALUE, O_WRONLY | O_CLOEXEC);
    if (fd >= 0) {
        const ssize_t written = ::write(fd, "1", 1);
        static_cast<void>(written);
        ::close(fd);
    }
    writeInterruptedLine(signalNumber);
    merivak::logStopOnce(STOP_RECORD_CONTEXT);
    std::exit(exitStatusForSignal(signalNumber));
}

void install(int signalNumber, void (*handler)(int), int flags)
{
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    ::sigaction(signalNumber, &action, nullptr);
}

}  // namespace

void installTerminationSignals(SignalMode mode, const char* programName)
{
    g_programName = programName;
    install(SIGPIPE, SIG_IGN, 0);
    for (const int signalNumber : TERMINATION_SIGNALS) {
        if (mode == SignalMode::kStop) {
            // No SA_RESTART: a blocking call (the erase wait's sleep, the
            // open of a FIFO) returns early so the stop is seen at once.
            install(signalNumber, onStopSignal, 0);
        } else {
            install(signalNumber, onDeferSignal, SA_RESTART);
        }
    }
    if (mode == SignalMode::kStop) {
        install(SIGALRM, onStopFallback, SA_NODEFER);
    }
}

int receivedTerminationSignal()
{
    const int stop = merivak::stopSignal();
    return stop != 0 ? stop : g_deferredSignal.load();
}

int exitStatusForSignal(int signalNumber)
{
    return 128 + signalNumber;
}

void exitForTerminationSignal(int signalNumber)
{
    ::alarm(0);
    writeInterruptedLine(signalNumber);
    if (merivak::stopSignal() == 0) {
        merivak::requestStop(signalNumber);
    }
    merivak::logStopOnce(STOP_RECORD_CONTEXT);
    std::exit(exitStatusForSignal(signalNumber));
}

}  // namespace frontend
