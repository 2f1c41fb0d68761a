// SPDX-License-Identifier: MIT
// The alarm-sound device.
#include "sim_fixture.h"

namespace boardsim_test {
namespace {

class MelodyTest : public SimFixture {};

TEST_F(MelodyTest, TypeAndStartStopDriveTheSoundOtherRequestsFail)
{
    boardsim::Options options;
    options.tracePath = stateDir() + ".trace";
    start(options);
    const int fd = open("/dev/mldalm", O_RDWR);
    ASSERT_GE(fd, 0);
    std::uint8_t record[8] = {1, 0, 0xEE, 0xEE, 0xD0, 0x07, 0, 0};
    ASSERT_EQ(ioctl(fd, 0x40086d00, record), 0);
    EXPECT_EQ(run().soundType, 2000U);
    std::int32_t value = 1;
    ASSERT_EQ(ioctl(fd, 0x40016d01, &value), 0);
    EXPECT_EQ(run().soundOn, 1);
    EXPECT_EQ(ioctl(fd, 0x40046d01, &value), -ENOTTY);  // wrong size field
    EXPECT_EQ(ioctl(fd, 0x40016d01, nullptr), -EFAULT);
    EXPECT_EQ(ioctl(fd, 0x5401, &value), -ENOTTY);
    EXPECT_EQ(run().counters.melodyFailed, 2U);
    EXPECT_EQ(run().soundOn, 1);
    sim().sleep(30000000, "test");
    value = 0x100;  // only the one byte the request covers counts
    ASSERT_EQ(ioctl(fd, 0x40016d01, &value), 0);
    EXPECT_EQ(run().soundOn, 0);
    ASSERT_EQ(run().soundCount, 2U);
    EXPECT_EQ(run().sounds[0].on, 1);
    EXPECT_EQ(run().sounds[0].type, 2000U);
    EXPECT_EQ(run().sounds[1].timeNs, 30000000);
    // The sound history keeps its first events and never runs past its end.
    for (std::int32_t on = 1; run().soundOn != 0 || run().soundCount < boardsim::kMaxSoundEvents; on ^= 1) {
        ASSERT_EQ(ioctl(fd, 0x40016d01, &on), 0);
    }
    value = 1;
    ASSERT_EQ(ioctl(fd, 0x40016d01, &value), 0);
    EXPECT_EQ(run().soundOn, 1);
    EXPECT_EQ(run().soundCount, static_cast<std::uint32_t>(boardsim::kMaxSoundEvents));
    close(fd);
    // The trace names the requests the device knows; others show as null.
    const std::string trace = testsupport::readText(options.tracePath);
    EXPECT_NE(trace.find("\"req\":\"TYPE\",\"request\":1074294016,"), std::string::npos) << trace;
    EXPECT_NE(trace.find("\"ev\":\"melody_close\",\"fd\":" + std::to_string(fd) + "}"), std::string::npos) << trace;
    EXPECT_NE(trace.find("\"req\":null,\"request\":1074031873,\"bytes\":null,\"result\":-1,\"errno\":\"ENOTTY\"}"),
              std::string::npos)
        << trace;
}

}  // namespace
}  // namespace boardsim_test
