// SPDX-License-Identifier: MIT
// merivak-update on the simulated board: the flash ends with the new image or
// the previous firmware, byte for byte and verified, whatever fails on the way.

#include "E2eSupport.h"

#include "DeviceLock.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>

using namespace boardtest;

namespace {

// Exit statuses of merivak-update, as documented.
constexpr int kLocked = 1;
constexpr int kImageRefused = 3;
constexpr int kFailedUntouched = 4;
constexpr int kFailedRestored = 5;
constexpr int kRestoreFailed = 6;

const std::string kWaiting = "Waiting till DSP is started...";
const std::string kUpToDate = "up to date: the flash already holds the image";
const std::string kRestored = "restored: the previous firmware is back in the flash";
const std::string kNeedsService = "the board needs service";

std::int64_t summaryCount(const RunResult& run, const char* group, const char* key)
{
    return integer(run.summary.value(QLatin1String(group)).toObject().value(QLatin1String(key)));
}

std::size_t dspStartPauses(const RunResult& run)
{
    const std::vector<QJsonObject> sleeps = run.events("sleep");
    return static_cast<std::size_t>(std::count_if(sleeps.begin(), sleeps.end(), [](const QJsonObject& sleep) {
        return integer(sleep.value(QStringLiteral("us"))) == 5000000;
    }));
}

// SPI message number (the simulator's count) of a read of the page at
// address in the pass-th read-out of the run (0: the first).
std::int64_t readMessageIndex(const RunResult& run, std::uint32_t address, int pass)
{
    const std::string tx = "03" + hex({static_cast<std::uint8_t>(address >> 16),
                                       static_cast<std::uint8_t>(address >> 8), static_cast<std::uint8_t>(address)});
    int seen = 0;
    for (const QJsonObject& message : messagesOfKind(run, MessageKind::Read)) {
        if (records(message)[0].tx == tx && seen++ == pass) {
            return integer(message.value(QStringLiteral("index")));
        }
    }
    return -1;
}

std::int64_t messageIndex(const RunResult& run, MessageKind kind, std::size_t nth)
{
    const std::vector<QJsonObject> messages = messagesOfKind(run, kind);
    return nth < messages.size() ? integer(messages[nth].value(QStringLiteral("index"))) : -1;
}

class Update : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_old = patternBytes(FIRMWARE_AREA, 1);
        m_new = patternBytes(FIRMWARE_AREA, 2);
        setArea(m_old);
        writeFile(m_board.path("new.bin"), m_new);
    }

    RunResult update(const std::vector<std::string>& arguments, const RunSettings& settings = {}) const
    {
        std::vector<std::string> command = {MERIVAK_UPDATE_BINARY};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return m_board.run(command, settings);
    }

    RunResult install(const RunSettings& settings = {}) const
    {
        return update({"install", "new.bin", "--backup", "backup.bin"}, settings);
    }

    void setArea(const Bytes& area) const
    {
        Bytes flash = area;
        flash.resize(FLASH_CAPACITY, 0xFF);
        m_board.setFlash(flash);
    }

    Bytes area() const
    {
        const Bytes flash = m_board.flash();
        return Bytes(flash.begin(), flash.begin() + FIRMWARE_AREA);
    }

    SimulatedBoard m_board;
    Bytes m_old;
    Bytes m_new;
};

TEST_F(Update, NewImageIsProgrammedVerifiedAndTheOldOneBackedUpFirst)
{
    const RunResult run = install();
    ASSERT_EQ(run.status, 0) << run.describe();
    EXPECT_EQ(area(), m_new);
    EXPECT_EQ(readFile(m_board.path("backup.bin")), m_old);
    EXPECT_EQ(run.plainOutLines(),
              (std::vector<std::string>{"checked: the flash differs from the image", "backup saved: backup.bin",
                                        "erased", "programmed", "verified", kWaiting}));
    EXPECT_EQ(dspStartPauses(run), 1U) << "one DSP start pause, at the end";
    EXPECT_EQ(summaryCount(run, "flash", "erases"), 1);
    EXPECT_EQ(run.violationsTotal(), 0);
    EXPECT_FALSE(fileExists(m_board.path("backup.bin.partial")));
    const std::vector<std::string> steps = run.logRecords("INFO", "verified");
    EXPECT_EQ(steps.size(), 1U) << "progress goes to the log too";
    expectDspHeldOffDuringTransfersAndReleased(run);
}

// What the flash holds before, the image, and whether an erase is needed.
struct Freshness {
    const char* name;
    std::size_t imageSize;
    bool restOfAreaErased;
    bool upToDate;
};

class UpdateFreshness : public Update, public ::testing::WithParamInterface<Freshness> {};

// "Up to date" means the whole firmware area is what a write of the image
// leaves: the image, then erased bytes. A short image whose bytes match the
// start of an older, longer firmware still needs the update.
TEST_P(UpdateFreshness, EraseOnlyWhenTheAreaDiffersFromTheWrittenImage)
{
    const Freshness& c = GetParam();
    const Bytes image(m_new.begin(), m_new.begin() + static_cast<std::ptrdiff_t>(c.imageSize));
    writeFile(m_board.path("new.bin"), image);
    Bytes before = c.restOfAreaErased ? Bytes(FIRMWARE_AREA, 0xFF) : m_old;
    std::copy(image.begin(), image.end(), before.begin());
    setArea(before);

    const RunResult run = install();
    ASSERT_EQ(run.status, 0) << run.describe();
    Bytes expected(FIRMWARE_AREA, 0xFF);
    std::copy(image.begin(), image.end(), expected.begin());
    EXPECT_EQ(area(), expected);
    EXPECT_EQ(summaryCount(run, "flash", "erases"), c.upToDate ? 0 : 1);
    EXPECT_EQ(summaryCount(run, "flash", "programmed_pages"), c.upToDate ? 0 : 512);
    EXPECT_EQ(fileExists(m_board.path("backup.bin")), !c.upToDate);
    if (c.upToDate) {
        EXPECT_EQ(run.plainOutLines(), (std::vector<std::string>{kUpToDate, kWaiting}));
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, UpdateFreshness,
                         ::testing::Values(Freshness{"WholeAreaInPlace", FIRMWARE_AREA, true, true},
                                           Freshness{"ShortImageInPlace", 1000, true, true},
                                           Freshness{"ShortImageOverLongerFirmware", 1000, false, false}),
                         [](const ::testing::TestParamInfo<Freshness>& param) { return param.param.name; });

// A file that cannot be an image, and the reason given for it.
struct Refusal {
    const char* name;
    std::function<void(const std::string& path)> make;
    const char* reason;
    bool asOtherUser;
};

class UpdateRefusal : public Update, public ::testing::WithParamInterface<Refusal> {};

TEST_P(UpdateRefusal, BeforeAnythingTouchesTheHardware)
{
    const Refusal& c = GetParam();
    const std::string image = m_board.path("image");
    c.make(image);
    writeFile(m_board.path("backup.bin"), {7, 7, 7});
    const std::vector<std::string> command = {"install", image, "--backup", "backup.bin"};
    const std::string expectedError = "merivak-update: refused image " + image + ": " + c.reason + "\n";
    if (c.asOtherUser && ::geteuid() == 0) {
        // Root reads any file, so the program runs as nobody, in a folder
        // nobody may enter; the simulator's run block is root's, so it runs
        // without the board: the refusal comes before any hardware access.
        ASSERT_EQ(::chmod(m_board.folder().c_str(), 0755), 0);
        const std::string err = m_board.path("nobody.err");
        const int status = std::system(("/usr/bin/setpriv --reuid=65534 --regid=65534 --clear-groups " +
                                        std::string(MERIVAK_UPDATE_BINARY) + " install " + image + " --backup " +
                                        m_board.path("backup.bin") + " 2>" + err)
                                           .c_str());
        EXPECT_EQ(WEXITSTATUS(status), kImageRefused);
        const Bytes text = readFile(err);
        EXPECT_EQ(std::string(text.begin(), text.end()), expectedError);
    } else {
        const RunResult run = update(command);
        EXPECT_EQ(run.status, kImageRefused) << run.describe();
        EXPECT_EQ(run.err, expectedError);
        expectHardwareUntouched(run);
    }
    EXPECT_EQ(area(), m_old);
    EXPECT_EQ(readFile(m_board.path("backup.bin")), (Bytes{7, 7, 7}));
}

INSTANTIATE_TEST_SUITE_P(
    Files, UpdateRefusal,
    ::testing::Values(
        Refusal{"Directory", [](const std::string& p) { ::mkdir(p.c_str(), 0755); }, "is not a regular file", false},
        Refusal{"Fifo", [](const std::string& p) { ::mkfifo(p.c_str(), 0644); }, "is not a regular file", false},
        Refusal{"Empty", [](const std::string& p) { writeFile(p, {}); }, "is empty", false},
        Refusal{"OneByteTooLarge", [](const std::string& p) { writeFile(p, Bytes(FIRMWARE_AREA + 1, 0)); },
                "is larger than the 131072-byte DSP flash area", false},
        Refusal{"DanglingSymlink",
                [](const std::string& p) {
                    const int made = ::symlink("gone.bin", p.c_str());
                    static_cast<void>(made);
                },
                "cannot be opened: No such file or directory", false},
        Refusal{"Unreadable",
                [](const std::string& p) {
                    writeFile(p, Bytes(16, 1));
                    ::chmod(p.c_str(), 0);
                },
                "cannot be opened: Permission denied", true}),
    [](const ::testing::TestParamInfo<Refusal>& param) { return param.param.name; });

// A fault on the way to the new image, found in a clean run's trace.
struct Failure {
    const char* name;
    std::function<std::string(const RunResult& clean)> fault;
};

class UpdateFailure : public Update, public ::testing::WithParamInterface<Failure> {};

TEST_P(UpdateFailure, RestoresThePreviousFirmwareByteForByte)
{
    const RunResult clean = install();
    ASSERT_EQ(clean.status, 0) << clean.describe();
    setArea(m_old);
    std::remove(m_board.path("backup.bin").c_str());

    const RunResult run = install({{"--fault", GetParam().fault(clean)}, {}});
    EXPECT_EQ(run.status, kFailedRestored) << run.describe();
    EXPECT_EQ(area(), m_old);
    EXPECT_EQ(readFile(m_board.path("backup.bin")), m_old);
    const std::vector<std::string> out = run.plainOutLines();
    ASSERT_GE(out.size(), 2U);
    EXPECT_EQ(std::vector<std::string>(out.end() - 2, out.end()), (std::vector<std::string>{kRestored, kWaiting}));
    EXPECT_EQ(dspStartPauses(run), 1U);
    EXPECT_NE(run.err.find("merivak-update: "), std::string::npos);
    EXPECT_EQ(run.err.find(kNeedsService), std::string::npos);
    EXPECT_FALSE(run.logRecords("ERROR").empty()) << "the failure is logged";
}

INSTANTIATE_TEST_SUITE_P(
    Faults, UpdateFailure,
    ::testing::Values(Failure{"Erase",
                              [](const RunResult& r) {
                                  return "msg:" + std::to_string(messageIndex(r, MessageKind::Erase, 0)) + ":EIO";
                              }},
                      Failure{"FirstPage",
                              [](const RunResult& r) {
                                  return "msg:" + std::to_string(messageIndex(r, MessageKind::Program, 0)) + ":EIO";
                              }},
                      Failure{"MiddlePage",
                              [](const RunResult& r) {
                                  return "msg:" + std::to_string(messageIndex(r, MessageKind::Program, 255)) +
                                         ":ETIMEDOUT";
                              }},
                      Failure{"LastPage",
                              [](const RunResult& r) {
                                  return "msg:" + std::to_string(messageIndex(r, MessageKind::Program, 511)) + ":EIO";
                              }},
                      // The fourth read-out of the run is the verify of the new image.
                      Failure{"VerifyBitFlip",
                              [](const RunResult& r) {
                                  return "flip:0x8123:0x10:" + std::to_string(readMessageIndex(r, 0x8100, 3));
                              }}),
    [](const ::testing::TestParamInfo<Failure>& param) { return param.param.name; });

TEST_F(Update, FailedRestoreSaysTheBoardNeedsService)
{
    const RunResult clean = install();
    setArea(m_old);
    // Every message from the first page programmed on fails: the update and
    // the restore after it.
    const RunResult run =
        install({{"--fault", "msg:" + std::to_string(messageIndex(clean, MessageKind::Program, 0)) + "+:EIO"}, {}});
    EXPECT_EQ(run.status, kRestoreFailed) << run.describe();
    EXPECT_NE(run.err.find(kNeedsService), std::string::npos) << run.err;
    const std::vector<std::string> errors = run.logRecords("ERROR", "restoring the previous firmware failed");
    ASSERT_EQ(errors.size(), 1U) << run.log;
    EXPECT_NE(errors[0].find(kNeedsService), std::string::npos);
    EXPECT_EQ(dspStartPauses(run), 0U);
    EXPECT_EQ(readFile(m_board.path("backup.bin")), m_old) << "the backup survives for a later restore";
}

// A failure before the erase, and where the backup was asked to go.
struct EarlyFailure {
    const char* name;
    std::function<std::string(const RunResult& clean)> fault;
    const char* backup;
};

class UpdateEarlyFailure : public Update, public ::testing::WithParamInterface<EarlyFailure> {};

TEST_P(UpdateEarlyFailure, LeavesTheFlashAndAnEarlierBackupAsTheyWere)
{
    const EarlyFailure& c = GetParam();
    const RunResult clean = install();
    setArea(m_old);
    const Bytes earlierBackup = patternBytes(FIRMWARE_AREA, 3);
    writeFile(m_board.path("backup.bin"), earlierBackup);
    ::mkdir(m_board.path("folder").c_str(), 0755);

    RunSettings settings;
    const std::string fault = c.fault(clean);
    if (!fault.empty()) {
        settings.simulatorOptions = {"--fault", fault};
    }
    const RunResult run = update({"install", "new.bin", "--backup", c.backup}, settings);
    EXPECT_EQ(run.status, kFailedUntouched) << run.describe();
    EXPECT_EQ(area(), m_old);
    EXPECT_EQ(summaryCount(run, "flash", "erases"), 0);
    EXPECT_EQ(summaryCount(run, "flash", "programmed_pages"), 0);
    EXPECT_EQ(readFile(m_board.path("backup.bin")), earlierBackup) << "never truncated";
    EXPECT_FALSE(fileExists(m_board.path(std::string(c.backup) + ".partial"))) << "no half-written copy left";
    EXPECT_EQ(dspStartPauses(run), 0U);
}

INSTANTIATE_TEST_SUITE_P(Faults, UpdateEarlyFailure,
                         ::testing::Values(
                             // The second read-out is the backup's, the third its check.
                             EarlyFailure{"ReadOutFails",
                                          [](const RunResult& r) {
                                              return "msg:" + std::to_string(readMessageIndex(r, 0x4000, 1)) + ":EIO";
                                          },
                                          "backup.bin"},
                             EarlyFailure{"ReadOutDiffersFromTheFlash",
                                          [](const RunResult& r) {
                                              return "flip:0x4001:0x01:" +
                                                     std::to_string(readMessageIndex(r, 0x4000, 1));
                                          },
                                          "backup.bin"},
                             EarlyFailure{"BackupFolderMissing", [](const RunResult&) { return std::string(); },
                                          "missing/backup.bin"},
                             EarlyFailure{"BackupIsAFolder", [](const RunResult&) { return std::string(); }, "folder"}),
                         [](const ::testing::TestParamInfo<EarlyFailure>& param) { return param.param.name; });

TEST_F(Update, RestoreWritesTheBackupBack)
{
    writeFile(m_board.path("backup.bin"), m_old);
    setArea(m_new);
    const RunResult run = update({"restore", "backup.bin"});
    ASSERT_EQ(run.status, 0) << run.describe();
    EXPECT_EQ(area(), m_old);
    EXPECT_EQ(run.plainOutLines(), (std::vector<std::string>{"erased", "programmed", "verified",
                                                             "restored: the flash holds the backup", kWaiting}));
}

// Where a termination signal arrives, and whether the update still ends
// with the new image.
struct Interruption {
    const char* name;
    std::function<std::int64_t(const RunResult& clean)> message;
    bool finishes;
};

class UpdateInterruption : public Update, public ::testing::WithParamInterface<Interruption> {};

// Before the erase the program stops with the flash untouched; from the erase
// on it runs to a verified image first. Either way it exits 128 + signal,
// without the DSP start pause.
TEST_P(UpdateInterruption, NeverLeavesTheFlashErasedOrHalfProgrammed)
{
    const Interruption& c = GetParam();
    const RunResult clean = install();
    ASSERT_EQ(clean.status, 0) << clean.describe();
    setArea(m_old);
    std::remove(m_board.path("backup.bin").c_str());

    const RunResult run = install({{"--signal", "TERM@msg:" + std::to_string(c.message(clean))}, {}});
    EXPECT_EQ(run.status, 128 + SIGTERM) << run.describe();
    EXPECT_EQ(area(), c.finishes ? m_new : m_old);
    EXPECT_EQ(summaryCount(run, "flash", "erases"), c.finishes ? 1 : 0);
    EXPECT_EQ(run.plainOutLines().back(), c.finishes ? "verified" : "backup saved: backup.bin");
    EXPECT_EQ(dspStartPauses(run), 0U);
    EXPECT_NE(run.err.find("interrupted by SIGTERM"), std::string::npos) << run.err;
}

INSTANTIATE_TEST_SUITE_P(
    Signals, UpdateInterruption,
    ::testing::Values(
        Interruption{"DuringTheBackupReadOut", [](const RunResult& r) { return readMessageIndex(r, 0x8000, 1); },
                     false},
        Interruption{"AtTheErase", [](const RunResult& r) { return messageIndex(r, MessageKind::Erase, 0); }, true},
        Interruption{"AtTheMiddlePage", [](const RunResult& r) { return messageIndex(r, MessageKind::Program, 255); },
                     true}),
    [](const ::testing::TestParamInfo<Interruption>& param) { return param.param.name; });

TEST_F(Update, SecondRunOnTheSameFlashIsRefusedUntouched)
{
    // The simulator keeps each board's /run/lock in its state folder.
    const frontend::DeviceLock held("/dev/spidev0.0", m_board.stateFolder() + "/run-lock");
    ASSERT_EQ(held.state(), frontend::DeviceLock::State::kAcquired);
    const RunResult run = install();
    EXPECT_EQ(run.status, kLocked) << run.describe();
    EXPECT_NE(run.err.find("in use by process " + std::to_string(::getpid())), std::string::npos) << run.err;
    EXPECT_TRUE(run.events("spi_open").empty());
    EXPECT_TRUE(run.events("gpio_write").empty());
    EXPECT_EQ(area(), m_old);
}

}  // namespace
