// SPDX-License-Identifier: MIT
#ifndef MERIVAK_HAL_VOSTA_MELODY_H
#define MERIVAK_HAL_VOSTA_MELODY_H

#include <QObject>

namespace melody {

// The board's alarm-sound device "/dev/mldalm". Each operation opens the
// node, sets the melody type, starts and stops the sound and closes the node
// again; no descriptor is held between operations. Failures are logged on
// "spi_logger" and the operation goes on with its next step; nothing is
// reported to the caller. No locks: use from one thread at a time.
class Melody : public QObject {
    Q_OBJECT

public:
    static const char* const MELODY_DEVICE_NAME;

    // Runs one set-up cycle (melodyInit) on the device.
    Melody();
    ~Melody() override;

    Melody(const Melody&) = delete;
    Melody& operator=(const Melody&) = delete;

    // Type 2000, START and at once STOP.
    void melodyInit();
    // Sounds melodyType for durationMs milliseconds; blocks for that long.
    void melodyPlay(unsigned int melodyType, unsigned int durationMs);
    void playLongBeep();
    void playShortBeep();
    void playDoubleBeep();

private:
    // One open-type-START-[pause]-STOP-close cycle.
    void runCycle(unsigned int melodyType, unsigned int pauseMicroseconds, bool pauseBetween);

    int m_deviceFd;
};

}  // namespace melody

#endif
