// SPDX-License-Identifier: MIT
#include "program_check.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace boardsim {

// The file execvp would run for name, or empty when there is none.
std::string findProgram(const std::string& name)
{
    if (name.find('/') != std::string::npos) {
        return name;
    }
    const char* path = std::getenv("PATH");
    std::string folders = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
    std::size_t start = 0;
    while (start <= folders.size()) {
        std::size_t colon = folders.find(':', start);
        if (colon == std::string::npos) {
            colon = folders.size();
        }
        const std::string folder = colon > start ? folders.substr(start, colon - start) : std::string(".");
        const std::string candidate = folder + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        start = colon + 1;
    }
    return std::string();
}

// True for a 64- or 32-bit ELF program without a program interpreter: the
// dynamic loader never runs in it, so nothing can be preloaded and it would
// reach the real devices.
bool staticallyLinked(const std::string& program)
{
    const int fd = open(program.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    unsigned char header[sizeof(Elf64_Ehdr)] = {};
    bool isStatic = false;
    if (read(fd, header, sizeof header) >= static_cast<ssize_t>(sizeof(Elf32_Ehdr)) &&
        std::memcmp(header, ELFMAG, SELFMAG) == 0) {
        const bool wide = header[EI_CLASS] == ELFCLASS64;
        Elf64_Ehdr elf64{};
        Elf32_Ehdr elf32{};
        std::memcpy(&elf64, header, sizeof elf64);
        std::memcpy(&elf32, header, sizeof elf32);
        const std::uint64_t tableOffset = wide ? elf64.e_phoff : elf32.e_phoff;
        const unsigned count = wide ? elf64.e_phnum : elf32.e_phnum;
        const unsigned entrySize = wide ? elf64.e_phentsize : elf32.e_phentsize;
        const std::uint16_t type = wide ? elf64.e_type : elf32.e_type;
        bool interpreter = false;
        for (unsigned i = 0; i < count && entrySize >= 4; ++i) {
            std::uint32_t entryType = 0;
            if (pread(fd, &entryType, sizeof entryType, static_cast<off_t>(tableOffset + i * entrySize)) ==
                    static_cast<ssize_t>(sizeof entryType) &&
                entryType == PT_INTERP) {
                interpreter = true;
            }
        }
        // Static PIE programs are ET_DYN without an interpreter too.
        isStatic = (type == ET_EXEC || type == ET_DYN) && !interpreter;
    }
    close(fd);
    return isStatic;
}

}  // namespace boardsim
