// SPDX-License-Identifier: MIT
// The board state folder: DIR/flash.bin, the GPIO tree DIR/gpio and the lock
// folder DIR/run-lock (what the program sees as /run/lock).
#pragma once

#include "run_block.h"

#include <string>

namespace boardsim {

// Creates the folder, a new flash.bin (capacity bytes of 0xFF) and the GPIO
// tree where they are missing, and checks what is there. False with a reason
// when the folder is broken: not a folder, flash.bin of the wrong size or not
// a regular file, a GPIO tree that cannot hold the sysfs files.
bool prepareStateFolder(const std::string& dir, const ChipProfile& profile, std::string& error);

// Reads the exported lines (DIR/gpio/gpioN) into lines. False with a reason
// when a line folder is incomplete or holds text the kernel would not show.
bool loadGpioTree(const std::string& dir, GpioLine* lines, std::string& error);

// Removes a folder and everything in it.
void removeTree(const std::string& dir);

}  // namespace boardsim
