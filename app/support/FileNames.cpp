// SPDX-License-Identifier: MIT
#include "FileNames.h"

#include "hal/FileNameBytes.h"

#include <sys/stat.h>

namespace frontend {

QString fileNameFromArgument(const char* argument)
{
    return hal::fileNameFromBytes(QByteArray(argument));
}

FileFacts fileFacts(const char* argument)
{
    FileFacts facts;
    struct stat status {};
    if (::stat(argument, &status) == 0) {
        facts.exists = true;
        facts.size = static_cast<qint64>(status.st_size);
    }
    return facts;
}

}  // namespace frontend
