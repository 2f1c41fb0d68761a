// SPDX-License-Identifier: MIT
// The 25-series SPI NOR flash behind the spidev node. It sees what a real
// chip sees: chip select going low, bytes clocked in and out, chip select
// going high. A command is decoded per chip-select frame; program, erase and
// the latch commands take effect when chip select goes high.
#pragma once

#include "board.h"

#include <cstdint>

namespace boardsim {

class FlashChip {
public:
    explicit FlashChip(Board& board);

    // Chip select goes low at timeNs.
    void select(std::int64_t timeNs);
    // len bytes clocked while selected: tx is what the controller sends
    // (nullptr: zeros), rx receives what the chip drives (nullptr: dropped).
    // decodable is false when the bus runs in a mode or word size the chip
    // cannot follow; the chip then neither answers nor acts on the frame.
    void shift(const std::uint8_t* tx, std::uint8_t* rx, std::uint32_t len, std::int64_t timeNs, bool decodable);
    // Chip select goes high at timeNs: the frame's command executes.
    void deselect(std::int64_t timeNs);

    bool selected() const;
    // The status register at timeNs (bit 0 busy, bit 1 write-enable latch).
    std::uint8_t status(std::int64_t timeNs);

private:
    void settle(std::int64_t timeNs);
    bool busy(std::int64_t timeNs) const;
    void startCommand(std::uint8_t opcode, std::int64_t timeNs);
    void dataPhase(const std::uint8_t* tx, std::uint8_t* rx, std::uint32_t len, std::int64_t timeNs);
    void readData(std::uint8_t* rx, std::uint32_t len);
    const char* execute(std::uint8_t opcode, std::int64_t timeNs);
    void reportNoLatch(std::uint8_t opcode, std::int64_t timeNs);
    const char* program(std::int64_t timeNs);
    const char* erase(std::uint8_t opcode, std::int64_t timeNs);
    void startBusy(std::int64_t timeNs, const std::int64_t* durations);
    void traceCommand(std::int64_t timeNs, const char* effect);

    Board& m_board;
    ChipState& m_chip;
};

// Name of a command opcode as the trace shows it.
const char* flashCommandName(std::uint8_t opcode);

}  // namespace boardsim
