// SPDX-License-Identifier: MIT
#ifndef MERIVAK_HAL_VOSTA_GPIOPIN_H
#define MERIVAK_HAL_VOSTA_GPIOPIN_H

#include <cstdint>
#include <fstream>
#include <string>

// Which edge waitForEdge arms: an index into the words of the sysfs "edge"
// attribute.
typedef int GpioEdge;
enum : GpioEdge {
    EDGE_NONE = 0,
    EDGE_RISING = 1,
    EDGE_FALLING = 2,
    EDGE_BOTH = 3,
};

// Outcome of waitForEdge.
typedef unsigned int GpioWaitResult;
enum : GpioWaitResult {
    WAIT_EDGE = 0,     // the edge was seen
    WAIT_TIMEOUT = 1,  // the time ran out
    WAIT_FAILED = 2,   // the wait does not apply to this pin, or a step failed
};

// One GPIO line driven through the kernel's sysfs interface under
// "/sys/class/gpio". Making a pin touches no GPIO state: the first operation
// exports and configures the line, and destroying the pin unexports it.
// The attribute files used again and again are held open as streams for the
// pin's whole life, and every write is flushed at once so that the kernel
// gets each word as one write.
//
// Failed file operations are not reported: a stream that failed stays failed
// (later writes through it are dropped, reads read nothing), and text the
// kernel refused stays in the stream's buffer and is offered again at its next
// flush or close. Only waitForEdge reports failure (WAIT_FAILED).
//
// No locks: one pin must not be used by two threads at once.
class GpioPin {
public:
    GpioPin(int gpioNumber, bool isOutput, bool activeLow);
    ~GpioPin();

    GpioPin(const GpioPin&) = delete;
    GpioPin& operator=(const GpioPin&) = delete;

    // Exports and configures the line once; every operation below calls it
    // first. Never retried, whatever the outcome.
    void openPin();

    // The level read from the value file; 0 when none can be read.
    int getValue();
    void setValue(int value);
    // Writes the inverse of the level read.
    void toggleValue();
    // Arms edge detection for an input line and waits up to timeoutSeconds
    // for one edge. Every signal can interrupt the wait (WAIT_FAILED).
    GpioWaitResult waitForEdge(GpioEdge edge, long timeoutSeconds);
    // Closes the attribute files and unexports the line; always returns 0.
    int closePin();

private:
    std::ofstream m_exportFile;
    std::ofstream m_unexportFile;
    std::string m_numberText;
    std::string m_directoryPath;
    std::fstream m_valueFile;
    std::fstream m_activeLowFile;
    std::fstream m_directionFile;
    std::int32_t m_isOutput;
    std::int32_t m_isActiveLow;
    bool m_isOpen;
};

#endif
