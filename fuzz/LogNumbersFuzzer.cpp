// SPDX-License-Identifier: MIT
// The numeric variables (cache size, commit period) and the rollover size.
#include "FuzzInput.h"
#include "logging/LogSettings.h"

#include <climits>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text = fuzz::textOf(data, size);
    const long long number = logging::parseInt32(text.c_str());
    fuzz::require(number >= INT32_MIN && number <= INT32_MAX);
    const long long fileSize = logging::parseFileSize(text.c_str());
    fuzz::require(fileSize >= INT32_MIN && fileSize <= INT32_MAX);
    return 0;
}
