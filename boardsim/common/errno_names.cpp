// SPDX-License-Identifier: MIT
#include "errno_names.h"

#include <cstdlib>
#include <cstring>

namespace boardsim {
namespace {

// errno values on Linux stay well below this.
constexpr int kHighestErrno = 200;

}  // namespace

std::string errnoName(int error)
{
    const char* name = error > 0 ? strerrorname_np(error) : nullptr;
    return name != nullptr ? std::string(name) : std::to_string(error);
}

int parseErrno(const std::string& text)
{
    if (text.empty()) {
        return 0;
    }
    if (text[0] >= '0' && text[0] <= '9') {
        char* end = nullptr;
        const long value = std::strtol(text.c_str(), &end, 10);
        if (*end != '\0' || value <= 0 || value > kHighestErrno) {
            return 0;
        }
        return static_cast<int>(value);
    }
    for (int error = 1; error <= kHighestErrno; ++error) {
        const char* name = strerrorname_np(error);
        if (name != nullptr && text == name) {
            return error;
        }
    }
    return 0;
}

}  // namespace boardsim
