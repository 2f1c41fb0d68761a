// SPDX-License-Identifier: MIT
#pragma once

// Files that must survive a crash or a power cut as a whole or not at all,
// and the private folder the flash driver reads and writes its files in.

#include <QByteArray>
#include <QString>

#include <set>
#include <string>

namespace update {

// Writes bytes to path (created or truncated) and flushes them to the disk.
// On failure returns false with the reason in error.
bool writeAndSync(const std::string& path, const QByteArray& bytes, std::string& error);

// Replaces target by a fully written copy of bytes: temporary file beside it,
// fsync, rename, fsync of the folder. A crash at any point leaves either the
// old target or the new one, never a truncated file.
bool replaceAtomically(const std::string& target, const QByteArray& bytes, std::string& error);

// Reads at most maxBytes + 1 bytes of path, so that callers see oversize.
bool readUpTo(const std::string& path, int maxBytes, QByteArray& bytes, std::string& error);

// A folder of our own under $TMPDIR (or /tmp), removed with its files on
// destruction. The driver only ever gets file names in here: plain ASCII
// names of files no one else writes.
class StagingFolder {
public:
    StagingFolder();
    ~StagingFolder();
    StagingFolder(const StagingFolder&) = delete;
    StagingFolder& operator=(const StagingFolder&) = delete;

    bool valid() const { return !m_path.empty(); }
    const std::string& creationError() const { return m_error; }
    // Every name handed out is remembered, so that the destructor removes
    // exactly those files without reading the folder (a 32-bit program's
    // readdir can fail on file systems with 64-bit directory cookies).
    std::string file(const char* name) const
    {
        m_names.insert(name);
        return m_path + "/" + name;
    }
    QString driverName(const char* name) const { return QString::fromLocal8Bit(file(name).c_str()); }

private:
    std::string m_path;
    std::string m_error;
    mutable std::set<std::string> m_names;
};

}  // namespace update
