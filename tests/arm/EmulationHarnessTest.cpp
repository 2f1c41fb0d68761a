// SPDX-License-Identifier: MIT
// Checks what the ARM test runs rely on, natively and under user-mode QEMU:
// a program started by a test program runs (through the binfmt handler when
// emulated) with its own argv[0], gets LD_PRELOAD in its own loader, not in
// the emulator's, and leaves standard error clean; and the SPI transfer
// record and request numbers are those of the kernel's ABI on every
// architecture.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

std::string g_self;

struct ChildRun {
    int status = -1;
    std::string out;
    std::string err;
};

std::string readAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Starts this program again as "argv0 --child" with extra environment
// entries and collects its exit status and output.
ChildRun runChild(const std::string& argv0, const std::vector<std::string>& extraEnv)
{
    char folder[] = "/tmp/merivak-emulation-XXXXXX";
    EXPECT_NE(mkdtemp(folder), nullptr);
    const std::string outPath = std::string(folder) + "/out";
    const std::string errPath = std::string(folder) + "/err";

    // The inherited environment without LD_PRELOAD and without the
    // variables that extraEnv sets.
    const auto replaced = [&extraEnv](const char* entry) {
        const std::string name = std::string(entry).substr(0, std::string(entry).find('=') + 1);
        if (name == "LD_PRELOAD=") {
            return true;
        }
        for (const auto& extra : extraEnv) {
            if (extra.compare(0, name.size(), name) == 0) {
                return true;
            }
        }
        return false;
    };
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (!replaced(*entry)) {
            env.emplace_back(*entry);
        }
    }
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());
    std::vector<char*> envp;
    for (auto& entry : env) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);
    std::string arg0 = argv0;
    std::string arg1 = "--child";
    char* argv[] = {arg0.data(), arg1.data(), nullptr};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, g_self.c_str(), &actions, nullptr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);

    ChildRun run;
    if (spawned == 0) {
        int status = 0;
        waitpid(pid, &status, 0);
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    run.out = readAll(outPath);
    run.err = readAll(errPath);
    std::remove(outPath.c_str());
    std::remove(errPath.c_str());
    rmdir(folder);
    return run;
}

// The child: reports what it sees.
int childMain(const char* argv0)
{
    using Marker = int (*)();
    const auto marker = reinterpret_cast<Marker>(dlsym(RTLD_DEFAULT, "merivakPreloadMarker"));
    char exe[4096] = {};
    const ssize_t length = readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::printf("argv0=%s\nmarker=%d\nexe=%s\nlong=%zu\n", argv0, marker != nullptr ? marker() : 0,
                length > 0 ? exe : "?", sizeof(long));
    return 7;
}

TEST(SpawnedProgram, KeepsItsArgv0AndExitStatus)
{
    const ChildRun run = runChild("renamed-child", {});
    EXPECT_EQ(run.status, 7);
    EXPECT_NE(run.out.find("argv0=renamed-child\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("marker=0\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("exe=" + g_self + "\n"), std::string::npos) << run.out;
    EXPECT_EQ(run.err, "");
}

TEST(SpawnedProgram, GetsThePreloadedLibraryInItsOwnLoader)
{
    // In an AddressSanitizer build the preloaded library would come before
    // the sanitizer's runtime, which the runtime refuses by default.
    const ChildRun run = runChild(
        "preloaded-child", {std::string("LD_PRELOAD=") + PRELOAD_MARKER_PATH, "ASAN_OPTIONS=verify_asan_link_order=0"});
    EXPECT_EQ(run.status, 7);
    EXPECT_NE(run.out.find("marker=4711\n"), std::string::npos) << run.out;
    // A preload handed to the emulator's own loader would show up here as a
    // "cannot be preloaded (wrong ELF class)" complaint.
    EXPECT_EQ(run.err, "");
}

TEST(SpawnedProgram, HasTheSameWordSizeAsItsParent)
{
    const ChildRun run = runChild("child", {});
    EXPECT_NE(run.out.find("long=" + std::to_string(sizeof(long)) + "\n"), std::string::npos) << run.out;
}

// The kernel's struct spi_ioc_transfer: 32 bytes with 64-bit buffer fields
// on 32- and 64-bit systems alike, so the same request numbers everywhere.
TEST(SpiTransferRecord, HasTheKernelLayoutOnEveryArchitecture)
{
    EXPECT_EQ(sizeof(spi_ioc_transfer), 32u);
    EXPECT_EQ(offsetof(spi_ioc_transfer, tx_buf), 0u);
    EXPECT_EQ(offsetof(spi_ioc_transfer, rx_buf), 8u);
    EXPECT_EQ(offsetof(spi_ioc_transfer, len), 16u);
    EXPECT_EQ(offsetof(spi_ioc_transfer, speed_hz), 20u);
    EXPECT_EQ(offsetof(spi_ioc_transfer, delay_usecs), 24u);
    EXPECT_EQ(offsetof(spi_ioc_transfer, bits_per_word), 26u);
    EXPECT_EQ(offsetof(spi_ioc_transfer, cs_change), 27u);
    EXPECT_EQ(offsetof(spi_ioc_transfer, tx_nbits), 28u);
    EXPECT_EQ(offsetof(spi_ioc_transfer, rx_nbits), 29u);
}

TEST(SpiTransferRecord, RequestNumbersMatchTheKernelsOnEveryArchitecture)
{
    EXPECT_EQ(static_cast<unsigned long>(SPI_IOC_MESSAGE(1)), 0x40206b00ul);
    EXPECT_EQ(static_cast<unsigned long>(SPI_IOC_MESSAGE(2)), 0x40406b00ul);
    EXPECT_EQ(static_cast<unsigned long>(SPI_IOC_MESSAGE(3)), 0x40606b00ul);
    EXPECT_EQ(static_cast<unsigned long>(SPI_IOC_WR_MAX_SPEED_HZ), 0x40046b04ul);
    EXPECT_EQ(static_cast<unsigned long>(SPI_IOC_RD_MODE), 0x80016b01ul);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "--child") == 0) {
        return childMain(argv[0]);
    }
    char self[4096] = {};
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    g_self = length > 0 ? std::string(self, static_cast<std::size_t>(length)) : std::string(argv[0]);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
