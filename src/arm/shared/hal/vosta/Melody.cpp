// SPDX-License-Identifier: MIT
#include "hal/vosta/Melody.h"

#include "logging/Log.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace melody {

namespace {

// The melody type record the driver expects with MELODY_IOC_TYPE: two leading
// bytes (1 and 0), a two-byte alignment gap, then the type value.
struct MelodyTypeRecord {
    std::uint8_t first;
    std::uint8_t second;
    std::uint32_t melodyType;
};
static_assert(sizeof(MelodyTypeRecord) == 8, "the driver reads an 8-byte type record");

const unsigned long MELODY_IOC_TYPE = _IOW('m', 0, MelodyTypeRecord);
// The request declares one byte although a 32-bit value is passed; that is
// the encoding the device driver answers to.
const unsigned long MELODY_IOC_START_STOP = _IOW('m', 1, char);
static_assert(_IOW('m', 0, MelodyTypeRecord) == 0x40086d00, "MELODY_IOC_TYPE encoding");
static_assert(_IOW('m', 1, char) == 0x40016d01, "MELODY_IOC_START_STOP encoding");

const std::int32_t MELODY_START = 1;
const std::int32_t MELODY_STOP = 0;

const unsigned int ALARM_MELODY_TYPE = 2000;
const unsigned int LONG_BEEP_MS = 500;
const unsigned int SHORT_BEEP_MS = 30;
const unsigned int DOUBLE_BEEP_MS = 76;
const useconds_t DOUBLE_BEEP_GAP_US = 38000;

}  // namespace

const char* const Melody::MELODY_DEVICE_NAME = "/dev/mldalm";

Melody::Melody() : QObject(nullptr), m_deviceFd(-1)
{
    melodyInit();
}

Melody::~Melody()
{
    if (m_deviceFd >= 0) {
        ::close(m_deviceFd);
    }
}

void Melody::melodyInit()
{
    runCycle(ALARM_MELODY_TYPE, 0, false);
}

void Melody::melodyPlay(unsigned int melodyType, unsigned int durationMs)
{
    runCycle(melodyType, durationMs * 1000U, true);
}

void Melody::playLongBeep()
{
    melodyPlay(ALARM_MELODY_TYPE, LONG_BEEP_MS);
}

void Melody::playShortBeep()
{
    melodyPlay(ALARM_MELODY_TYPE, SHORT_BEEP_MS);
}

void Melody::playDoubleBeep()
{
    melodyPlay(ALARM_MELODY_TYPE, DOUBLE_BEEP_MS);
    ::usleep(DOUBLE_BEEP_GAP_US);
    melodyPlay(ALARM_MELODY_TYPE, DOUBLE_BEEP_MS);
}

void Melody::runCycle(unsigned int melodyType, unsigned int pauseMicroseconds, bool pauseBetween)
{
    // The open is not tested: on failure the descriptor is -1 and each request
    // below fails and is logged on its own.
    m_deviceFd = ::open(MELODY_DEVICE_NAME, O_RDWR);

    MelodyTypeRecord record;
    std::memset(&record, 0, sizeof record);
    record.first = 1;
    record.second = 0;
    record.melodyType = melodyType;
    if (::ioctl(m_deviceFd, MELODY_IOC_TYPE, &record) < 0) {
        const int err = errno;
        MERIVAK_LOG_ERROR("spi_logger", "Melody type cannot be sent -> "
                                            << "ERRNO : " << err);
    }

    std::int32_t startStop = MELODY_START;
    if (::ioctl(m_deviceFd, MELODY_IOC_START_STOP, &startStop) < 0) {
        const int err = errno;
        MERIVAK_LOG_ERROR("spi_logger", "Melody START cannot be sent -> "
                                            << "ERRNO : " << err);
    }

    if (pauseBetween) {
        ::usleep(pauseMicroseconds);
    }

    startStop = MELODY_STOP;
    if (::ioctl(m_deviceFd, MELODY_IOC_START_STOP, &startStop) < 0) {
        const int err = errno;
        MERIVAK_LOG_ERROR("spi_logger", "Melody STOP cannot be sent -> "
                                            << "ERRNO : " << err);
    }

    if (m_deviceFd >= 0) {
        ::close(m_deviceFd);
    }
    m_deviceFd = -1;
}

}  // namespace melody
