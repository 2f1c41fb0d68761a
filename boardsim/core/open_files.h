// SPDX-License-Identifier: MIT
// The process's simulated descriptors: which descriptor numbers stand for a
// simulated device file, and that file's state (kind, access mode, offset).
//
// Lookups are lock-free so that the calls on ordinary descriptors, which are
// nearly all calls, pay one atomic load. Binding and unbinding happen under
// the board lock; a lookup that finds a file re-checks it under the lock.
// File records are reused, never freed, so a racing lookup never touches
// freed memory.
#pragma once

#include "gpio_sysfs.h"

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace boardsim {

enum class FileKind : std::uint8_t { kSpidev, kMelody, kGpioExport, kGpioUnexport, kGpioAttribute };

struct OpenFile {
    FileKind kind = FileKind::kSpidev;
    int access = 0;  // O_RDONLY, O_WRONLY or O_RDWR
    dev_t device = 0;
    ino_t inode = 0;
    int line = -1;
    GpioAttribute attribute = GpioAttribute::kValue;
    std::uint32_t generation = 0;
    std::uint32_t seenNotify = 0;
    std::int64_t offset = 0;
    int references = 0;  // descriptors bound to it (dup shares the file)
    std::string path;    // for the trace
};

class OpenFiles {
public:
    static constexpr int kSlots = 4096;

    OpenFiles();

    OpenFile* peek(int fd) const
    {
        return fd >= 0 && fd < kSlots ? m_slots[fd].load(std::memory_order_acquire) : nullptr;
    }

    // Under the board lock from here on.
    OpenFile* create();
    void bind(int fd, OpenFile* file);
    // Unbinds fd; returns its file when this was the file's last descriptor
    // (the file is then recycled after the caller is done with it under the
    // same lock), else nullptr.
    OpenFile* unbind(int fd);

private:
    std::atomic<OpenFile*> m_slots[kSlots];
    std::deque<OpenFile> m_files;
    std::vector<OpenFile*> m_free;
};

}  // namespace boardsim
