// SPDX-License-Identifier: MIT
// The alarm-sound device "/dev/mldalm": a type request that selects the
// melody and a start/stop request that switches the sound on and off.
#pragma once

#include "board.h"

namespace boardsim {

class MelodyDevice {
public:
    static constexpr unsigned long kTypeRequest = 0x40086d00UL;       // _IOW('m', 0, 8 bytes)
    static constexpr unsigned long kStartStopRequest = 0x40016d01UL;  // _IOW('m', 1, 1 byte)

    explicit MelodyDevice(Board& board);

    // ioctl on an open node. Requests of another type than 'm' are not the
    // driver's (handled is set false); the caller passes them on.
    int ioctl(int fd, unsigned long request, const void* argument, int& err, bool& handled);

private:
    void setSound(bool on);

    Board& m_board;
};

}  // namespace boardsim
