// SPDX-License-Identifier: MIT
#pragma once

// Exit statuses of merivak-update. Each tells an update system what state the
// flash was left in, so that it can decide without reading the log. A
// termination signal ends the program with 128 + the signal's number once
// the flash holds a verified image again (or was never touched).
namespace update {

enum ExitStatus : int {
    kDone = 0,             // installed and verified, already up to date, or restored
    kLocked = 1,           // another run holds the board's flash; nothing done
    kUsage = 2,            // bad command line; nothing done
    kImageRefused = 3,     // the image (or backup) file is unusable; hardware untouched
    kFailedUntouched = 4,  // failed before the erase; the flash is as it was
    kFailedRestored = 5,   // the update failed; the previous firmware is back and verified
    kRestoreFailed = 6,    // the flash holds no verified image: the board needs service
};

constexpr int kSignalStatusBase = 128;

}  // namespace update
