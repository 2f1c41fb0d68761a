// SPDX-License-Identifier: MIT
// The messages on the bus, byte for byte: the erase and its status polls
// with their pauses, one message per page with its own address, a poll after
// each page, and line 48 released 1 ms after the last poll.

#include "E2eSupport.h"

using namespace boardtest;

namespace {

constexpr std::size_t PAGE = 256;
constexpr std::size_t PAGES = 512;
constexpr std::size_t POLLS_PER_WAIT = 3125;
const std::string POLL = "05/1 ?/1";

class Wire : public ::testing::Test {
protected:
    void SetUp() override { m_board.setFlash(patternBytes(FLASH_CAPACITY, 11)); }

    // From message `first` on: the pages, each followed by one poll or more.
    static void expectPagesAndPolls(const RunResult& run, std::size_t first, const std::vector<std::string>& pages)
    {
        const std::vector<QJsonObject> messages = run.spiMessages();
        std::size_t page = 0;
        for (std::size_t i = first; i < messages.size(); ++i) {
            if (layout(messages[i]) != POLL) {
                ASSERT_LT(page, pages.size());
                ASSERT_EQ(layout(messages[i]), pages[page]) << "page " << page;
                ASSERT_LT(i + 1, messages.size());
                ASSERT_EQ(layout(messages[i + 1]), POLL) << "after page " << page;
                ++page;
            }
        }
        EXPECT_EQ(page, pages.size());
        EXPECT_TRUE(releasePauseBetween(run, run.indexOf(messages.back()), lastRelease(run)));
    }

    SimulatedBoard m_board;
};

TEST_F(Wire, WriteErasesPollsAndProgramsPageByPage)
{
    // The last page holds one byte of the image and is padded with erased
    // bytes.
    Bytes image = patternBytes(FIRMWARE_AREA - PAGE + 1, 12);
    writeFile(m_board.path("image.bin"), image);
    const RunResult run = m_board.merivak({"write", "image.bin"});
    expectSuccessfulRun(run);
    image.resize(FIRMWARE_AREA, 0xFF);

    // Write Enable and Chip Erase under separate chip selects, then polls
    // back to back: a chip erase takes seconds, so several full runs of 3125
    // polls, each followed by a one-second pause, then a partial run.
    const std::vector<QJsonObject> messages = run.spiMessages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(layout(messages[0]), "06/1/cs c7/1");
    std::size_t polls = 1;
    while (polls < messages.size() && layout(messages[polls]) == POLL) {
        ++polls;
    }
    --polls;
    std::vector<QJsonObject> pauses;
    for (const QJsonObject& sleep : run.events("sleep")) {
        if (text(sleep.value(QStringLiteral("call"))) == "sleep" &&
            integer(sleep.value(QStringLiteral("us"))) != 5000000) {
            pauses.push_back(sleep);
        }
    }
    ASSERT_GE(pauses.size(), 1U);
    ASSERT_LE(pauses.size(), 9U);
    EXPECT_GT(polls, pauses.size() * POLLS_PER_WAIT);
    EXPECT_LE(polls, (pauses.size() + 1) * POLLS_PER_WAIT);
    for (std::size_t k = 0; k < pauses.size(); ++k) {
        const int pause = run.indexOf(pauses[k]);
        EXPECT_EQ(integer(pauses[k].value(QStringLiteral("us"))), 1000000);
        EXPECT_TRUE(pauses[k].value(QStringLiteral("virtual")).toBool());
        EXPECT_LT(run.indexOf(messages[(k + 1) * POLLS_PER_WAIT]), pause);
        EXPECT_GT(run.indexOf(messages[(k + 1) * POLLS_PER_WAIT + 1]), pause);
    }
    // Ready: 1 ms, then line 48 released, before programming starts.
    const int lastPoll = run.indexOf(messages[polls]);
    const int release = findEvent(run, lastPoll, "gpio_write", "data", "1");
    EXPECT_TRUE(releasePauseBetween(run, lastPoll, release));
    ASSERT_GT(messages.size(), polls + 1);
    EXPECT_LT(release, run.indexOf(messages[polls + 1]));

    std::vector<std::string> pages;
    for (std::size_t page = 0; page < PAGES; ++page) {
        const Bytes data(image.begin() + static_cast<std::ptrdiff_t>(page * PAGE),
                         image.begin() + static_cast<std::ptrdiff_t>((page + 1) * PAGE));
        pages.push_back("06/1/cs " + pageAddress(0x02, page) + "/4 " + hex(data) + "/256");
    }
    expectPagesAndPolls(run, polls + 1, pages);
}

TEST_F(Wire, ReadOutReadsPageByPage)
{
    const RunResult run = m_board.merivak({"read", "out.bin"});
    expectSuccessfulRun(run);
    std::vector<std::string> pages;
    for (std::size_t page = 0; page < PAGES; ++page) {
        pages.push_back(pageAddress(0x03, page) + "/4 ?/256");
    }
    expectPagesAndPolls(run, 0, pages);
}

}  // namespace
