// SPDX-License-Identifier: MIT
#include "Progress.h"

#include "logging/Log.h"

#include <iostream>

namespace update {

void reportStep(const std::string& line)
{
    std::cout << line << std::endl;
    MERIVAK_LOG_INFO("update_logger", line);
}

void reportFailure(const std::string& problem)
{
    std::cerr << "merivak-update: " << problem << std::endl;
    MERIVAK_LOG_ERROR("update_logger", problem);
}

}  // namespace update
