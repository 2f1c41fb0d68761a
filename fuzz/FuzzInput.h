// SPDX-License-Identifier: MIT
// What every fuzz target shares: the input as the text a parser sees, and a
// check that ends the run (as a crash libFuzzer reports) when a parser's
// result breaks a rule its callers rely on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace fuzz {

// The bytes up to the first NUL, as an environment variable or a command-line
// word would carry them.
inline std::string textOf(const std::uint8_t* data, std::size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);
    return text.substr(0, text.find('\0'));
}

inline void require(bool rule)
{
    if (!rule) {
        std::abort();
    }
}

}  // namespace fuzz
