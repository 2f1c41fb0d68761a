// SPDX-License-Identifier: MIT
// Reading the firmware area of the flash, and saving it to a file.

#include "hal/FileNameBytes.h"
#include "hal/vosta/Merivak.h"
#include "hal/vosta/SpiFlash.h"

#include "logging/Log.h"

#include <QDataStream>
#include <QFile>
#include <QIODevice>

namespace merivak {

bool Merivak::readFirmwareArea(QByteArray& image)
{
    std::uint8_t command[flash::COMMAND_SIZE] = {flash::OPCODE_READ_DATA, 0x00, 0x00, 0x00};
    std::uint8_t pageBuffer[flash::PAGE_SIZE] = {};
    image.clear();

    // The command and its address, then the page clocked in, all under one
    // chip select.
    spi_ioc_transfer message[2];
    flash::clearMessage(message);
    message[0].tx_buf = flash::bufferAddress(command);
    message[0].len = flash::COMMAND_SIZE;
    message[1].rx_buf = flash::bufferAddress(pageBuffer);
    message[1].len = flash::PAGE_SIZE;

    std::uint32_t address = 0;
    for (int page = 0; page < flash::PAGE_COUNT; ++page) {
        if (!sendMessage(flash::SPI_MESSAGE_2, message)) {
            setDspHoldLine(1);
            return false;
        }
        image.append(reinterpret_cast<const char*>(pageBuffer), flash::PAGE_SIZE);
        address += flash::PAGE_SIZE;
        flash::setCommandAddress(command, address);

        if (!wait_tillFlashIsReady()) {
            MERIVAK_LOG_INFO("spi_logger", "Flash is not ready!!! ");
            setDspHoldLine(1);
            return false;
        }
    }
    return true;
}

bool Merivak::readDSPflash(QString fileName)
{
    QFile file(fileName);
    QByteArray image;

    setDspHoldLine(0);

    // The file is touched only once the whole area is in memory: a failed
    // read leaves an existing file as it was.
    if (!readFirmwareArea(image)) {
        return false;
    }

    ::usleep(flash::RELEASE_PAUSE_US);
    setDspHoldLine(1);

    if (!hal::openFileByName(file, fileName, QIODevice::WriteOnly)) {
        MERIVAK_LOG_INFO("spi_logger", "Saving the FLASH content....error!!");
        return false;
    }
    // Errors while writing to an opened file are not detected.
    QDataStream stream(&file);
    stream.writeRawData(image.constData(), static_cast<int>(image.size()));
    file.close();

    MERIVAK_LOG_INFO("spi_logger", "Saving the FLASH content....success");
    return true;
}

}  // namespace merivak
