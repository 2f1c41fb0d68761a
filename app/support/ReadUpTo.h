// SPDX-License-Identifier: MIT
#ifndef MERIVAK_APP_SUPPORT_READUPTO_H
#define MERIVAK_APP_SUPPORT_READUPTO_H

#include <QByteArray>

namespace frontend {

// Reads fd until end of file, but never more than maxBytes + 1 bytes, so that
// a caller tells a source longer than maxBytes by the size of bytes. A read
// that returns less than asked (pipes, sockets, network file systems) or is
// interrupted by a signal is continued. Returns 0, or the errno of the read
// that failed (bytes is then empty).
int readUpTo(int fd, int maxBytes, QByteArray& bytes);

}  // namespace frontend

#endif
