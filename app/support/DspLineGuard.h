// SPDX-License-Identifier: MIT
#ifndef MERIVAK_APP_SUPPORT_DSPLINEGUARD_H
#define MERIVAK_APP_SUPPORT_DSPLINEGUARD_H

// Puts line 48 back at 1 (the DSP boots from its flash again) when an
// exception leaves the scope, e.g. std::bad_alloc while a flash operation
// reads its image. A normal exit leaves the line to the operation, which
// releases it on every path of its own.

#include "hal/HwAbstractionLayer.h"

#include <exception>

namespace frontend {

class DspLineGuard {
public:
    // hal: the instance the guarded operation runs on; it exists, so the
    // release cannot fail by making it.
    explicit DspLineGuard(hal::HwAbstractionLayer& hal) : m_hal(hal), m_exceptions(std::uncaught_exceptions()) {}
    ~DspLineGuard()
    {
        if (std::uncaught_exceptions() > m_exceptions) {
            m_hal.setGpio48Value(1);
        }
    }

    DspLineGuard(const DspLineGuard&) = delete;
    DspLineGuard& operator=(const DspLineGuard&) = delete;

private:
    hal::HwAbstractionLayer& m_hal;
    int m_exceptions;
};

}  // namespace frontend

#endif
