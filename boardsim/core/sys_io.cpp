#include "sys_io.h"

#include <cerrno>

namespace boardsim {
namespace sys {

bool writeAll(int fd, const void* buffer, std::size_t length)
{
    const auto* bytes = static_cast<const char*>(buffer);
    while (length > 0) {
        const ssize_t written = writeFile(fd, bytes, length);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        bytes += written;
        length -= static_cast<std::size_t>(written);
    }
    return true;
}

bool replaceContent(const char* path, const char* text, std::size_t length)
{
    const int fd = openFile(path, O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool ok = writeAll(fd, text, length);
    closeFile(fd);
    return ok;
}

}  // namespace sys
}  // namespace boardsim
