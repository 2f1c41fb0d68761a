// SPDX-License-Identifier: MIT
#include "UpdateTransaction.h"

#include "ExitStatus.h"
#include "ImageFile.h"
#include "Progress.h"

#include "hal/HwAbstractionLayer.h"

#include <unistd.h>

#include <iostream>

namespace update {

namespace {

// The flash holds exactly what a write of the image leaves behind: the image,
// then erased bytes to the end of the firmware area. Checking against that
// (not just the image's length, as the driver's check does) means "up to
// date" and "verified" cover the whole area the DSP boots from.
QByteArray paddedToFirmwareArea(const QByteArray& image)
{
    QByteArray padded = image;
    padded.append(QByteArray(kFirmwareAreaBytes - image.size(), static_cast<char>(0xFF)));
    return padded;
}

const char* const kImage = "image.bin";
const char* const kFlashCopy = "flash.bin";

// Time the DSP gets to boot from its flash, once, after the last step.
const unsigned int kDspStartPauseSeconds = 5;

void waitForDspStart()
{
    std::cout << "Waiting till DSP is started..." << std::endl;
    ::sleep(kDspStartPauseSeconds);
}

hal::HwAbstractionLayer& hardware()
{
    return *hal::HwAbstractionLayer::getInstance();
}

}  // namespace

UpdateTransaction::UpdateTransaction(const StagingFolder& staging, int (*pendingSignal)())
    : m_staging(staging), m_pendingSignal(pendingSignal)
{
}

int UpdateTransaction::finish(int status)
{
    const int signal = m_pendingSignal();
    return signal != 0 ? kSignalStatusBase + signal : status;
}

bool UpdateTransaction::stage(const char* name, const QByteArray& bytes)
{
    std::string error;
    if (!writeAndSync(m_staging.file(name), bytes, error)) {
        reportFailure(error);
        return false;
    }
    return true;
}

bool UpdateTransaction::saveBackup(const std::string& backupPath)
{
    if (!hardware().readDSPflash(m_staging.driverName(kFlashCopy))) {
        reportFailure("cannot read the flash for the backup");
        return false;
    }
    // The driver reports success even when writing its file failed after the
    // open: trust the copy only when it is whole and equal to the flash.
    QByteArray copy;
    std::string error;
    if (!readUpTo(m_staging.file(kFlashCopy), kFirmwareAreaBytes, copy, error)) {
        reportFailure(error);
        return false;
    }
    if (copy.size() != kFirmwareAreaBytes) {
        reportFailure("the flash read-out holds " + std::to_string(copy.size()) + " bytes instead of " +
                      std::to_string(kFirmwareAreaBytes));
        return false;
    }
    if (!hardware().checkDSPflash(m_staging.driverName(kFlashCopy))) {
        reportFailure("the flash read-out differs from the flash");
        return false;
    }
    if (!replaceAtomically(backupPath, copy, error)) {
        reportFailure("cannot save the backup: " + error);
        return false;
    }
    reportStep("backup saved: " + backupPath);
    return true;
}

bool UpdateTransaction::program(const char* stagedName, const char* what)
{
    if (!hardware().eraseDSPflash()) {
        reportFailure(std::string("erasing the flash failed while writing ") + what);
        return false;
    }
    reportStep("erased");
    if (!hardware().updateDSPflash(m_staging.driverName(stagedName))) {
        reportFailure(std::string("programming the flash failed while writing ") + what);
        return false;
    }
    reportStep("programmed");
    if (!hardware().checkDSPflash(m_staging.driverName(stagedName))) {
        reportFailure(std::string("the flash differs from ") + what + " after programming");
        return false;
    }
    reportStep("verified");
    return true;
}

int UpdateTransaction::install(const QByteArray& image, const std::string& backupPath)
{
    if (!stage(kImage, paddedToFirmwareArea(image))) {
        return kFailedUntouched;
    }
    if (const int signal = m_pendingSignal()) {
        return kSignalStatusBase + signal;
    }
    // An image already in place costs no erase: no flash wear for a repeated
    // or unchanged update.
    if (hardware().checkDSPflash(m_staging.driverName(kImage))) {
        reportStep("up to date: the flash already holds the image");
        if (const int signal = m_pendingSignal()) {
            return kSignalStatusBase + signal;
        }
        waitForDspStart();
        return kDone;
    }
    reportStep("checked: the flash differs from the image");

    if (const int signal = m_pendingSignal()) {
        return kSignalStatusBase + signal;
    }
    if (!saveBackup(backupPath)) {
        return kFailedUntouched;
    }
    // Last point where stopping leaves the flash as it was. From the erase on
    // a signal only takes effect once the flash holds a verified image.
    if (const int signal = m_pendingSignal()) {
        return kSignalStatusBase + signal;
    }

    if (program(kImage, "the new image")) {
        if (m_pendingSignal() == 0) {
            waitForDspStart();
        }
        return finish(kDone);
    }
    if (!program(kFlashCopy, "the previous firmware")) {
        reportFailure("restoring the previous firmware failed: the DSP flash holds no verified image, "
                      "the board needs service");
        return finish(kRestoreFailed);
    }
    reportStep("restored: the previous firmware is back in the flash");
    if (m_pendingSignal() == 0) {
        waitForDspStart();
    }
    return finish(kFailedRestored);
}

int UpdateTransaction::restore(const QByteArray& backup)
{
    if (!stage(kFlashCopy, paddedToFirmwareArea(backup))) {
        return kFailedUntouched;
    }
    if (const int signal = m_pendingSignal()) {
        return kSignalStatusBase + signal;
    }
    if (!program(kFlashCopy, "the backup")) {
        reportFailure("restoring the backup failed: the DSP flash holds no verified image, the board needs service");
        return finish(kRestoreFailed);
    }
    reportStep("restored: the flash holds the backup");
    if (m_pendingSignal() == 0) {
        waitForDspStart();
    }
    return finish(kDone);
}

}  // namespace update
