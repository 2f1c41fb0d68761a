// SPDX-License-Identifier: MIT
#include "DeviceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace frontend {

const char* const DeviceLock::DEFAULT_LOCK_FOLDER = "/run/lock";

namespace {

bool keptAsIs(unsigned char byte)
{
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
           byte == '.' || byte == '-';
}

pid_t readHolderPid(int fd)
{
    char text[32] = {};
    const ssize_t got = ::pread(fd, text, sizeof text - 1, 0);
    if (got <= 0) {
        return 0;
    }
    const long pid = std::strtol(text, nullptr, 10);
    return pid > 0 ? static_cast<pid_t>(pid) : 0;
}

void writeHolderPid(int fd)
{
    const std::string text = std::to_string(::getpid()) + "\n";
    // The pid only serves the refusal message of a second run: a failed
    // write does not matter for the lock itself.
    if (::ftruncate(fd, 0) == 0) {
        const ssize_t written = ::pwrite(fd, text.data(), text.size(), 0);
        static_cast<void>(written);
    }
}

}  // namespace

std::string DeviceLock::lockFileName(const std::string& spiDevice)
{
    static const char HEX[] = "0123456789ABCDEF";
    std::string name = "merivak-";
    for (const char c : spiDevice) {
        const auto byte = static_cast<unsigned char>(c);
        if (keptAsIs(byte)) {
            name += c;
        } else {
            name += '_';
            name += HEX[byte >> 4];
            name += HEX[byte & 0x0F];
        }
    }
    return name + ".lock";
}

DeviceLock::DeviceLock(const std::string& spiDevice, const std::string& lockFolder)
    : m_path(lockFolder + "/" + lockFileName(spiDevice))
{
    m_fd = ::open(m_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (m_fd < 0 && errno == EACCES) {
        // A lock file made by another user: locking needs no write access.
        m_fd = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    if (m_fd < 0) {
        m_reason = "open " + m_path + ": " + std::strerror(errno);
        return;
    }
    if (::flock(m_fd, LOCK_EX | LOCK_NB) == 0) {
        m_state = State::kAcquired;
        writeHolderPid(m_fd);
        return;
    }
    const int err = errno;
    if (err == EWOULDBLOCK) {
        m_state = State::kBusy;
        m_holderPid = readHolderPid(m_fd);
        return;
    }
    m_reason = "flock " + m_path + ": " + std::strerror(err);
    ::close(m_fd);
    m_fd = -1;
}

DeviceLock::~DeviceLock()
{
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

}  // namespace frontend
