// SPDX-License-Identifier: MIT
// The simulator's direct system calls agree with the C library: the flash
// file's size check and the descriptor identity check depend on it, on every
// target (32-bit ARM's kernel stat layout differs from the C library's).
#include "sys_io.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace boardsim_test {
namespace {

class SysIoTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* folder = std::getenv("TMPDIR");
        path = std::string(folder != nullptr ? folder : "/tmp") + "/boardsim_sys_io_XXXXXX";
        fd = mkstemp(&path[0]);
        ASSERT_GE(fd, 0);
    }
    void TearDown() override
    {
        if (fd >= 0) {
            close(fd);
            unlink(path.c_str());
        }
    }
    std::string path;
    int fd = -1;
};

TEST_F(SysIoTest, StatFileReportsTheSameFileAsTheCLibrary)
{
    // An odd size above 64 KiB, so that a misplaced or truncated field shows.
    constexpr off_t kSize = 70001;
    ASSERT_EQ(ftruncate(fd, kSize), 0);
    struct stat expected {};
    ASSERT_EQ(fstat(fd, &expected), 0);
    struct stat actual {};
    ASSERT_EQ(boardsim::sys::statFile(fd, &actual), 0);
    EXPECT_EQ(actual.st_size, kSize);
    EXPECT_EQ(actual.st_dev, expected.st_dev);
    EXPECT_EQ(actual.st_ino, expected.st_ino);
    EXPECT_EQ(actual.st_mode, expected.st_mode);
    EXPECT_TRUE(S_ISREG(actual.st_mode));
}

TEST_F(SysIoTest, StatFileTellsFilesApart)
{
    const int other = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(other, 0);
    struct stat file {};
    struct stat folder {};
    ASSERT_EQ(boardsim::sys::statFile(fd, &file), 0);
    ASSERT_EQ(boardsim::sys::statFile(other, &folder), 0);
    close(other);
    EXPECT_TRUE(S_ISDIR(folder.st_mode));
    EXPECT_FALSE(file.st_dev == folder.st_dev && file.st_ino == folder.st_ino);
}

TEST_F(SysIoTest, ClosedDescriptorIsNotOpen)
{
    EXPECT_TRUE(boardsim::sys::descriptorOpen(fd));
    struct stat info {};
    ASSERT_EQ(close(fd), 0);
    const int closed = fd;
    fd = -1;
    unlink(path.c_str());
    EXPECT_FALSE(boardsim::sys::descriptorOpen(closed));
    EXPECT_EQ(boardsim::sys::statFile(closed, &info), -1);
    EXPECT_EQ(errno, EBADF);
}

}  // namespace
}  // namespace boardsim_test
