// SPDX-License-Identifier: MIT
// What simulating the tool's read-out costs the host. The tool reads a page
// with one two-record message (4 command bytes, 256 data bytes) and then
// polls the status once (two one-byte records); the real 10 MHz bus needs
// about 210 microseconds for that pair. The simulation must stay far below.
#include "options.h"
#include "run_config.h"
#include "run_file.h"
#include "simulator.h"
#include "state_folder.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

// A run of its own in a temporary folder, with line 48 held low as the tool
// holds it, and the SPI node open.
class BenchRun {
public:
    explicit BenchRun(bool traced)
    {
        char pattern[] = "/tmp/boardsim-bench.XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            std::abort();
        }
        m_root = pattern;
        boardsim::Options options;
        if (traced) {
            options.tracePath = m_root + "/trace.jsonl";
        }
        std::string error;
        m_run = boardsim::RunFile::create(m_root + "/run.bin", error);
        if (!m_run || !boardsim::setUpRun(options, m_root + "/state", {}, m_run->block(), error)) {
            std::abort();
        }
        m_simulator = boardsim::Simulator::create(m_run->path().c_str(), error);
        if (!m_simulator) {
            std::abort();
        }
        store("/sys/class/gpio/export", "48");
        store("/sys/class/gpio/gpio48/direction", "out");
        m_fd = m_simulator->open("/dev/spidev0.0", O_RDWR, 0).fd;
        std::uint32_t speed = 10000000;
        ioctl(SPI_IOC_WR_MAX_SPEED_HZ, &speed);
    }

    ~BenchRun()
    {
        m_simulator.reset();
        m_run.reset();
        boardsim::removeTree(m_root);
    }

    void store(const char* path, const char* text)
    {
        const int fd = m_simulator->open(path, O_WRONLY, 0).fd;
        m_simulator->write(fd, text, std::strlen(text));
        m_simulator->close(fd);
        ::close(fd);
    }

    int ioctl(unsigned long request, void* argument)
    {
        const auto served = m_simulator->ioctl(m_fd, request, argument);
        return served ? served->result : 0;
    }

    std::int64_t boardTime() const { return m_run->block().clockNs; }

    // Truncates the trace so that long benchmark runs do not fill the disk;
    // an untraced run has none.
    bool dropTrace() { return truncate((m_root + "/trace.jsonl").c_str(), 0) == 0 || errno == ENOENT; }

private:
    std::string m_root;
    std::unique_ptr<boardsim::RunFile> m_run;
    std::unique_ptr<boardsim::Simulator> m_simulator;
    int m_fd = -1;
};

// The tool's two messages for one page, built once as the tool builds them.
struct PageMessages {
    std::uint8_t command[4] = {0x03, 0, 0, 0};
    std::uint8_t page[256] = {};
    std::uint8_t opcode = 0x05;
    std::uint8_t status = 0;
    spi_ioc_transfer read[2] = {};
    spi_ioc_transfer poll[2] = {};

    PageMessages()
    {
        read[0].tx_buf = reinterpret_cast<std::uintptr_t>(command);
        read[0].len = 4;
        read[1].rx_buf = reinterpret_cast<std::uintptr_t>(page);
        read[1].len = 256;
        poll[0].tx_buf = reinterpret_cast<std::uintptr_t>(&opcode);
        poll[0].len = 1;
        poll[1].rx_buf = reinterpret_cast<std::uintptr_t>(&status);
        poll[1].len = 1;
    }

    void setPage(std::uint32_t number)
    {
        command[1] = static_cast<std::uint8_t>(number >> 8);
        command[2] = static_cast<std::uint8_t>(number);
    }
};

template <typename Submit>
void readPages(benchmark::State& state, Submit submit, std::int64_t boardBefore, std::int64_t (*boardNow)(void*),
               void* context, int pagesPerIteration)
{
    PageMessages messages;
    std::uint32_t page = 0;
    for (auto _ : state) {
        for (int i = 0; i < pagesPerIteration; ++i) {
            messages.setPage(page);
            page = (page + 1) % 512;
            benchmark::DoNotOptimize(submit(SPI_IOC_MESSAGE(2), messages.read));
            benchmark::DoNotOptimize(submit(SPI_IOC_MESSAGE(2), messages.poll));
        }
    }
    if (boardNow != nullptr) {
        // Board time the same traffic takes on the real bus, per iteration.
        const double iterations = static_cast<double>(state.iterations());
        state.counters["board_us"] =
            benchmark::Counter(static_cast<double>(boardNow(context) - boardBefore) / 1000.0 / iterations);
    }
}

std::int64_t runBoardTime(void* context)
{
    return static_cast<BenchRun*>(context)->boardTime();
}

void pageReadWithPoll(benchmark::State& state, bool traced, int pages)
{
    BenchRun run(traced);
    const std::int64_t before = run.boardTime();
    readPages(
        state, [&](unsigned long request, spi_ioc_transfer* records) { return run.ioctl(request, records); }, before,
        runBoardTime, &run, pages);
    if (!run.dropTrace()) {
        state.SkipWithError("cannot truncate the trace");
    }
}

void BM_PageReadWithStatusPoll(benchmark::State& state)
{
    pageReadWithPoll(state, false, 1);
}
BENCHMARK(BM_PageReadWithStatusPoll);

void BM_PageReadWithStatusPollTraced(benchmark::State& state)
{
    pageReadWithPoll(state, true, 1);
}
// A bounded number of iterations keeps the trace file small.
BENCHMARK(BM_PageReadWithStatusPollTraced)->Iterations(20000);

void BM_Whole128KiBRead(benchmark::State& state)
{
    pageReadWithPoll(state, false, 512);
}
BENCHMARK(BM_Whole128KiBRead)->Unit(benchmark::kMillisecond);

// Under the launcher the real ioctl() goes through the preloaded library: the
// figure then includes the interposition.
void BM_PageReadWithStatusPollPreloaded(benchmark::State& state)
{
    const int fd = ::open("/dev/spidev0.0", O_RDWR);
    if (fd < 0) {
        state.SkipWithError("the SPI node did not open");
        return;
    }
    readPages(
        state, [&](unsigned long request, spi_ioc_transfer* records) { return ::ioctl(fd, request, records); }, 0,
        nullptr, nullptr, 1);
    ::close(fd);
}

}  // namespace

int main(int argc, char** argv)
{
    if (std::getenv("BOARDSIM_RUN") != nullptr) {
        benchmark::RegisterBenchmark("BM_PageReadWithStatusPollPreloaded", BM_PageReadWithStatusPollPreloaded);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
