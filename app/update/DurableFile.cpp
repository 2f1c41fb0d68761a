// SPDX-License-Identifier: MIT
#include "DurableFile.h"

#include "ReadUpTo.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace update {

namespace {

std::string failed(const std::string& what, const std::string& path)
{
    return what + " " + path + ": " + std::strerror(errno);
}

std::string folderOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

bool writeAndSync(const std::string& path, const QByteArray& bytes, std::string& error)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = failed("cannot create", path);
        return false;
    }
    int written = 0;
    while (written < bytes.size()) {
        const ssize_t put = ::write(fd, bytes.constData() + written, static_cast<size_t>(bytes.size() - written));
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            error = failed("cannot write", path);
            ::close(fd);
            return false;
        }
        written += static_cast<int>(put);
    }
    // Write errors of the page cache show up here or at close, not at write.
    if (::fsync(fd) != 0) {
        error = failed("cannot flush", path);
        ::close(fd);
        return false;
    }
    if (::close(fd) != 0) {
        error = failed("cannot close", path);
        return false;
    }
    return true;
}

bool replaceAtomically(const std::string& target, const QByteArray& bytes, std::string& error)
{
    // The temporary file must lie in the target's folder: rename is atomic
    // only within one file system. A leftover of a crashed run is overwritten.
    const std::string temporary = target + ".partial";
    if (!writeAndSync(temporary, bytes, error)) {
        ::unlink(temporary.c_str());
        return false;
    }
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        error = failed("cannot rename " + temporary + " to", target);
        ::unlink(temporary.c_str());
        return false;
    }
    // Without this the rename itself may be lost in a power cut.
    const std::string folder = folderOf(target);
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || ::fsync(fd) != 0) {
        error = failed("cannot flush the folder", folder);
        if (fd >= 0) {
            ::close(fd);
        }
        return false;
    }
    ::close(fd);
    return true;
}

bool readUpTo(const std::string& path, int maxBytes, QByteArray& bytes, std::string& error)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = failed("cannot open", path);
        return false;
    }
    const int readError = frontend::readUpTo(fd, maxBytes, bytes);
    ::close(fd);
    if (readError != 0) {
        errno = readError;
        error = failed("cannot read", path);
        return false;
    }
    return true;
}

StagingFolder::StagingFolder()
{
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/merivak-update.XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr) {
        m_error = failed("cannot create a folder like", pattern);
        return;
    }
    m_path = buffer.data();
}

StagingFolder::~StagingFolder()
{
    if (m_path.empty()) {
        return;
    }
    for (const std::string& name : m_names) {
        ::unlink((m_path + "/" + name).c_str());
    }
    ::rmdir(m_path.c_str());
}

}  // namespace update
