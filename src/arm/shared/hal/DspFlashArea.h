// SPDX-License-Identifier: MIT
#ifndef MERIVAK_HAL_DSPFLASHAREA_H
#define MERIVAK_HAL_DSPFLASHAREA_H

// The DSP firmware area of the serial flash, 0x000000 to 0x01FFFF: what a
// read-out saves and the largest image a write programs. One definition for
// the front end, the flash driver and the tests.

namespace hal {

constexpr int DSP_FLASH_PAGE_SIZE = 256;
constexpr int DSP_FLASH_PAGE_COUNT = 512;
constexpr long long DSP_FLASH_AREA_BYTES = static_cast<long long>(DSP_FLASH_PAGE_SIZE) * DSP_FLASH_PAGE_COUNT;

}  // namespace hal

#endif
