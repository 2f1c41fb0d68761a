// SPDX-License-Identifier: MIT
// merivak-update install IMAGE --backup FILE
// merivak-update restore FILE
//
// Updates the DSP firmware as one transaction, for update systems that run
// unattended: the flash ends with either the new image or the previous
// firmware, verified, or the exit status and an ERROR record say that the
// board needs service. The exit statuses are listed in ExitStatus.h.

#include "DurableFile.h"
#include "ExitStatus.h"
#include "ImageFile.h"
#include "Progress.h"
#include "UpdateTransaction.h"

#include "DeviceLock.h"
#include "DspLineGuard.h"
#include "TerminationSignals.h"

#include "hal/HwAbstractionLayer.h"
#include "hal/vosta/Merivak.h"

#include <cstring>
#include <exception>
#include <iostream>
#include <string>

namespace {

const char* const kProgramName = "merivak-update";
const char* const kUsage = "usage: merivak-update install IMAGE --backup FILE\n"
                           "       merivak-update restore FILE";

struct CommandLine {
    bool valid = false;
    bool install = false;
    std::string image;  // install: the new image; restore: the backup
    std::string backup;
};

CommandLine parse(int argc, char* argv[])
{
    CommandLine line;
    if (argc == 5 && std::strcmp(argv[1], "install") == 0 && std::strcmp(argv[3], "--backup") == 0) {
        line.valid = true;
        line.install = true;
        line.image = argv[2];
        line.backup = argv[4];
    } else if (argc == 3 && std::strcmp(argv[1], "restore") == 0) {
        line.valid = true;
        line.image = argv[2];
    }
    return line;
}

int run(int argc, char* argv[])
{
    // Signals only get recorded: the transaction decides when it can stop.
    frontend::installTerminationSignals(frontend::SignalMode::kDefer, kProgramName);

    const CommandLine line = parse(argc, argv);
    if (!line.valid) {
        std::cerr << kUsage << std::endl;
        return update::kUsage;
    }
    // The file is judged before the lock and the hardware, so a refused
    // image never disturbs a run in progress or the DSP.
    const update::LoadedImage image = update::loadImage(line.image);
    if (!image.accepted) {
        std::cerr << kProgramName << ": refused " << (line.install ? "image " : "backup ") << line.image << ": "
                  << image.reason << std::endl;
        return update::kImageRefused;
    }

    // One run per SPI device, as for merivak. Where no lock can be made (no
    // lock folder, no rights) the update goes on unprotected, as merivak
    // does: a board without /run/lock must still be updatable.
    const frontend::DeviceLock lock(merivak::Merivak::spiDevicePath());
    if (lock.state() == frontend::DeviceLock::State::kBusy) {
        update::reportFailure("the DSP flash is in use by process " + std::to_string(lock.holderPid()) +
                              "; nothing done");
        return update::kLocked;
    }
    if (lock.state() == frontend::DeviceLock::State::kUnavailable) {
        std::cerr << kProgramName << ": going on without the device lock: " << lock.reason() << std::endl;
    }

    const update::StagingFolder staging;
    if (!staging.valid()) {
        update::reportFailure(staging.creationError());
        return update::kFailedUntouched;
    }
    // Should an exception (out of memory) leave a flash operation, the DSP
    // gets its flash back.
    hal::HwAbstractionLayer& hardware = *hal::HwAbstractionLayer::getInstance();
    const frontend::DspLineGuard releaseDspOnException(hardware);
    update::UpdateTransaction transaction(staging, frontend::receivedTerminationSignal);
    return line.install ? transaction.install(image.bytes, line.backup) : transaction.restore(image.bytes);
}

}  // namespace

int main(int argc, char* argv[])
{
    int status = update::kFailedUntouched;
    try {
        status = run(argc, argv);
    } catch (const std::exception& e) {
        // Making the HAL's instance is the one thing that may throw (out of
        // memory); the driver has not touched the flash then.
        std::cerr << kProgramName << ": " << e.what() << std::endl;
        return update::kFailedUntouched;
    }
    if (status > update::kSignalStatusBase) {
        frontend::exitForTerminationSignal(status - update::kSignalStatusBase);
    }
    return status;
}
