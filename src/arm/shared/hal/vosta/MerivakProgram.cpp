// SPDX-License-Identifier: MIT
// Programming the flash from an image file.

#include "hal/FileNameBytes.h"
#include "hal/vosta/Merivak.h"
#include "hal/vosta/SpiFlash.h"

#include "logging/Log.h"

#include <QFile>
#include <QIODevice>

#include <algorithm>

namespace merivak {

namespace {

// The flash's erased state. The bytes of a last, partial page that lie
// beyond the end of the file are sent as 0xFF: programming can only clear
// bits, so those flash bytes stay erased instead of taking a neighbour
// page's leftovers.
const char ERASED_BYTE = static_cast<char>(0xFF);

// Copies page `page` of `data` into `pageBuffer`, padding a partial last page
// with the erased value.
void copyPage(const QByteArray& data, int page, std::uint8_t (&pageBuffer)[flash::PAGE_SIZE])
{
    const auto offset = static_cast<qint64>(page) * flash::PAGE_SIZE;
    const auto available = std::min<qint64>(flash::PAGE_SIZE, static_cast<qint64>(data.size()) - offset);
    std::memcpy(pageBuffer, data.constData() + offset, static_cast<std::size_t>(available));
    std::memset(pageBuffer + available, ERASED_BYTE, static_cast<std::size_t>(flash::PAGE_SIZE - available));
}

}  // namespace

bool Merivak::updateDSPflash(QString fileName)
{
    QFile file(fileName);
    QByteArray fileData;
    std::uint8_t writeEnable = flash::OPCODE_WRITE_ENABLE;

    setDspHoldLine(0);

    std::uint8_t command[flash::COMMAND_SIZE] = {flash::OPCODE_PAGE_PROGRAM, 0x00, 0x00, 0x00};
    std::uint8_t pageBuffer[flash::PAGE_SIZE] = {};
    spi_ioc_transfer message[3];
    flash::clearMessage(message);

    bool result = false;
    // A file that cannot be opened programs nothing and is not logged.
    if (hal::openFileByName(file, fileName, QIODevice::ReadOnly)) {
        // The whole file is read before the first transfer, so a file that
        // changes meanwhile has no effect.
        fileData = file.readAll();
        file.close();

        // Write Enable goes out under a chip select of its own; the Page
        // Program command, its address and the data share the next one.
        message[0].tx_buf = flash::bufferAddress(&writeEnable);
        message[0].len = 1;
        message[0].cs_change = 1;
        message[1].tx_buf = flash::bufferAddress(command);
        message[1].len = flash::COMMAND_SIZE;
        message[2].tx_buf = flash::bufferAddress(pageBuffer);
        message[2].len = flash::PAGE_SIZE;

        const auto fileSize = static_cast<qint64>(fileData.size());
        const auto pageCount = static_cast<int>((fileSize + flash::PAGE_SIZE - 1) / flash::PAGE_SIZE);
        if (pageCount > 0) {
            copyPage(fileData, 0, pageBuffer);
        }

        MERIVAK_LOG_INFO("spi_logger", "Start programming the DSP Flash... " << fileSize << " bytes! ");

        std::uint32_t address = 0;
        for (int page = 0; page < pageCount; ++page) {
            if (!sendMessage(flash::SPI_MESSAGE_3, message)) {
                setDspHoldLine(1);
                return false;
            }
            // Prepare the next page while the flash programs this one.
            if (page + 1 < pageCount) {
                copyPage(fileData, page + 1, pageBuffer);
            }
            address += flash::PAGE_SIZE;
            flash::setCommandAddress(command, address);

            if (!wait_tillFlashIsReady()) {
                MERIVAK_LOG_INFO("spi_logger", "Flash is not ready!!! ");
                setDspHoldLine(1);
                return false;
            }
        }
        result = true;
    }

    ::usleep(flash::RELEASE_PAUSE_US);
    setDspHoldLine(1);
    return result;
}

}  // namespace merivak
