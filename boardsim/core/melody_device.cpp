// SPDX-License-Identifier: MIT
#include "melody_device.h"

#include "errno_names.h"

#include <linux/ioctl.h>

#include <cerrno>
#include <cstring>

namespace boardsim {

MelodyDevice::MelodyDevice(Board& board) : m_board(board) {}

void MelodyDevice::setSound(bool on)
{
    RunBlock& run = m_board.run();
    if ((run.soundOn != 0) == on) {
        return;
    }
    run.soundOn = on ? 1 : 0;
    const std::int64_t now = m_board.now();
    if (run.soundCount < static_cast<std::uint32_t>(kMaxSoundEvents)) {
        run.sounds[run.soundCount++] = SoundEvent{now, run.soundOn, run.soundType};
    }
    Trace& trace = m_board.trace();
    if (trace.enabled()) {
        JsonWriter event = Trace::event(now, "sound");
        event.boolean("on", on).unsignedNumber("type", run.soundType);
        trace.emit(event);
    }
}

int MelodyDevice::ioctl(int fd, unsigned long request, const void* argument, int& err, bool& handled)
{
    handled = _IOC_TYPE(request) == 'm';
    if (!handled) {
        return -1;
    }
    RunBlock& run = m_board.run();
    ++run.counters.melodyRequests;
    const char* name = request == kTypeRequest ? "TYPE" : request == kStartStopRequest ? "START_STOP" : nullptr;
    const auto* bytes = static_cast<const std::uint8_t*>(argument);
    err = 0;
    if (name == nullptr) {
        err = ENOTTY;
    } else if (argument == nullptr) {
        err = EFAULT;
    } else if (request == kTypeRequest) {
        // Bytes 0 and 1: flags, byte 2-3: gap, bytes 4-7: the melody type,
        // little-endian. The sound plays the type set last.
        run.soundType = static_cast<std::uint32_t>(bytes[4]) | static_cast<std::uint32_t>(bytes[5]) << 8 |
                        static_cast<std::uint32_t>(bytes[6]) << 16 | static_cast<std::uint32_t>(bytes[7]) << 24;
    }
    const int result = err == 0 ? 0 : -1;
    if (err != 0) {
        ++run.counters.melodyFailed;
    }
    Trace& trace = m_board.trace();
    if (trace.enabled()) {
        JsonWriter event = Trace::event(m_board.now(), "melody_ioctl");
        event.number("fd", fd);
        if (name != nullptr) {
            event.string("req", name);
        } else {
            event.null("req");
        }
        event.unsignedNumber("request", request);
        event.hex("bytes", name != nullptr ? bytes : nullptr, _IOC_SIZE(request));
        event.number("result", result);
        Trace::putErrno(event, err);
        trace.emit(event);
    }
    if (err == 0 && request == kStartStopRequest) {
        // The request's size field covers one byte: that byte decides.
        setSound(bytes[0] != 0);
    }
    return result;
}

}  // namespace boardsim
