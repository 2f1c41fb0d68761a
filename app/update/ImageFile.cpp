// SPDX-License-Identifier: MIT
#include "ImageFile.h"

#include "ReadUpTo.h"

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

    // One byte more than the area holds is read, so that a file that grew
    // since fstat is still caught by its length.
    QByteArray bytes;
    if (const int error = frontend::readUpTo(file.get(), kFirmwareAreaBytes, bytes)) {
        return refused(std::string("cannot be read: ") + std::strerror(error));
    }
    if (bytes.isEmpty()) {
        return refused("is empty");
    }
    if (bytes.size() > kFirmwareAreaBytes) {
        return refused("is larger than the " + std::to_string(kFirmwareAreaBytes) + "-byte DSP flash area");
    }

    LoadedImage image;
    image.accepted = true;
    image.bytes = bytes;
    return image;
}

}  // namespace update
