// SPDX-License-Identifier: MIT
#include "ImageFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace update {

namespace {

LoadedImage refused(const std::string& reason)
{
    LoadedImage image;
    image.reason = reason;
    return image;
}

// Closes the descriptor on every way out.
class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor()
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

}  // namespace

LoadedImage loadImage(const std::string& path)
{
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (file.get() < 0) {
        return refused(std::string("cannot be opened: ") + std::strerror(errno));
    }
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) {
        return refused(std::string("cannot be examined: ") + std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return refused("is not a regular file");
    }

    // Read one byte more than the area holds, so that a file that grew since
    // fstat is still caught by its length.
    QByteArray bytes(kFirmwareAreaBytes + 1, '\0');
    int filled = 0;
    while (filled < bytes.size()) {
        const ssize_t got = ::read(file.get(), bytes.data() + filled, static_cast<size_t>(bytes.size() - filled));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return refused(std::string("cannot be read: ") + std::strerror(errno));
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<int>(got);
    }
    if (filled == 0) {
        return refused("is empty");
    }
    if (filled > kFirmwareAreaBytes) {
        return refused("is larger than the " + std::to_string(kFirmwareAreaBytes) + "-byte DSP flash area");
    }
    bytes.truncate(filled);

    LoadedImage image;
    image.accepted = true;
    image.bytes = bytes;
    return image;
}

}  // namespace update
