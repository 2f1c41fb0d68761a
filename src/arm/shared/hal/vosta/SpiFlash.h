// SPDX-License-Identifier: MIT
#ifndef MERIVAK_HAL_VOSTA_SPIFLASH_H
#define MERIVAK_HAL_VOSTA_SPIFLASH_H

// What the flash driver's operations share: the serial-flash command set,
// the geometry of the DSP firmware area and the spidev message requests.

#include "hal/DspFlashArea.h"

#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace merivak {
namespace flash {

const std::uint8_t OPCODE_READ_STATUS = 0x05;
const std::uint8_t OPCODE_WRITE_ENABLE = 0x06;
const std::uint8_t OPCODE_CHIP_ERASE = 0xC7;
const std::uint8_t OPCODE_PAGE_PROGRAM = 0x02;
const std::uint8_t OPCODE_READ_DATA = 0x03;

// Bit 0 of the status register: a program or erase is in progress.
const std::uint8_t STATUS_BUSY = 0x01;

const int PAGE_SIZE = hal::DSP_FLASH_PAGE_SIZE;
const int PAGE_COUNT = hal::DSP_FLASH_PAGE_COUNT;  // the firmware area
const int COMMAND_SIZE = 4;                        // opcode and a 24-bit address, most significant byte first

// Pause before line 48 is released at the end of an operation that ran to
// its end (not after a failed transfer or poll, which release it at once).
const useconds_t RELEASE_PAUSE_US = 1000;

const unsigned long SPI_MESSAGE_2 = SPI_IOC_MESSAGE(2);
const unsigned long SPI_MESSAGE_3 = SPI_IOC_MESSAGE(3);
static_assert(SPI_IOC_MESSAGE(2) == 0x40406b00, "two-record message request");
static_assert(SPI_IOC_MESSAGE(3) == 0x40606b00, "three-record message request");
static_assert(sizeof(spi_ioc_transfer) == 32, "spidev transfer record layout");

// Address of a buffer as spidev wants it in tx_buf / rx_buf.
inline __u64 bufferAddress(const void* buffer)
{
    return static_cast<__u64>(reinterpret_cast<std::uintptr_t>(buffer));
}

// Clears a message: spidev rejects records with stray fields.
template <std::size_t N>
inline void clearMessage(spi_ioc_transfer (&message)[N])
{
    std::memset(message, 0, sizeof message);
}

// Puts a 24-bit address into bytes 1 to 3 of a command, most significant first.
inline void setCommandAddress(std::uint8_t (&command)[COMMAND_SIZE], std::uint32_t address)
{
    command[1] = static_cast<std::uint8_t>((address >> 16) & 0xFFU);
    command[2] = static_cast<std::uint8_t>((address >> 8) & 0xFFU);
    command[3] = static_cast<std::uint8_t>(address & 0xFFU);
}

}  // namespace flash
}  // namespace merivak

#endif
