// SPDX-License-Identifier: MIT
#include "open_files.h"

namespace boardsim {

OpenFiles::OpenFiles()
{
    for (auto& slot : m_slots) {
        slot.store(nullptr, std::memory_order_relaxed);
    }
}

OpenFile* OpenFiles::create()
{
    if (!m_free.empty()) {
        OpenFile* file = m_free.back();
        m_free.pop_back();
        *file = OpenFile();
        return file;
    }
    m_files.emplace_back();
    return &m_files.back();
}

void OpenFiles::bind(int fd, OpenFile* file)
{
    if (fd < 0 || fd >= kSlots) {
        return;
    }
    OpenFile* previous = m_slots[fd].exchange(file, std::memory_order_acq_rel);
    if (previous != nullptr && --previous->references == 0) {
        m_free.push_back(previous);
    }
    ++file->references;
}

OpenFile* OpenFiles::unbind(int fd)
{
    if (fd < 0 || fd >= kSlots) {
        return nullptr;
    }
    OpenFile* file = m_slots[fd].exchange(nullptr, std::memory_order_acq_rel);
    if (file == nullptr || --file->references > 0) {
        return nullptr;
    }
    m_free.push_back(file);
    return file;
}

}  // namespace boardsim
