// SPDX-License-Identifier: MIT
// The logger list: every entry names a logger (or the root) and no entry is
// made of nothing.
#include "FuzzInput.h"
#include "logging/LogSettings.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text = fuzz::textOf(data, size);
    for (const logging::LoggerLevelSetting& setting : logging::parseLoggerLevels(text)) {
        fuzz::require(setting.root == setting.loggerName.empty());
        fuzz::require(setting.root || setting.loggerName.size() > 7);
    }
    fuzz::require(logging::parseLoggerLevels(text).size() <= text.size());
    return 0;
}
