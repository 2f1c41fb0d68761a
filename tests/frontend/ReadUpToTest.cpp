// SPDX-License-Identifier: MIT
// Reading a bounded source that arrives in pieces: every piece lands after
// the ones before it, and one byte beyond the bound shows that it is longer.

#include "ReadUpTo.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

using frontend::readUpTo;

namespace {

struct PiecesCase {
    const char* name;
    std::vector<std::string> pieces;  // each one a separate read() result
    int maxBytes;
    std::string expected;
};

class ReadUpTo : public ::testing::TestWithParam<PiecesCase> {};

// A sequenced-packet socket hands out one written packet per read(), so the
// reader sees exactly these short reads, whatever the machine's timing.
TEST_P(ReadUpTo, JoinsShortReadsAndStopsOneByteBeyondTheBound)
{
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
    for (const std::string& piece : GetParam().pieces) {
        ASSERT_EQ(::write(ends[1], piece.data(), piece.size()), static_cast<ssize_t>(piece.size()));
    }
    ::close(ends[1]);

    QByteArray bytes("stale");
    EXPECT_EQ(readUpTo(ends[0], GetParam().maxBytes, bytes), 0);
    ::close(ends[0]);
    EXPECT_EQ(bytes.toStdString(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Pieces, ReadUpTo,
                         ::testing::Values(PiecesCase{"Nothing", {}, 8, ""},
                                           PiecesCase{"ThreePiecesWithinTheBound", {"ab", "cde", "f"}, 8, "abcdef"},
                                           PiecesCase{"ExactlyTheBound", {"abcd", "efgh"}, 8, "abcdefgh"},
                                           PiecesCase{"BeyondTheBound", {"abcd", "efgh", "ijkl"}, 8, "abcdefghi"}),
                         [](const ::testing::TestParamInfo<PiecesCase>& row) { return std::string(row.param.name); });

TEST(ReadUpToFailure, ReturnsTheErrorAndNoBytes)
{
    QByteArray bytes("stale");
    EXPECT_EQ(readUpTo(-1, 8, bytes), EBADF);
    EXPECT_TRUE(bytes.isEmpty());
}

}  // namespace
