// SPDX-License-Identifier: MIT
#pragma once

// Checks that the end-to-end tests share: what a message looked like on the
// wire, line 48 around the transfers, and how a run ended.

#include "SimulatedBoard.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace boardtest {

// File names beyond ASCII: "café" and U+10FFFD, the last code point, in
// UTF-8, and "café" in Latin-1.
inline const std::string UTF8_NAME = "caf\xc3\xa9\xf4\x8f\xbf\xbd.bin";
inline const std::string LATIN1_NAME = "caf\xe9.bin";

// What kind of flash message an spi_msg is, judged by its first bytes.
enum class MessageKind { Status, Erase, Program, Read, Other };
MessageKind kindOf(const QJsonObject& spiMessage);
std::vector<QJsonObject> messagesOfKind(const RunResult& run, MessageKind kind);

// The records of an spi_msg in one line: per record the bytes sent (hex) or
// "?" for a read, "/len", "/cs" when chip select changes after it, and any
// non-zero speed, delay or word size; records apart by a blank. Write Enable
// then Chip Erase is "06/1/cs c7/1", a status poll "05/1 ?/1".
std::string layout(const QJsonObject& spiMessage);
// The address bytes of page (256 bytes each) after a command byte, in hex.
std::string pageAddress(std::uint8_t command, std::size_t page);

// The index of the SPI message that programs page k in a write: the same on
// every board, as the board's time is virtual; taken from a reference run.
std::int64_t programMessageIndex(std::size_t page);

// Index in run.trace of the first event at or after `from` matching ev and,
// if given, field == value. -1 if none.
int findEvent(const RunResult& run, int from, const char* ev, const char* field = nullptr,
              const std::string& value = "");
// Whether a 1000-microsecond usleep lies between trace indices from and to.
bool releasePauseBetween(const RunResult& run, int from, int to);
// Index of the last write of "1" to line 48's value file.
int lastRelease(const RunResult& run);
// Waits until the running program set line 48 to 0 `holds` times; false
// when it does not get there in time.
bool waitForHolds(const RunningProgram& program, std::size_t holds);

// Every SPI message went out with line 48 an output at 0, and the run ended
// with line 48 at 1 (the DSP released).
void expectDspHeldOffDuringTransfersAndReleased(const RunResult& run);
// The run used neither the SPI bus, the GPIO lines nor the sound device, and
// made no pause.
void expectHardwareUntouched(const RunResult& run);
// A successful run: status 0, the waiting line as the last and only plain
// output line, the 5-second pause after line 48 was released, no
// violations.
void expectSuccessfulRun(const RunResult& run);
// A failed run: status 1, nothing on standard error, no waiting line, no
// 5-second pause, line 48 released.
void expectFailedRun(const RunResult& run);

}  // namespace boardtest
