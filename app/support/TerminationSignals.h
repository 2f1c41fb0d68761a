// SPDX-License-Identifier: MIT
#ifndef MERIVAK_APP_SUPPORT_TERMINATIONSIGNALS_H
#define MERIVAK_APP_SUPPORT_TERMINATIONSIGNALS_H

// What a program that works on the DSP flash does with SIGINT, SIGTERM,
// SIGHUP and SIGQUIT: the flash and line 48 must never be left half done
// by the default action (death on the spot). SIGPIPE is ignored in every
// mode, so a closed standard output cannot kill a run that succeeded.
//
// Everything happens on the main thread; the log commit thread keeps all
// signals blocked.

namespace frontend {

enum class SignalMode {
    // The flash driver stops at its next SPI message and fails the running
    // operation (line 48 back at 1); the program then calls
    // exitForTerminationSignal(). If the main thread does not get there
    // within a second (stuck in a system call that restarts), a SIGALRM
    // fallback releases line 48 itself, reports and exits 128 + signal.
    kStop,
    // Only records the signal; system calls restart. The program finishes
    // or undoes what it is doing, then calls exitForTerminationSignal().
    kDefer,
};

// Installs the handlers; call once, early in main. programName starts the
// line on standard error ("<programName>: operation interrupted by SIGTERM").
void installTerminationSignals(SignalMode mode, const char* programName);

// The first termination signal received, or 0 while none was.
int receivedTerminationSignal();

// 128 + signalNumber, the exit status of a run ended by that signal.
int exitStatusForSignal(int signalNumber);

// Cancels the fallback, writes the line on standard error, logs the ERROR
// record naming the signal (unless the flash driver already did) and exits
// with 128 + signalNumber; exit handlers (the final log commit) run.
[[noreturn]] void exitForTerminationSignal(int signalNumber);

}  // namespace frontend

#endif
