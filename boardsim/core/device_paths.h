// SPDX-License-Identifier: MIT
// Which simulated device, if any, a path names.
#pragma once

#include "gpio_sysfs.h"
#include "run_block.h"

#include <string>

namespace boardsim {

enum class PathKind {
    kNone,  // not simulated: passes through
    kSpidev,
    kMelody,
    kGpioExport,
    kGpioUnexport,
    kGpioAttribute,  // gpioN/value, direction, active_low, edge
    kGpioLineOther,  // gpioN/<anything else>
    kGpioRedirect,   // the tree itself, a line folder, or other names in it
    kLockRedirect,   // /run/lock and what is in it: the board's own lock folder
};

struct DevicePath {
    PathKind kind = PathKind::kNone;
    int line = -1;
    GpioAttribute attribute = GpioAttribute::kValue;
    std::string relative;  // relative to /sys/class/gpio, for the trace
};

class DevicePaths {
public:
    explicit DevicePaths(const RunConfig& config);

    // Classifies path; relative paths are taken against the working folder.
    DevicePath classify(const char* path) const;

    // The state-folder path behind a /sys/class/gpio or /run/lock path.
    std::string backing(const DevicePath& path) const;

    // Lexically normalised absolute path ("." and ".." and "//" resolved).
    static std::string normalise(const char* path);

private:
    const RunConfig& m_config;
    std::string m_tree;      // state folder's gpio tree
    std::string m_lockTree;  // state folder's run-lock folder
};

}  // namespace boardsim
