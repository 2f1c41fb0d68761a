// SPDX-License-Identifier: MIT
#include "hal/FileNameBytes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace hal {

namespace {

const char16_t ESCAPE_BASE = 0xDC00;

bool isContinuation(unsigned char byte)
{
    return (byte & 0xC0U) == 0x80U;
}

// Length of the valid UTF-8 sequence at bytes[at] and its code point, or 0
// when the bytes there are not one (overlong forms, surrogates and values
// beyond U+10FFFF are not valid).
int validSequence(const QByteArray& bytes, int at, char32_t& codePoint)
{
    const auto lead = static_cast<unsigned char>(bytes[at]);
    int length = 0;
    char32_t minimum = 0;
    if (lead < 0x80U) {
        codePoint = lead;
        return 1;
    }
    if ((lead & 0xE0U) == 0xC0U) {
        length = 2;
        minimum = 0x80;
        codePoint = lead & 0x1FU;
    } else if ((lead & 0xF0U) == 0xE0U) {
        length = 3;
        minimum = 0x800;
        codePoint = lead & 0x0FU;
    } else if ((lead & 0xF8U) == 0xF0U) {
        length = 4;
        minimum = 0x10000;
        codePoint = lead & 0x07U;
    } else {
        return 0;
    }
    if (at + length > bytes.size()) {
        return 0;
    }
    for (int i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(bytes[at + i]);
        if (!isContinuation(byte)) {
            return 0;
        }
        codePoint = (codePoint << 6) | (byte & 0x3FU);
    }
    if (codePoint < minimum || codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
        return 0;
    }
    return length;
}

void appendUtf8(QByteArray& out, char32_t codePoint)
{
    if (codePoint < 0x80) {
        out.append(static_cast<char>(codePoint));
    } else if (codePoint < 0x800) {
        out.append(static_cast<char>(0xC0 | (codePoint >> 6)));
        out.append(static_cast<char>(0x80 | (codePoint & 0x3F)));
    } else if (codePoint < 0x10000) {
        out.append(static_cast<char>(0xE0 | (codePoint >> 12)));
        out.append(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
        out.append(static_cast<char>(0x80 | (codePoint & 0x3F)));
    } else {
        out.append(static_cast<char>(0xF0 | (codePoint >> 18)));
        out.append(static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F)));
        out.append(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
        out.append(static_cast<char>(0x80 | (codePoint & 0x3F)));
    }
}

}  // namespace

QString fileNameFromBytes(const QByteArray& bytes)
{
    QString name;
    name.reserve(bytes.size());
    int at = 0;
    while (at < bytes.size()) {
        char32_t codePoint = 0;
        const int length = validSequence(bytes, at, codePoint);
        if (length == 0) {
            name.append(QChar(static_cast<char16_t>(ESCAPE_BASE + static_cast<unsigned char>(bytes[at]))));
            ++at;
            continue;
        }
        if (codePoint >= 0x10000) {
            const char32_t offset = codePoint - 0x10000;
            name.append(QChar(static_cast<char16_t>(0xD800 + (offset >> 10))));
            name.append(QChar(static_cast<char16_t>(0xDC00 + (offset & 0x3FF))));
        } else {
            name.append(QChar(static_cast<char16_t>(codePoint)));
        }
        at += length;
    }
    return name;
}

QByteArray fileNameToBytes(const QString& name)
{
    QByteArray bytes;
    bytes.reserve(name.size());
    for (int i = 0; i < name.size(); ++i) {
        const char16_t unit = name.at(i).unicode();
        const bool high = unit >= 0xD800 && unit <= 0xDBFF;
        if (high && i + 1 < name.size()) {
            const char16_t low = name.at(i + 1).unicode();
            if (low >= 0xDC00 && low <= 0xDFFF) {
                appendUtf8(bytes, 0x10000 + ((static_cast<char32_t>(unit - 0xD800) << 10) | (low - 0xDC00)));
                ++i;
                continue;
            }
        }
        if (unit >= ESCAPE_BASE + 0x80 && unit <= ESCAPE_BASE + 0xFF) {
            bytes.append(static_cast<char>(unit - ESCAPE_BASE));
        } else {
            appendUtf8(bytes, unit);
        }
    }
    return bytes;
}

bool openFileByName(QFile& file, const QString& name, QIODevice::OpenMode mode)
{
    int flags = 0;
    if (mode == QIODevice::ReadOnly) {
        flags = O_RDONLY;
    } else if (mode == QIODevice::WriteOnly) {
        flags = O_WRONLY | O_CREAT | O_TRUNC;
    } else {
        errno = EINVAL;
        return false;
    }
    const QByteArray bytes = fileNameToBytes(name);
    const int fd = ::open(bytes.constData(), flags | O_CLOEXEC, 0666);
    if (fd < 0) {
        return false;
    }
    // Opening a folder for reading succeeds at the system level; QFile
    // refuses it, and so does this.
    struct stat status {};
    if (::fstat(fd, &status) == 0 && S_ISDIR(status.st_mode)) {
        ::close(fd);
        errno = EISDIR;
        return false;
    }
    if (!file.open(fd, mode, QFileDevice::AutoCloseHandle)) {
        const int err = errno;
        ::close(fd);
        errno = err;
        return false;
    }
    return true;
}

}  // namespace hal
