// SPDX-License-Identifier: MIT
#include "hal/vosta/GpioPin.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <ctime>

namespace {

const char* const GPIO_EXPORT_PATH = "/sys/class/gpio/export";
const char* const GPIO_UNEXPORT_PATH = "/sys/class/gpio/unexport";
const char* const GPIO_DIRECTORY_PREFIX = "/sys/class/gpio/gpio";

// The words of the "edge" attribute, indexed by GpioEdge.
const char* const EDGE_WORDS[] = {"none", "rising", "falling", "both"};
constexpr GpioEdge EDGE_COUNT = static_cast<GpioEdge>(sizeof EDGE_WORDS / sizeof EDGE_WORDS[0]);

// The attribute files exist once the line is exported; they are opened for
// reading and writing and must not be created or truncated.
constexpr std::ios_base::openmode ATTRIBUTE_MODE = std::ios_base::in | std::ios_base::out;

}  // namespace

GpioPin::GpioPin(int gpioNumber, bool isOutput, bool activeLow)
    : m_exportFile(GPIO_EXPORT_PATH), m_unexportFile(GPIO_UNEXPORT_PATH), m_numberText(std::to_string(gpioNumber)),
      m_directoryPath(GPIO_DIRECTORY_PREFIX + m_numberText), m_isOutput(isOutput ? 1 : 0),
      m_isActiveLow(activeLow ? 1 : 0), m_isOpen(false)
{
}

GpioPin::~GpioPin()
{
    m_valueFile.close();
    m_activeLowFile.close();
    m_directionFile.close();
    // No flush here: closing the stream delivers the number. If the unexport
    // of openPin was refused (the line was not exported then), that number is
    // still buffered and the stream is failed, so this write is dropped and
    // the close delivers the buffered one instead; the line is unexported
    // either way.
    m_unexportFile << m_numberText;
    m_exportFile.close();
    m_unexportFile.close();
}

void GpioPin::openPin()
{
    if (m_isOpen) {
        return;
    }
    // Release the line first in case an earlier run left it exported.
    m_unexportFile << m_numberText;
    m_unexportFile.flush();
    m_exportFile << m_numberText;
    m_exportFile.flush();

    m_valueFile.open(m_directoryPath + "/value", ATTRIBUTE_MODE);
    m_activeLowFile.open(m_directoryPath + "/active_low", ATTRIBUTE_MODE);
    m_directionFile.open(m_directoryPath + "/direction", ATTRIBUTE_MODE);

    m_activeLowFile << (m_isActiveLow != 0 ? "1" : "0");
    m_activeLowFile.flush();
    m_directionFile << (m_isOutput != 0 ? "out" : "in");
    m_directionFile.flush();

    m_isOpen = true;
}

int GpioPin::getValue()
{
    openPin();
    // A value file that cannot be read (not exported, stream failed, text
    // that is no number) reads as 0, the inactive level: the callers use the
    // result as a level without checking it, and 0 is the one that asks them
    // to do nothing. The extraction itself also stores 0 when the text is not
    // a number, so every failure gives the same answer.
    int value = 0;
    m_valueFile.seekg(0);
    m_valueFile >> value;
    return value;
}

void GpioPin::setValue(int value)
{
    openPin();
    m_valueFile << value;
    m_valueFile.flush();
}

void GpioPin::toggleValue()
{
    openPin();
    const int value = getValue();
    m_valueFile << (value + 1) % 2;
    m_valueFile.flush();
}

GpioWaitResult GpioPin::waitForEdge(GpioEdge edge, long timeoutSeconds)
{
    openPin();

    m_directionFile.seekg(0);
    std::string direction;
    m_directionFile >> direction;
    // An edge index outside the table is refused like EDGE_NONE rather than
    // read past the table's end.
    if (direction == "out" || edge <= EDGE_NONE || edge >= EDGE_COUNT) {
        return WAIT_FAILED;
    }

    {
        // The close delivers the word; an edge file that cannot be opened
        // loses it silently and the wait goes on.
        std::ofstream edgeFile(m_directoryPath + "/edge");
        edgeFile << EDGE_WORDS[edge];
        edgeFile.close();
    }

    const int valueFd = ::open((m_directoryPath + "/value").c_str(), O_RDONLY);
    if (valueFd < 0) {
        return WAIT_FAILED;
    }

    // Reading the current value clears any pending edge notification, so the
    // poll below waits for a new edge.
    char discarded[4];
    if (::read(valueFd, discarded, sizeof discarded) < 0) {
        // Nothing to do: a failed read leaves the poll to decide.
    }

    pollfd watched{};
    watched.fd = valueFd;
    watched.events = POLLPRI;
    timespec timeout{};
    timeout.tv_sec = static_cast<time_t>(timeoutSeconds);
    timeout.tv_nsec = 0;
    sigset_t noSignalsBlocked;
    sigemptyset(&noSignalsBlocked);

    GpioWaitResult result = WAIT_FAILED;
    const int ready = ::ppoll(&watched, 1, &timeout, &noSignalsBlocked);
    if (ready == 0) {
        result = WAIT_TIMEOUT;
    } else if (ready > 0 && (watched.revents & POLLPRI) != 0) {
        result = WAIT_EDGE;
    }

    ::close(valueFd);
    return result;
}

int GpioPin::closePin()
{
    m_valueFile.close();
    m_activeLowFile.close();
    m_directionFile.close();
    m_unexportFile << m_numberText;
    m_unexportFile.flush();
    // The export file stays open: a later openPin exports the line again (its
    // unexport write then goes to this closed stream and is dropped).
    m_unexportFile.close();
    m_isOpen = false;
    return 0;
}
