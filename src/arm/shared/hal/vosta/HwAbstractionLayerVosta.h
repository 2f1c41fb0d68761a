// SPDX-License-Identifier: MIT
#ifndef MERIVAK_HAL_VOSTA_HWABSTRACTIONLAYERVOSTA_H
#define MERIVAK_HAL_VOSTA_HWABSTRACTIONLAYERVOSTA_H

#include "hal/HwAbstractionLayer.h"
#include "hal/vosta/GpioPin.h"
#include "hal/vosta/Melody.h"
#include "hal/vosta/Merivak.h"

#include <memory>

namespace hal {

// The HAL of this board: the DSP flash driver, the alarm-sound device and
// five GPIO lines, each operation forwarded to the member that owns it.
// Making it opens and configures the SPI device and runs the melody device's
// set-up cycle; the GPIO lines are set up only when first used.
class HwAbstractionLayerVosta : public HwAbstractionLayer {
public:
    HwAbstractionLayerVosta();
    ~HwAbstractionLayerVosta() override;

    bool updateDSPflash(QString fileName) override;
    bool checkDSPflash(QString fileName) override;
    bool readDSPflash(QString fileName) override;
    bool eraseDSPflash() override;

    void playLongBeep() override;
    void playShortBeep() override;
    void playDoubleBeep() override;

    // True only when the edge was seen (false on time-out and failure).
    bool waitGpio2FallingEdge(long timeoutSeconds) override;
    int getGpio2Value() override;
    void setGpio48Value(int value) override;
    int getGpio48Value() override;
    void setGpio51Value(int value) override;
    int getGpio51Value() override;
    void setGpio49Value(int value) override;
    int getGpio49Value() override;
    void toggleGpio49Value() override;
    void setGpio143Value(int value) override;
    int getGpio143Value() override;
    void toggleGpio143Value() override;

private:
    // Destroyed in reverse: the pins (deleted first, in the destructor's
    // body), then the melody device, then the flash driver.
    merivak::Merivak m_merivak;
    melody::Melody m_melody;
    std::unique_ptr<GpioPin> m_pGpio2;    // input, active-low
    std::unique_ptr<GpioPin> m_pGpio48;   // output: 0 holds the DSP off its flash
    std::unique_ptr<GpioPin> m_pGpio51;   // output
    std::unique_ptr<GpioPin> m_pGpio49;   // output
    std::unique_ptr<GpioPin> m_pGpio143;  // output
};

}  // namespace hal

#endif
