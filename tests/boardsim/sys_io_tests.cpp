// SPDX-License-Identifier: MIT
// The simulator's direct system calls agree with the C library: the flash
// file's size check and the descriptor identity check depend on it, on every
// target (32-bit ARM's kernel stat layout differs from the C library's).
#include "sys_io.h"
#include "TempFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace boardsim_test {
namespace {

TEST(SysIo, StatFileReportsWhatTheCLibraryReportsAndTellsFilesApart)
{
    testsupport::TempFolder folder("boardsim-sys-io");
    const int fd = ::open(folder.path("file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    // An odd size above 64 KiB, so that a misplaced or truncated field shows.
    ASSERT_EQ(ftruncate(fd, 70001), 0);
    struct stat expected {};
    ASSERT_EQ(fstat(fd, &expected), 0);
    struct stat actual {};
    ASSERT_EQ(boardsim::sys::statFile(fd, &actual), 0);
    EXPECT_EQ(actual.st_size, 70001);
    EXPECT_EQ(actual.st_dev, expected.st_dev);
    EXPECT_EQ(actual.st_ino, expected.st_ino);
    EXPECT_EQ(actual.st_mode, expected.st_mode);
    const int other = ::open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    struct stat dir {};
    ASSERT_EQ(boardsim::sys::statFile(other, &dir), 0);
    EXPECT_TRUE(S_ISDIR(dir.st_mode));
    EXPECT_NE(dir.st_ino, actual.st_ino);
    ::close(other);

    EXPECT_TRUE(boardsim::sys::descriptorOpen(fd));
    ASSERT_EQ(::close(fd), 0);
    EXPECT_FALSE(boardsim::sys::descriptorOpen(fd));
    EXPECT_EQ(boardsim::sys::statFile(fd, &actual), -1);
    EXPECT_EQ(errno, EBADF);
}

}  // namespace
}  // namespace boardsim_test
