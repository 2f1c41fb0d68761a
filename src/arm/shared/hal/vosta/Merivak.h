// SPDX-License-Identifier: MIT
#ifndef MERIVAK_HAL_VOSTA_MERIVAK_H
#define MERIVAK_HAL_VOSTA_MERIVAK_H

#include "InitSingletonT.h"

#include <QByteArray>
#include <QObject>
#include <QString>

#include <linux/spi/spidev.h>

namespace merivak {

class Merivak;
typedef shared::InitSingletonT<Merivak> BASE_InitSingleton_OF_Merivak;

// Driver of the DSP's serial NOR flash on the SPI bus that spidev exposes.
// The device is opened and configured once, by the constructor, and every
// flash operation talks to the flash by whole SPI messages, one ioctl each.
// Each operation holds GPIO line 48 at 0 (the DSP off its flash) through the
// HAL from before its first transfer and sets it back to 1 on every exit.
//
// Failures are logged on "spi_logger" and reported by a false result; nothing
// throws. Once a termination signal requested a stop (StopRequest.h), no
// further message is sent and the running operation fails. No locks: one operation at a time, from one thread.
class Merivak : public QObject, public BASE_InitSingleton_OF_Merivak {
    Q_OBJECT

public:
    // Default SPI device; the environment variable SPI_BUS_DEVICE, when set
    // (even to the empty text), names another.
    static const char* const SPI_BUS_DEVICE_NAME;

    // Opens and configures the SPI device; failures are only logged.
    Merivak();
    ~Merivak() override;

    // The SPI device the driver opens: $SPI_BUS_DEVICE when set (even to the
    // empty text), else SPI_BUS_DEVICE_NAME.
    static const char* spiDevicePath();

    Merivak(const Merivak&) = delete;
    Merivak& operator=(const Merivak&) = delete;

    // Polls the status register until the flash is not busy: true when ready,
    // false when a transfer fails or after 3125 busy reads.
    bool wait_tillFlashIsReady();
    // Erases the whole chip and waits (up to ten polling runs with one-second
    // pauses) until the erase is done.
    bool eraseDSPflash();
    // Programs the image in fileName page by page from address 0; does not erase.
    bool updateDSPflash(QString fileName);
    // True when the flash holds the bytes of fileName from address 0.
    bool checkDSPflash(QString fileName);
    // Saves the 128 KiB firmware area into fileName; the file is written only
    // after every page was read.
    bool readDSPflash(QString fileName);

protected slots:
    // Reachable only through the meta-object system; does nothing.
    void handleSPIdata();

private:
    void connectSPIbus();
    // Line 48 at 0 holds the DSP off its flash while the host uses the bus; 1
    // lets it boot from the flash again. Set through the HAL.
    static void setDspHoldLine(int level);
    // The one way a message reaches the bus: one SPI_IOC_MESSAGE(N) ioctl
    // with N records. False when the ioctl fails (logged with its errno) or
    // when a termination signal requested a stop: then nothing is sent and
    // the signal is logged (once). Line 48 is left to the caller.
    bool sendMessage(unsigned long request, spi_ioc_transfer* message);
    // Reads the 512 pages of the firmware area into image, polling after each.
    // On failure logs, sets line 48 back to 1 and returns false.
    bool readFirmwareArea(QByteArray& image);

    int m_spiFd;
};

}  // namespace merivak

#endif
