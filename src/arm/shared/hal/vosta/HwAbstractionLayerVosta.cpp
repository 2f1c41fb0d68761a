// SPDX-License-Identifier: MIT
#include "hal/vosta/HwAbstractionLayerVosta.h"

#include "logging/Log.h"

#include <cstdlib>

namespace hal {

namespace {

// Deletes one pin; a pin whose destructor throws leaves the board in an
// unknown state, so the process ends at once.
void deletePin(std::unique_ptr<GpioPin>& pin)
{
    try {
        pin.reset();
    } catch (...) {
        MERIVAK_LOG_ERROR("exception_logger", "Unexpected exception!");
        std::abort();
    }
}

}  // namespace

HwAbstractionLayerVosta::HwAbstractionLayerVosta()
    : m_merivak(), m_melody(), m_pGpio2(new GpioPin(2, false, true)), m_pGpio48(new GpioPin(48, true, false)),
      m_pGpio51(new GpioPin(51, true, false)), m_pGpio49(new GpioPin(49, true, false)),
      m_pGpio143(new GpioPin(143, true, false))
{
}

HwAbstractionLayerVosta::~HwAbstractionLayerVosta()
{
    deletePin(m_pGpio2);
    deletePin(m_pGpio48);
    deletePin(m_pGpio51);
    deletePin(m_pGpio49);
    deletePin(m_pGpio143);
}

bool HwAbstractionLayerVosta::updateDSPflash(QString fileName)
{
    return m_merivak.updateDSPflash(fileName);
}

bool HwAbstractionLayerVosta::checkDSPflash(QString fileName)
{
    return m_merivak.checkDSPflash(fileName);
}

bool HwAbstractionLayerVosta::readDSPflash(QString fileName)
{
    return m_merivak.readDSPflash(fileName);
}

bool HwAbstractionLayerVosta::eraseDSPflash()
{
    return m_merivak.eraseDSPflash();
}

void HwAbstractionLayerVosta::playLongBeep()
{
    m_melody.playLongBeep();
}

void HwAbstractionLayerVosta::playShortBeep()
{
    m_melody.playShortBeep();
}

void HwAbstractionLayerVosta::playDoubleBeep()
{
    m_melody.playDoubleBeep();
}

bool HwAbstractionLayerVosta::waitGpio2FallingEdge(long timeoutSeconds)
{
    return m_pGpio2->waitForEdge(EDGE_FALLING, timeoutSeconds) == WAIT_EDGE;
}

int HwAbstractionLayerVosta::getGpio2Value()
{
    return m_pGpio2->getValue();
}

void HwAbstractionLayerVosta::setGpio48Value(int value)
{
    m_pGpio48->setValue(value);
}

int HwAbstractionLayerVosta::getGpio48Value()
{
    return m_pGpio48->getValue();
}

void HwAbstractionLayerVosta::setGpio51Value(int value)
{
    m_pGpio51->setValue(value);
}

int HwAbstractionLayerVosta::getGpio51Value()
{
    return m_pGpio51->getValue();
}

void HwAbstractionLayerVosta::setGpio49Value(int value)
{
    m_pGpio49->setValue(value);
}

int HwAbstractionLayerVosta::getGpio49Value()
{
    return m_pGpio49->getValue();
}

void HwAbstractionLayerVosta::toggleGpio49Value()
{
    m_pGpio49->toggleValue();
}

void HwAbstractionLayerVosta::setGpio143Value(int value)
{
    m_pGpio143->setValue(value);
}

int HwAbstractionLayerVosta::getGpio143Value()
{
    return m_pGpio143->getValue();
}

void HwAbstractionLayerVosta::toggleGpio143Value()
{
    m_pGpio143->toggleValue();
}

HwAbstractionLayer* HwAbstractionLayer::getInstance()
{
    // Made on the first call under the language's guarded initialisation, so
    // concurrent first calls make one instance; if the construction throws,
    // the static stays unset and the next call tries again. Never deleted on
    // purpose: the board's lines and the SPI device stay as the last
    // operation left them until the process ends (line 48 stays exported at
    // 1, releasing the DSP).
    static HwAbstractionLayer* const s_pInstance = new HwAbstractionLayerVosta;
    return s_pInstance;
}

}  // namespace hal
