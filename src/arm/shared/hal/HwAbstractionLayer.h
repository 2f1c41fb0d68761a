// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

namespace hal {

// The one door through which board-level code reaches the hardware: the DSP's
// serial flash, the alarm sound and five GPIO lines. The operations are
// declared in a fixed order that the board software's virtual tables rely
// on; keep it.
class HwAbstractionLayer {
public:
    // The process-wide instance, made on the first call (thread-safe) and
    // never destroyed. Call it afresh before each use; never keep or delete
    // the pointer. If making the instance throws, the exception reaches the
    // caller and the next call tries again.
    static HwAbstractionLayer* getInstance();

    virtual ~HwAbstractionLayer();

    // DSP serial flash. The file names are handed through unchanged.
    virtual bool updateDSPflash(QString fileName) = 0;
    virtual bool checkDSPflash(QString fileName) = 0;
    virtual bool readDSPflash(QString fileName) = 0;
    virtual bool eraseDSPflash() = 0;

    // Alarm sounds.
    virtual void playLongBeep() = 0;
    virtual void playShortBeep() = 0;
    virtual void playDoubleBeep() = 0;

    // GPIO lines. Line 48 holds the DSP off its flash while it is 0.
    virtual bool waitGpio2FallingEdge(long timeoutSeconds) = 0;
    virtual int getGpio2Value() = 0;
    virtual void setGpio48Value(int value) = 0;
    virtual int getGpio48Value() = 0;
    virtual void setGpio51Value(int value) = 0;
    virtual int getGpio51Value() = 0;
    virtual void setGpio49Value(int value) = 0;
    virtual int getGpio49Value() = 0;
    virtual void toggleGpio49Value() = 0;
    virtual void setGpio143Value(int value) = 0;
    virtual int getGpio143Value() = 0;
    virtual void toggleGpio143Value() = 0;

protected:
    HwAbstractionLayer() = default;
    HwAbstractionLayer(const HwAbstractionLayer&) = delete;
    HwAbstractionLayer& operator=(const HwAbstractionLayer&) = delete;
};

}  // namespace hal
