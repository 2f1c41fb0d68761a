// SPDX-License-Identifier: MIT
// merivak read|write|check FILENAME
//
// Reads, reprograms or verifies the serial flash from which the DSP boots.
// The front end checks the command line, hands one operation to the HAL and
// turns its outcome into the exit status (0 success, 1 failure, 128 + the
// signal number when a termination signal stopped it). It never opens the
// file or the hardware itself; it writes to the log only the record of a
// stop that the flash driver did not log.

#include "DeviceLock.h"
#include "DspLineGuard.h"
#include "FileNames.h"
#include "TerminationSignals.h"

#include "hal/DspFlashArea.h"
#include "hal/HwAbstractionLayer.h"
#include "hal/vosta/Merivak.h"

#include <QString>

#include <unistd.h>

#include <exception>
#include <iostream>

namespace {

const char* const USAGE = " merivak read|write|check FILENAME ";
const char* const PROGRAM_NAME = "merivak";

// Time the DSP gets to boot from its flash after the operation released it.
const unsigned int DSP_START_PAUSE_SECONDS = 5;

// A termination signal stopped the flash driver (or arrived in between):
// line 48 is back at 1, so end the run now with 128 + the signal number.
void exitIfStopped()
{
    if (const int signalNumber = frontend::receivedTerminationSignal()) {
        frontend::exitForTerminationSignal(signalNumber);
    }
}

enum class Operation { kRead, kWrite, kCheck };

// Runs one operation on the HAL; an exception that leaves it finds line 48
// put back at 1 before main reports it.
bool runOnHal(Operation operation, const QString& fileName)
{
    hal::HwAbstractionLayer& hal = *hal::HwAbstractionLayer::getInstance();
    const frontend::DspLineGuard guard(hal);
    bool ok = false;
    switch (operation) {
    case Operation::kRead:
        ok = hal.readDSPflash(fileName);
        break;
    case Operation::kCheck:
        ok = hal.checkDSPflash(fileName);
        break;
    case Operation::kWrite:
        // A stopped erase fails, so the programming is not started.
        ok = hal.eraseDSPflash() && hal.updateDSPflash(fileName);
        break;
    }
    exitIfStopped();
    return ok;
}

int run(int argc, char* argv[])
{
    if (argc != 3) {
        std::cout << "Usage for platform " << '"' << '"' << " : " << USAGE << std::endl;
        return 1;
    }

    const QString operationName = QString::fromLatin1(argv[1]);
    const bool isRead = operationName == QLatin1String("read");
    const bool isWrite = !isRead && operationName == QLatin1String("write");
    const bool isCheck = !isRead && !isWrite && operationName == QLatin1String("check");
    if (!isRead && !isWrite && !isCheck) {
        std::cerr << "Option is NOT correct:   " << USAGE << std::endl;
        return 1;
    }

    // The name goes to the file system byte for byte as typed, and is
    // printed that way; stat() follows symbolic links, so a dangling one
    // does not exist.
    const char* const typedName = argv[2];
    const QString fileName = frontend::fileNameFromArgument(typedName);

    if (!isRead) {
        const frontend::FileFacts facts = frontend::fileFacts(typedName);
        // Nothing to write or compare: not an error for the update scripts
        // that call the tool, and the hardware is left alone.
        if (!facts.exists) {
            std::cout << "File:    " << typedName << "      Does NOT exists! " << std::endl;
            return 0;
        }
        // An image larger than the firmware area cannot be programmed whole,
        // and the erase that comes first would leave the DSP with an empty
        // flash. Refuse it before the hardware is touched.
        if (isWrite && facts.size > hal::DSP_FLASH_AREA_BYTES) {
            std::cerr << "File:    " << typedName << "      is too large: " << facts.size
                      << " bytes, the DSP flash area holds " << hal::DSP_FLASH_AREA_BYTES << " bytes" << std::endl;
            return 1;
        }
    }

    // One run per SPI device: a second one stops before it touches the SPI
    // device or a GPIO line. Where no lock can be made (no lock folder, no
    // rights) the run goes on unprotected, as runs did before the lock.
    const char* const spiDevice = merivak::Merivak::spiDevicePath();
    const frontend::DeviceLock lock(spiDevice);
    if (lock.state() == frontend::DeviceLock::State::kBusy) {
        std::cerr << PROGRAM_NAME << ": " << spiDevice << " is in use by another run";
        if (lock.holderPid() > 0) {
            std::cerr << " (process " << lock.holderPid() << ")";
        }
        std::cerr << "; nothing done" << std::endl;
        return 1;
    }
    if (lock.state() == frontend::DeviceLock::State::kUnavailable) {
        std::cerr << PROGRAM_NAME << ": going on without the device lock: " << lock.reason() << std::endl;
    }
    exitIfStopped();

    const Operation operation = isRead ? Operation::kRead : isWrite ? Operation::kWrite : Operation::kCheck;
    if (!runOnHal(operation, fileName)) {
        return 1;
    }

    std::cout << "Waiting till DSP is started..." << std::endl;
    ::sleep(DSP_START_PAUSE_SECONDS);
    exitIfStopped();
    return 0;
}

}  // namespace

int main(int argc, char* argv[])
{
    // First of all: from here on a termination signal can no longer leave
    // the flash half done, and a closed standard output no longer kills.
    frontend::installTerminationSignals(frontend::SignalMode::kStop, PROGRAM_NAME);
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << e.what() << std::endl;
        return 1;
    }
}
