// SPDX-License-Identifier: MIT
#include "path_text.h"

#include <vector>

namespace boardsim {

std::string normalisePath(const std::string& absolute)
{
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start <= absolute.size()) {
        std::size_t slash = absolute.find('/', start);
        if (slash == std::string::npos) {
            slash = absolute.size();
        }
        const std::string part = absolute.substr(start, slash - start);
        if (part == "..") {
            if (!parts.empty()) {
                parts.pop_back();
            }
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        start = slash + 1;
    }
    std::string result;
    for (const std::string& part : parts) {
        result += '/';
        result += part;
    }
    return result.empty() ? std::string("/") : result;
}

}  // namespace boardsim
