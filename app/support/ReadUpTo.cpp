// SPDX-License-Identifier: MIT
#include "ReadUpTo.h"

#include <unistd.h>

#include <cerrno>

namespace frontend {

int readUpTo(int fd, int maxBytes, QByteArray& bytes)
{
    bytes = QByteArray(maxBytes + 1, '\0');
    int filled = 0;
    while (filled < bytes.size()) {
        const ssize_t got = ::read(fd, bytes.data() + filled, static_cast<size_t>(bytes.size() - filled));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            const int error = errno;
            bytes.clear();
            return error;
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<int>(got);
    }
    bytes.truncate(filled);
    return 0;
}

}  // namespace frontend
