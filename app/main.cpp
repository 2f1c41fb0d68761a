// SPDX-License-Identifier: MIT
// merivak read|write|check FILENAME
//
// Reads, reprograms or verifies the serial flash from which the DSP boots.
// The front end checks the command line, hands one operation to the HAL and
// turns its outcome into the exit status (0 success, 1 failure). It never
// opens the file or the hardware itself and writes nothing to the log: the
// flash driver behind the HAL does both.

#include "hal/HwAbstractionLayer.h"

#include <QFile>
#include <QString>

#include <unistd.h>

#include <exception>
#include <iostream>

namespace {

const char* const USAGE = " merivak read|write|check FILENAME ";

// The DSP firmware area of the flash: 512 pages of 256 bytes.
const qint64 DSP_FLASH_AREA_BYTES = 512 * 256;

// Time the DSP gets to boot from its flash after the operation released it.
const unsigned int DSP_START_PAUSE_SECONDS = 5;

int run(int argc, char* argv[])
{
    if (argc != 3) {
        std::cout << "Usage for platform " << '"' << '"' << " : " << USAGE << std::endl;
        return 1;
    }

    const QString operation = QString::fromLatin1(argv[1]);
    const bool isRead = operation == QLatin1String("read");
    const bool isWrite = !isRead && operation == QLatin1String("write");
    const bool isCheck = !isRead && !isWrite && operation == QLatin1String("check");
    if (!isRead && !isWrite && !isCheck) {
        std::cerr << "Option is NOT correct:   " << USAGE << std::endl;
        return 1;
    }

    const QString fileName = QString::fromLatin1(argv[2]);
    const QFile file(fileName);

    if (isRead) {
        // The file is made (or overwritten) by the read-out itself.
        if (!hal::HwAbstractionLayer::getInstance()->readDSPflash(file.fileName())) {
            return 1;
        }
    } else {
        // Nothing to write or compare: not an error for the update scripts
        // that call the tool, and the hardware is left alone.
        if (!file.exists()) {
            std::cout << "File:    " << file.fileName().toLatin1().constData() << "      Does NOT exists! "
                      << std::endl;
            return 0;
        }

        if (isWrite) {
            // An image larger than the firmware area cannot be programmed
            // whole, and the erase that comes first would leave the DSP with
            // an empty flash. Refuse it before the hardware is touched.
            const qint64 size = file.size();
            if (size > DSP_FLASH_AREA_BYTES) {
                std::cerr << "File:    " << file.fileName().toLatin1().constData() << "      is too large: " << size
                          << " bytes, the DSP flash area holds " << DSP_FLASH_AREA_BYTES << " bytes" << std::endl;
                return 1;
            }
            if (!hal::HwAbstractionLayer::getInstance()->eraseDSPflash()) {
                return 1;
            }
            if (!hal::HwAbstractionLayer::getInstance()->updateDSPflash(file.fileName())) {
                return 1;
            }
        } else if (!hal::HwAbstractionLayer::getInstance()->checkDSPflash(file.fileName())) {
            return 1;
        }
    }

    std::cout << "Waiting till DSP is started..." << std::endl;
    ::sleep(DSP_START_PAUSE_SECONDS);
    return 0;
}

}  // namespace

int main(int argc, char* argv[])
{
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << e.what() << std::endl;
        return 1;
    }
}
