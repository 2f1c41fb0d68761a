// SPDX-License-Identifier: MIT
// Calls from several threads at once: the board lock and the descriptor
// table must keep every operation whole (run under ThreadSanitizer too).
#include "sim_fixture.h"

#include <fcntl.h>

#include <atomic>
#include <thread>

namespace boardsim_test {
namespace {

class ConcurrencyTest : public SimFixture {};

TEST_F(ConcurrencyTest, ThreadsShareTheBoardWithoutLosingOperations)
{
    const int spi = openSpi();
    ASSERT_GE(spi, 0);
    constexpr int kPolls = 2000;
    constexpr int kCycles = 200;
    std::atomic<int> badStatus{0};
    std::atomic<int> badStores{0};

    std::thread poller([&] {
        for (int i = 0; i < kPolls; ++i) {
            if (readStatus(spi) != 0x00) {
                ++badStatus;
            }
        }
    });
    std::thread pins([&] {
        for (int i = 0; i < kCycles; ++i) {
            if (store("/sys/class/gpio/export", "49") != 0 || store("/sys/class/gpio/unexport", "49") != 0) {
                ++badStores;
            }
            // Not the main thread: a real (short) sleep, the clock stays.
            EXPECT_FALSE(sim().sleep(1000, "test"));
        }
    });
    for (int i = 0; i < kCycles; ++i) {
        const int fd = open("/dev/mldalm", O_RDWR);
        ASSERT_GE(fd, 0);
        close(fd);
    }
    poller.join();
    pins.join();

    EXPECT_EQ(badStatus.load(), 0);
    EXPECT_EQ(badStores.load(), 0);
    EXPECT_EQ(run().counters.messages, static_cast<std::uint64_t>(kPolls));
    EXPECT_EQ(run().counters.statusPolls, static_cast<std::uint64_t>(kPolls));
    EXPECT_EQ(run().counters.melodyOpens, static_cast<std::uint64_t>(kCycles));
    EXPECT_EQ(now(), kPolls * (20000 + 2 * 400));  // only the bus moved the clock
}

}  // namespace
}  // namespace boardsim_test
