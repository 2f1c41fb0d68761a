// SPDX-License-Identifier: MIT
// The run block: one file, mapped MAP_SHARED by the launcher and by every
// process of a run, that holds the run's configuration (written once by the
// launcher) and the board's live state (virtual clock, chip registers, GPIO
// lines, counters). Sharing it gives all processes of a run one board and one
// clock, and the launcher reads the counters from it for the summary even when
// the program crashed.
//
// Plain data only: the layout is the contract between the launcher and the
// preload library of the same build.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace boardsim {

constexpr std::uint64_t kRunMagic = 0x4d49534452414f42ULL;  // "BOARDSIM"
constexpr std::uint32_t kRunVersion = 1;

constexpr std::size_t kPathCapacity = 4096;
constexpr std::size_t kDevicePathCapacity = 512;
// The state folder's stand-in for /run/lock.
constexpr char kLockFolderName[] = "run-lock";
constexpr int kMaxSpidevPaths = 8;
constexpr int kMaxMsgFaults = 64;
constexpr int kMaxFlips = 64;
constexpr int kMaxEdges = 256;
constexpr int kGpioLines = 224;  // seven banks of 32 lines
constexpr int kMaxHistory = 8192;
constexpr int kMaxViolations = 1000;
constexpr int kMaxSoundEvents = 1024;
constexpr std::uint32_t kMaxPageSize = 1024;

// Durations are in nanoseconds of board time: [0] typical, [1] maximum.
struct ChipProfile {
    char name[32];
    char chip[32];
    std::uint32_t capacity;
    std::uint32_t pageSize;
    std::uint8_t jedecId[3];
    std::uint8_t deviceId;  // answer of 0x90 (after the maker byte) and 0xAB
    std::int64_t pageProgramNs[2];
    std::int64_t sectorEraseNs[2];
    std::int64_t block32EraseNs[2];
    std::int64_t block64EraseNs[2];
    std::int64_t chipEraseNs[2];
};

// The six set-up requests that a fault can make fail, in the order the trace
// and the fault syntax name them.
enum SetupRequest : int {
    kWrMode,
    kRdMode,
    kWrBitsPerWord,
    kRdBitsPerWord,
    kWrMaxSpeedHz,
    kRdMaxSpeedHz,
    kSetupRequestCount
};

struct MsgFault {
    std::uint64_t index;  // 1-based count of SPI_IOC_MESSAGE calls
    std::int32_t error;
    std::uint8_t andLater;
};

struct FlipFault {
    std::uint32_t address;
    std::uint8_t mask;
    std::uint64_t onlyMessage;  // 1-based SPI_IOC_MESSAGE count; 0: every read
};

struct Faults {
    std::uint32_t msgCount;
    MsgFault msg[kMaxMsgFaults];
    std::int32_t setupError[kSetupRequestCount];  // 0: no fault
    std::uint8_t noSpidev;
    std::uint8_t noMelody;
    std::uint8_t busy;
    std::uint32_t flipCount;
    FlipFault flips[kMaxFlips];
    std::int32_t exportRefused[kGpioLines];  // errno per line, 0: no fault
};

// A scripted change of a line's electrical level.
struct EdgeEvent {
    std::int64_t timeNs;
    std::int32_t line;
    std::uint8_t level;
};

// A signal the program sends itself (process-directed, as kill(1) would)
// when it submits its Nth SPI_IOC_MESSAGE; signal 0: none.
struct SignalInjection {
    std::int32_t signal;
    std::uint64_t atMessage;  // 1-based, counted like MsgFault::index
};

struct RunConfig {
    ChipProfile profile;
    std::uint8_t useMaxTiming;
    char stateDir[kPathCapacity];
    char tracePath[kPathCapacity];  // empty: no trace
    std::uint32_t spidevCount;
    char spidevPaths[kMaxSpidevPaths][kDevicePathCapacity];
    Faults faults;
    std::uint32_t edgeCount;
    EdgeEvent edges[kMaxEdges];  // sorted by time
    SignalInjection signalInjection;
};

// The flash chip's registers and the command frame that chip select delimits.
struct ChipState {
    std::uint8_t writeEnabled;
    std::uint8_t operationPending;  // busy until busyUntilNs, then latch clears
    std::int64_t busyUntilNs;
    // Frame under chip select.
    std::uint8_t selected;
    std::uint8_t opcode;
    std::uint8_t ignored;  // 1: busy at the opcode, 2: not decodable
    std::uint8_t firstStatus;
    std::uint32_t count;  // bytes clocked in this frame
    std::uint32_t address;
    std::uint32_t dataBytes;  // bytes of the data phase
    std::uint8_t page[kMaxPageSize];
    std::uint8_t pageMask[kMaxPageSize];
};

struct SpidevState {
    std::uint32_t mode;
    std::uint8_t bitsPerWord;
    std::uint32_t speedHz;
};

enum GpioEdgeSetting : std::uint8_t { kEdgeNone, kEdgeRising, kEdgeFalling, kEdgeBoth };

struct GpioLine {
    std::uint8_t exported;
    std::uint8_t output;
    std::uint8_t outputLevel;    // electrical level driven when output
    std::uint8_t externalLevel;  // electrical level driven from outside
    std::uint8_t activeLow;
    std::uint8_t edge;          // GpioEdgeSetting
    std::uint32_t generation;   // bumped by every export and unexport
    std::uint32_t notifyCount;  // armed edges seen so far
};

struct LevelChange {
    std::int64_t timeNs;
    std::int32_t line;
    std::uint8_t level;
};

enum ViolationRule : std::uint8_t { kNoLatch, kZeroToOne, kBusyCommand, kGpio48NotLow };

struct Violation {
    std::int64_t timeNs;
    std::uint8_t rule;
    char detail[120];
};

struct SoundEvent {
    std::int64_t timeNs;
    std::uint8_t on;
    std::uint32_t type;
};

struct Counters {
    std::uint64_t processes;
    std::uint64_t spiOpens;
    std::uint64_t messages;       // every bus message: ioctl, read, write
    std::uint64_t ioctlMessages;  // SPI_IOC_MESSAGE calls, for msg faults
    std::uint64_t bytes;
    std::uint64_t statusPolls;
    std::uint64_t failed;
    std::uint64_t programmedPages;
    std::uint64_t chipErases;
    std::uint64_t block32Erases;
    std::uint64_t block64Erases;
    std::uint64_t sectorErases;
    std::uint64_t reads;
    std::uint64_t melodyOpens;
    std::uint64_t melodyRequests;
    std::uint64_t melodyFailed;
};

struct RunBlock {
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t size;
    pthread_mutex_t lock;  // process-shared and robust
    RunConfig config;

    std::int64_t clockNs;
    std::uint32_t nextEdge;  // first scripted edge not yet applied
    ChipState chip;
    SpidevState spidev;
    GpioLine lines[kGpioLines];
    Counters counters;

    std::uint32_t historyCount;
    std::uint32_t historyDropped;
    LevelChange history[kMaxHistory];

    std::uint64_t violationsTotal;
    std::uint32_t violationCount;
    Violation violations[kMaxViolations];

    std::uint8_t soundOn;
    std::uint32_t soundType;
    std::uint32_t soundCount;
    SoundEvent sounds[kMaxSoundEvents];
};

static_assert(std::is_trivially_copyable<RunBlock>::value, "the run block is shared as raw memory");
static_assert(std::is_standard_layout<RunBlock>::value, "the run block is shared as raw memory");

// Settings of the board at power-up.
constexpr std::uint32_t kPowerUpSpeedHz = 20000000;
constexpr std::uint32_t kControllerMaxSpeedHz = 60000000;
constexpr std::int64_t kMessageOverheadNs = 20000;

const char* violationRuleName(std::uint8_t rule);

}  // namespace boardsim
