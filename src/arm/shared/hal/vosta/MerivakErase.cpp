// SPDX-License-Identifier: MIT
// Status polling and chip erase.

#include "hal/vosta/Merivak.h"
#include "hal/vosta/SpiFlash.h"
#include "hal/vosta/StopRequest.h"

#include "logging/Log.h"

#include <unistd.h>

namespace merivak {

namespace {

// Status reads per call of wait_tillFlashIsReady, back to back.
const int STATUS_READS_PER_WAIT = 3125;
// Readiness waits after the chip-erase command, one second apart.
const int ERASE_WAITS = 10;
const unsigned int ERASE_WAIT_PAUSE_SECONDS = 1;

}  // namespace

bool Merivak::wait_tillFlashIsReady()
{
    std::uint8_t opcode = flash::OPCODE_READ_STATUS;
    std::uint8_t status = 0;

    // Built once and sent again unchanged for every read.
    spi_ioc_transfer message[2];
    flash::clearMessage(message);
    message[0].tx_buf = flash::bufferAddress(&opcode);
    message[0].len = 1;
    message[1].rx_buf = flash::bufferAddress(&status);
    message[1].len = 1;

    for (int readsLeft = STATUS_READS_PER_WAIT; readsLeft > 0; --readsLeft) {
        if (!sendMessage(flash::SPI_MESSAGE_2, message)) {
            return false;
        }
        if ((status & flash::STATUS_BUSY) == 0) {
            return true;
        }
    }
    // Still busy after every read: the caller reports it.
    return false;
}

bool Merivak::eraseDSPflash()
{
    setDspHoldLine(0);

    std::uint8_t writeEnable = flash::OPCODE_WRITE_ENABLE;
    std::uint8_t chipErase = flash::OPCODE_CHIP_ERASE;
    spi_ioc_transfer message[2];
    flash::clearMessage(message);
    message[0].tx_buf = flash::bufferAddress(&writeEnable);
    message[0].len = 1;
    // Chip select is released after Write Enable so that Chip Erase starts
    // under a chip select of its own.
    message[0].cs_change = 1;
    message[1].tx_buf = flash::bufferAddress(&chipErase);
    message[1].len = 1;

    MERIVAK_LOG_INFO("spi_logger", "Start erasing the whole DSP Flash... ");

    if (!sendMessage(flash::SPI_MESSAGE_2, message)) {
        setDspHoldLine(1);
        return false;
    }

    // A failed status read counts as an unsuccessful wait like a busy flash;
    // the last unsuccessful wait is followed by its pause too. A stop ends
    // the waiting at once: no status read can be sent any more.
    bool ready = false;
    for (int wait = 0; wait < ERASE_WAITS && !ready && stopSignal() == 0; ++wait) {
        ready = wait_tillFlashIsReady();
        if (!ready && stopSignal() == 0) {
            ::sleep(ERASE_WAIT_PAUSE_SECONDS);
        }
    }
    if (!ready) {
        MERIVAK_LOG_INFO("spi_logger", "Flash is not ready!!! ");
    }

    ::usleep(flash::RELEASE_PAUSE_US);
    setDspHoldLine(1);
    return ready;
}

}  // namespace merivak
