// SPDX-License-Identifier: MIT
// Comparing the flash with an image file.

#include "hal/vosta/Merivak.h"
#include "hal/vosta/SpiFlash.h"

#include "logging/Log.h"

#include <QFile>
#include <QIODevice>

namespace merivak {

bool Merivak::checkDSPflash(QString fileName)
{
    QFile file(fileName);
    QByteArray fileData;
    QByteArray flashImage;

    flash::setDspHoldLine(0);

    // A file that cannot be opened is not read, and neither is the flash:
    // the two empty arrays then compare equal and the flash counts as up to
    // date.
    if (file.open(QIODevice::ReadOnly)) {
        fileData = file.readAll();
        file.close();

        // All 512 pages are read however short the file is.
        if (!readFirmwareArea(flashImage)) {
            return false;
        }
    }

    ::usleep(flash::RELEASE_PAUSE_US);
    flash::setDspHoldLine(1);

    // Only the file's length is compared; a file longer than the firmware
    // area can never match.
    flashImage.truncate(fileData.size());
    if (flashImage == fileData) {
        MERIVAK_LOG_INFO("spi_logger", "Requested DSP FW is UP-TO-DATE");
        return true;
    }
    MERIVAK_LOG_INFO("spi_logger", "Requested DSP FW is NOT actual...");
    return false;
}

}  // namespace merivak
