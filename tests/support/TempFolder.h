// SPDX-License-Identifier: MIT
#pragma once

// A fresh folder under $TMPDIR (or /tmp), removed with everything in it when
// the object goes.

#include <string>

namespace testsupport {

class TempFolder {
public:
    explicit TempFolder(const std::string& prefix = "merivak-test");
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& path() const { return m_path; }
    std::string path(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Whole content of a file; empty if it cannot be read.
std::string readText(const std::string& path);

}  // namespace testsupport
