// SPDX-License-Identifier: MIT
#ifndef MERIVAK_APP_SUPPORT_FILENAMES_H
#define MERIVAK_APP_SUPPORT_FILENAMES_H

// File names from the command line, kept byte for byte as typed whatever
// their encoding (see hal/FileNameBytes.h for how they cross the HAL).

#include <QString>
#include <QtGlobal>

namespace frontend {

// The name typed as argument, as the QString the HAL takes.
QString fileNameFromArgument(const char* argument);

struct FileFacts {
    bool exists = false;  // stat() succeeds: symbolic links are followed
    qint64 size = 0;      // st_size, when it exists
};

// What stat() says about the file named by argument's bytes: a dangling
// symbolic link does not exist.
FileFacts fileFacts(const char* argument);

}  // namespace frontend

#endif
