// SPDX-License-Identifier: MIT
#pragma once

// The update as one transaction on the DSP flash, through the HAL's flash
// operations only: check, backup, erase, program, verify, and on any
// failure after the erase began, the previous firmware put back the same way.

#include "DurableFile.h"

#include <QByteArray>

#include <string>

namespace update {

class UpdateTransaction {
public:
    // pendingSignal returns the number of a termination signal that arrived
    // (0: none). It is asked only where stopping leaves the flash untouched;
    // once the erase began the transaction runs to a verified image.
    UpdateTransaction(const StagingFolder& staging, int (*pendingSignal)());

    // Installs image, saving the firmware it replaces into backupPath first.
    // Returns an ExitStatus, or 128 + signal when a signal stopped it.
    int install(const QByteArray& image, const std::string& backupPath);
    // Erases, programs and verifies the flash from a backup's content.
    int restore(const QByteArray& backup);

private:
    // Erase, program and verify from the staged file name; false at the first
    // step that fails (the failure is reported).
    bool program(const char* stagedName, const char* what);
    bool saveBackup(const std::string& backupPath);
    bool stage(const char* name, const QByteArray& bytes);
    // Exit status for a run that got that far, honouring a pending signal.
    int finish(int status);

    const StagingFolder& m_staging;
    int (*m_pendingSignal)();
};

}  // namespace update
