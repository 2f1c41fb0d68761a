// SPDX-License-Identifier: MIT
#include "hal/vosta/Merivak.h"

#include "hal/HwAbstractionLayer.h"
#include "hal/vosta/StopRequest.h"
#include "logging/Log.h"

#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

// The empty shared instance pointer of the driver exists from start-up on.
template class shared::InitSingletonT<merivak::Merivak>;

namespace merivak {

namespace {

const std::uint8_t BUS_MODE = SPI_MODE_0;  // clock idle low, sample on the leading edge
const std::uint8_t BUS_BITS_PER_WORD = 8;
const std::uint32_t BUS_MAX_SPEED_HZ = 10000000;

static_assert(SPI_IOC_WR_MODE == 0x40016b01, "SPI_IOC_WR_MODE encoding");
static_assert(SPI_IOC_RD_MODE == 0x80016b01, "SPI_IOC_RD_MODE encoding");
static_assert(SPI_IOC_WR_BITS_PER_WORD == 0x40016b03, "SPI_IOC_WR_BITS_PER_WORD encoding");
static_assert(SPI_IOC_RD_BITS_PER_WORD == 0x80016b03, "SPI_IOC_RD_BITS_PER_WORD encoding");
static_assert(SPI_IOC_WR_MAX_SPEED_HZ == 0x40046b04, "SPI_IOC_WR_MAX_SPEED_HZ encoding");
static_assert(SPI_IOC_RD_MAX_SPEED_HZ == 0x80046b04, "SPI_IOC_RD_MAX_SPEED_HZ encoding");

}  // namespace

const char* const Merivak::SPI_BUS_DEVICE_NAME = "/dev/spidev0.0";

const char* Merivak::spiDevicePath()
{
    if (const char* configured = std::getenv("SPI_BUS_DEVICE")) {
        return configured;
    }
    return SPI_BUS_DEVICE_NAME;
}

void Merivak::setDspHoldLine(int level)
{
    hal::HwAbstractionLayer::getInstance()->setGpio48Value(level);
}

Merivak::Merivak() : QObject(nullptr), m_spiFd(-1)
{
    connectSPIbus();
}

Merivak::~Merivak()
{
    if (m_spiFd >= 0) {
        ::close(m_spiFd);
    }
}

void Merivak::connectSPIbus()
{
    const char* path = spiDevicePath();
    // Not tested here: a failed open leaves -1, every request below then
    // fails and is logged, and each flash operation fails at its first
    // transfer. The device is never reopened.
    m_spiFd = ::open(path, O_RDWR);

    // Each setting is written, then read back into the same variable. The
    // values read back are not compared; a failed request is logged and the
    // next one is still issued.
    std::uint8_t mode = BUS_MODE;
    if (::ioctl(m_spiFd, SPI_IOC_WR_MODE, &mode) < 0) {
        MERIVAK_LOG_ERROR("spi_logger", "SPI_IOC_WR_MODE() failed.");
    }
    if (::ioctl(m_spiFd, SPI_IOC_RD_MODE, &mode) < 0) {
        MERIVAK_LOG_ERROR("spi_logger", "SPI_IOC_RD_MODE() failed.");
    }

    std::uint8_t bitsPerWord = BUS_BITS_PER_WORD;
    if (::ioctl(m_spiFd, SPI_IOC_WR_BITS_PER_WORD, &bitsPerWord) < 0) {
        MERIVAK_LOG_ERROR("spi_logger", "SPI_IOC_WR_BITS_PER_WORD() failed.");
    }
    if (::ioctl(m_spiFd, SPI_IOC_RD_BITS_PER_WORD, &bitsPerWord) < 0) {
        MERIVAK_LOG_ERROR("spi_logger", "SPI_IOC_RD_BITS_PER_WORD() failed.");
    }

    std::uint32_t maxSpeedHz = BUS_MAX_SPEED_HZ;
    if (::ioctl(m_spiFd, SPI_IOC_WR_MAX_SPEED_HZ, &maxSpeedHz) < 0) {
        MERIVAK_LOG_ERROR("spi_logger", "SPI_IOC_WR_MAX_SPEED_HZ() failed.");
    }
    if (::ioctl(m_spiFd, SPI_IOC_RD_MAX_SPEED_HZ, &maxSpeedHz) < 0) {
        MERIVAK_LOG_ERROR("spi_logger", "SPI_IOC_RD_MAX_SPEED_HZ() failed.");
    }
}

bool Merivak::sendMessage(unsigned long request, spi_ioc_transfer* message)
{
    // A stop keeps the flash from starting anything new; the caller's failure
    // path then releases line 48.
    if (stopSignal() != 0) {
        logStopOnce("SPI message not sent");
        return false;
    }
    if (::ioctl(m_spiFd, request, message) < 0) {
        const int err = errno;
        MERIVAK_LOG_ERROR("spi_logger", "SPI message cannot be sent -> "
                                            << "ERRNO : " << err);
        return false;
    }
    return true;
}

void Merivak::handleSPIdata() {}

}  // namespace merivak
