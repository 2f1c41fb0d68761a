// SPDX-License-Identifier: MIT
// The kernel's sysfs GPIO interface: export and unexport, the four attribute
// files of an exported line, levels with active_low, armed edges that wake a
// poll on the value file. The model state lives in the run block; every
// change is mirrored into the state folder's gpio tree, where the attribute
// files hold the text that reading them gives.
#pragma once

#include "board.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace boardsim {

enum class GpioAttribute : std::uint8_t { kValue, kDirection, kActiveLow, kEdge };

class GpioSysfs final : public EdgeHandler {
public:
    explicit GpioSysfs(Board& board);
    virtual ~GpioSysfs() = default;
    GpioSysfs(const GpioSysfs&) = delete;
    GpioSysfs& operator=(const GpioSysfs&) = delete;

    // The stores: 0 when the kernel accepts the text, else its errno.
    int writeExport(const char* data, std::size_t length);
    int writeUnexport(const char* data, std::size_t length);
    int writeAttribute(int line, GpioAttribute attribute, const char* data, std::size_t length);

    // What reading the attribute shows, e.g. "1\n".
    std::string show(int line, GpioAttribute attribute) const;

    bool exists(int line) const { return line >= 0 && line < kGpioLines; }
    bool exported(int line) const { return exists(line) && m_lines[line].exported != 0; }
    std::uint32_t generation(int line) const { return m_lines[line].generation; }
    std::uint32_t notifyCount(int line) const { return m_lines[line].notifyCount; }
    // The electrical level of the line.
    int level(int line) const;

    // Backing file of an attribute (or the line's folder for nullptr name).
    std::string backingPath(int line, const char* name) const;
    std::string treePath() const;

    void applyEdge(const EdgeEvent& edge) override;

    static const char* attributeName(GpioAttribute attribute);

private:
    void mirror(int line);
    void noteLevel(int line, int before, bool becameOutput);

    Board& m_board;
    GpioLine* m_lines;
};

// The kernel's kstrtol(text, 0): optional sign, 0x/0 prefixes, one trailing
// newline; 0 on success, EINVAL or ERANGE.
int parseKernelLong(const char* data, std::size_t length, long& value);

// The kernel's sysfs_streq: equal up to one trailing newline on either side.
bool sysfsEquals(const char* data, std::size_t length, const char* word);

}  // namespace boardsim
