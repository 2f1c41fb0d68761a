// SPDX-License-Identifier: MIT
#ifndef MERIVAK_TESTS_E2E_E2ESUPPORT_H
#define MERIVAK_TESTS_E2E_E2ESUPPORT_H

// Checks that many end-to-end tests share: what a message looked like on the
// wire, line 48 around the transfers, and the absence of rule violations.

#include "harness/SimulatedBoard.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace boardtest {

// One record of an spi_msg event, flattened for comparisons.
struct Record {
    std::string tx;  // hex of the bytes sent, "null" when nothing was sent
    bool rx = false;
    std::int64_t len = 0;
    std::int64_t csChange = 0;
    std::int64_t speedHz = 0;
    std::int64_t delayUsecs = 0;
    std::int64_t bitsPerWord = 0;
};

std::vector<Record> records(const QJsonObject& spiMessage);

// What kind of flash message an spi_msg is, judged by its first bytes.
enum class MessageKind { Status, Erase, Program, Read, Other };
MessageKind kindOf(const QJsonObject& spiMessage);
std::vector<QJsonObject> messagesOfKind(const RunResult& run, MessageKind kind);

// Index of an event in run.trace (for order checks), -1 if absent.
int traceIndex(const RunResult& run, const QJsonObject& event);
// Index in run.trace of the first event at or after `from` matching ev and,
// if given, field == value. -1 if none.
int findEvent(const RunResult& run, int from, const char* ev, const char* field = nullptr,
              const std::string& value = "");

// Every SPI message went out with line 48 an output at 0, and the run ended
// with line 48 at 1 (the DSP released).
void expectDspHeldOffDuringTransfersAndReleased(const RunResult& run);
// The run used neither the SPI bus, the GPIO lines nor the sound device.
void expectHardwareUntouched(const RunResult& run);
// A successful run: status 0, the waiting line as the only plain output
// line, the 5-second pause, no violations, line 48 released.
void expectSuccessfulRun(const RunResult& run);
// A failed run: status 1, nothing on standard error, no waiting line, no
// 5-second pause, line 48
// released.
void expectFailedRun(const RunResult& run);
// Whether a 1000-microsecond usleep lies between trace indices from and to.
bool releasePauseBetween(const RunResult& run, int from, int to);
// Index of the last write of "1" to line 48's value file.
int lastRelease(const RunResult& run);

}  // namespace boardtest

#endif
