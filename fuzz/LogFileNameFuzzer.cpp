// SPDX-License-Identifier: MIT
// The default log file name from the executable's path: a plain file name
// ending in ".log".
#include "FuzzInput.h"
#include "logging/LogSettings.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string name = logging::logFileNameForExecutable(fuzz::textOf(data, size));
    fuzz::require(name.size() >= 4 && name.compare(name.size() - 4, 4, ".log") == 0);
    fuzz::require(name.find('.') == name.size() - 4);
    return 0;
}
