// SPDX-License-Identifier: MIT
#include "trace.h"

#include "errno_names.h"
#include "sys_io.h"

namespace boardsim {
namespace {

constexpr int kTraceFdFloor = 900;

}  // namespace

Trace::~Trace()
{
    if (fd() >= 0) {
        sys::closeFile(fd());
    }
}

bool Trace::open(const char* path)
{
    if (path == nullptr || path[0] == '\0') {
        return true;
    }
    const int fd = sys::openFile(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    // Kept on a high number, out of the range programs use and hand out.
    const int high = static_cast<int>(syscall(SYS_fcntl, fd, F_DUPFD_CLOEXEC, kTraceFdFloor));
    if (high >= 0) {
        sys::closeFile(fd);
        m_fd = high;
    } else {
        m_fd = fd;
    }
    return true;
}

void Trace::moveAway()
{
    const int current = fd();
    if (current < 0) {
        return;
    }
    const int other = static_cast<int>(syscall(SYS_fcntl, current, F_DUPFD_CLOEXEC, current + 1));
    if (other >= 0) {
        m_fd.store(other, std::memory_order_relaxed);
        sys::closeFile(current);
    }
}

JsonWriter Trace::event(std::int64_t timeNs, const char* name)
{
    JsonWriter writer;
    writer.beginObject().number("t", timeNs).string("ev", name);
    return writer;
}

void Trace::emit(JsonWriter& event)
{
    const int current = fd();
    if (current < 0) {
        return;
    }
    event.endObject();
    event.text() += '\n';
    if (m_holding > 0) {
        m_pending += event.text();
        return;
    }
    sys::writeAll(current, event.text().data(), event.text().size());
}

void Trace::release()
{
    if (m_holding > 0 && --m_holding == 0 && !m_pending.empty()) {
        const int current = fd();
        if (current >= 0) {
            sys::writeAll(current, m_pending.data(), m_pending.size());
        }
        m_pending.clear();
    }
}

void Trace::putErrno(JsonWriter& event, int err)
{
    if (err != 0) {
        event.string("errno", errnoName(err));
    } else {
        event.null("errno");
    }
}

}  // namespace boardsim
