// SPDX-License-Identifier: MIT
// The spidev character device and its controller: the set-up requests with
// the driver's validation and read-back, SPI_IOC_MESSAGE with the driver's
// checks and chip-select handling, read and write as one-record messages.
// Each message costs board time; the flash chip sees chip select and bytes.
#pragma once

#include "board.h"
#include "flash_chip.h"

#include <linux/spi/spidev.h>

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace boardsim {

class SpiBus {
public:
    SpiBus(Board& board, FlashChip& chip);

    // ioctl on an open spidev node. Returns the driver's result; on -1, err
    // holds the errno. Requests of another type than spidev's are not
    // handled here (the caller passes them on): handled is set false.
    int ioctl(int fd, unsigned long request, void* argument, int& err, bool& handled);

    ssize_t read(int fd, void* buffer, std::size_t count, int& err);
    ssize_t write(int fd, const void* buffer, std::size_t count, int& err);

    // Controller limits.
    static constexpr std::uint32_t kBufferSize = 4096;     // spidev's bufsiz
    static constexpr std::uint32_t kBounceAlignment = 64;  // DMA alignment of each record

private:
    int setupRequest(int fd, unsigned long request, void* argument, int& err);
    int message(int fd, const spi_ioc_transfer* records, unsigned count, const char* via, std::int64_t index, int& err);
    int validate(const spi_ioc_transfer* records, unsigned count) const;
    std::int64_t recordNs(const spi_ioc_transfer& record) const;
    ssize_t refuseOversized(int fd, const spi_ioc_transfer& record, const char* via, int& err);
    void checkDspHeld(std::int64_t timeNs);
    // Sends the --signal injection's signal when message index is its one.
    void injectSignal(std::int64_t index);
    void traceMessage(int fd, const spi_ioc_transfer* records, unsigned count, const char* via, std::int64_t index,
                      int result, int err, std::int64_t busNs);

    Board& m_board;
    FlashChip& m_chip;
};

}  // namespace boardsim
