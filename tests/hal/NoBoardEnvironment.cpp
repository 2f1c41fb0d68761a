// SPDX-License-Identifier: MIT
// The tests of this binary make the flash driver and the melody device on a
// machine without the board's devices. Point the driver at a device path that
// does not exist (in case this runs on a real board) and keep the log records
// of the failed set-up in the build folder, out of the terminal and out of
// the board's log folder. Logging reads its settings at the first record, so
// this runs before any test.

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

class NoBoardEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        ::setenv("SPI_BUS_DEVICE", HAL_TEST_OUTPUT_DIR "/no-such-spi-device", 1);
        ::setenv("LOG4CPLUS_APPENDER", "FILE", 1);
        ::setenv("LOG4CPLUS_FILE_DIR", HAL_TEST_OUTPUT_DIR, 1);
    }
};

::testing::Environment* const registered = ::testing::AddGlobalTestEnvironment(new NoBoardEnvironment);

}  // namespace
