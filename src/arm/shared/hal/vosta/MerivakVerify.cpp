// SPDX-License-Identifier: MIT
// Comparing the flash with an image file.

#include "hal/FileNameBytes.h"
#include "hal/vosta/Merivak.h"
#include "hal/vosta/StopRequest.h"
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

    setDspHoldLine(0);

    // A file that cannot be opened is not read, and neither is the flash:
    // the two empty arrays then compare equal and the flash counts as up to
    // date.
    if (hal::openFileByName(file, fileName, QIODevice::ReadOnly)) {
        fileData = file.readAll();
        file.close();

        // All 512 pages are read however short the file is.
        if (!readFirmwareArea(flashImage)) {
            return false;
        }
    } else if (stopSignal() != 0) {
        // The open was cut short by a termination signal (a FIFO nobody
        // writes to): that is no verdict on the flash, so no "UP-TO-DATE".
        logStopOnce("DSP flash check stopped");
        setDspHoldLine(1);
        return false;
    }

    ::usleep(flash::RELEASE_PAUSE_US);
    setDspHoldLine(1);

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
