// SPDX-License-Identifier: MIT
#pragma once

// An image (or backup) file as the user named it, checked and loaded before
// anything touches the hardware.

#include "hal/DspFlashArea.h"

#include <QByteArray>

#include <string>

namespace update {

constexpr int kFirmwareAreaBytes = static_cast<int>(hal::DSP_FLASH_AREA_BYTES);

struct LoadedImage {
    bool accepted = false;
    QByteArray bytes;    // the file's content when accepted
    std::string reason;  // why it was refused, for one line on standard error
};

// Loads the file at path (the command line's bytes, symlinks followed) when
// it is a readable regular file of 1 to kFirmwareAreaBytes bytes. It is
// opened non-blocking, so a FIFO is refused instead of waiting for a writer.
LoadedImage loadImage(const std::string& path);

}  // namespace update
