// SPDX-License-Identifier: MIT
#ifndef MERIVAK_HAL_VOSTA_STOPREQUEST_H
#define MERIVAK_HAL_VOSTA_STOPREQUEST_H

// A request to stop the running flash operation, made by a termination
// signal. The flash driver sends no further SPI message once a stop is
// requested and takes the operation's failure path instead.

namespace merivak {

// Records signalNumber as the reason to stop; the first request wins.
// Async-signal-safe: meant to be called from a signal handler.
void requestStop(int signalNumber) noexcept;

// The signal that requested the stop, or 0 while none did.
// Async-signal-safe.
int stopSignal() noexcept;

// "SIGINT", "SIGTERM", "SIGHUP", "SIGQUIT" (the signals that stop an
// operation), else "signal". Async-signal-safe.
const char* signalName(int signalNumber) noexcept;

// Logs, once per process, the ERROR record "<what>: interrupted by signal
// <n> (<name>)" on "spi_logger" for the signal that requested the stop.
// Later calls, and calls while no stop is requested, log nothing.
void logStopOnce(const char* what);

}  // namespace merivak

#endif
