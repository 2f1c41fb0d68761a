// SPDX-License-Identifier: MIT
#ifndef MERIVAK_HAL_FILENAMEBYTES_H
#define MERIVAK_HAL_FILENAMEBYTES_H

// File names as the file system sees them: byte strings in no particular
// encoding. A name travels as a QString from the command line to the flash
// driver; these helpers make that trip exact for any bytes, where Qt's own
// conversion would replace the bytes of a Latin-1 name.

#include <QByteArray>
#include <QFile>
#include <QIODevice>
#include <QString>

namespace hal {

// Decodes bytes as UTF-8; each byte that is not part of a valid UTF-8
// sequence becomes the lone surrogate U+DC00 + byte (U+DC80..U+DCFF).
QString fileNameFromBytes(const QByteArray& bytes);

// The exact inverse of fileNameFromBytes: UTF-8, with each lone surrogate
// U+DC80..U+DCFF turned back into its byte.
QByteArray fileNameToBytes(const QString& name);

// Opens file on the file named by name's bytes (see fileNameToBytes), with
// the flags QFile uses: ReadOnly opens for reading, WriteOnly creates or
// truncates (mode 0666 less the umask). The descriptor is close-on-exec and
// closed with the file. One attempt: a signal that interrupts the open makes
// it fail. Folders and other modes are refused. False on failure, with errno set.
bool openFileByName(QFile& file, const QString& name, QIODevice::OpenMode mode);

}  // namespace hal

#endif
