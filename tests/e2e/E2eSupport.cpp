// SPDX-License-Identifier: MIT
#include "E2eSupport.h"

#include <chrono>
#include <thread>

namespace boardtest {

MessageKind kindOf(const QJsonObject& spiMessage)
{
    std::vector<std::string> r;  // the bytes each record sends
    for (const QJsonValue& record : spiMessage.value(QStringLiteral("records")).toArray()) {
        r.push_back(text(record.toObject().value(QStringLiteral("tx"))));
    }
    if (r.size() == 2 && r[0] == "05") {
        return MessageKind::Status;
    }
    if ((r.size() == 2 || r.size() == 3) && r[0] == "06") {
        return r.size() == 2 ? MessageKind::Erase : MessageKind::Program;
    }
    if (r.size() == 2 && r[0].size() == 8 && r[0].compare(0, 2, "03") == 0) {
        return MessageKind::Read;
    }
    return MessageKind::Other;
}

std::vector<QJsonObject> messagesOfKind(const RunResult& run, MessageKind kind)
{
    std::vector<QJsonObject> found;
    for (const QJsonObject& message : run.spiMessages()) {
        if (kindOf(message) == kind) {
            found.push_back(message);
        }
    }
    return found;
}

std::string layout(const QJsonObject& spiMessage)
{
    std::string line;
    for (const QJsonValue& value : spiMessage.value(QStringLiteral("records")).toArray()) {
        const QJsonObject r = value.toObject();
        const std::string tx = text(r.value(QStringLiteral("tx")));
        line += (line.empty() ? "" : " ") + (tx == "null" ? "" : tx) +
                (r.value(QStringLiteral("rx")).toBool() ? "?" : "") + "/" +
                std::to_string(integer(r.value(QStringLiteral("len")))) +
                (integer(r.value(QStringLiteral("cs_change"))) != 0 ? "/cs" : "");
        for (const char* name : {"speed_hz", "delay_usecs", "bits_per_word"}) {
            const std::int64_t number = integer(r.value(QLatin1String(name)));
            line += number != 0 ? "/" + std::string(name) + "=" + std::to_string(number) : "";
        }
    }
    return line;
}

std::string pageAddress(std::uint8_t command, std::size_t page)
{
    const std::size_t address = page * 256;
    return hex({command, static_cast<std::uint8_t>(address >> 16), static_cast<std::uint8_t>(address >> 8),
                static_cast<std::uint8_t>(address)});
}

std::int64_t programMessageIndex(std::size_t page)
{
    static const std::vector<std::int64_t> firstTwo = [] {
        const SimulatedBoard board;
        writeFile(board.path("two.bin"), Bytes(2 * 256, 0x00));
        std::vector<std::int64_t> indices;
        for (const QJsonObject& message : messagesOfKind(board.merivak({"write", "two.bin"}), MessageKind::Program)) {
            indices.push_back(integer(message.value(QStringLiteral("index"))));
        }
        return indices;
    }();
    return firstTwo.size() != 2 ? -1 : firstTwo[0] + static_cast<std::int64_t>(page) * (firstTwo[1] - firstTwo[0]);
}

int findEvent(const RunResult& run, int from, const char* ev, const char* field, const std::string& value)
{
    for (std::size_t i = static_cast<std::size_t>(std::max(from, 0)); i < run.trace.size(); ++i) {
        const QJsonObject& event = run.trace[i];
        if (text(event.value(QStringLiteral("ev"))) == ev &&
            (field == nullptr || text(event.value(QLatin1String(field))) == value)) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

bool releasePauseBetween(const RunResult& run, int from, int to)
{
    for (int i = findEvent(run, from, "sleep", "us", "1000"); i >= 0 && i < to;
         i = findEvent(run, i + 1, "sleep", "us", "1000")) {
        if (text(run.trace[static_cast<std::size_t>(i)].value(QStringLiteral("call"))) == "usleep") {
            return true;
        }
    }
    return false;
}

int lastRelease(const RunResult& run)
{
    const std::vector<QJsonObject> writes = run.gpioWrites("gpio48/value");
    for (auto it = writes.rbegin(); it != writes.rend(); ++it) {
        if (text(it->value(QStringLiteral("data"))) == "1") {
            return run.indexOf(*it);
        }
    }
    return -1;
}

bool waitForHolds(const RunningProgram& program, std::size_t holds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
        std::size_t seen = 0;
        for (const QJsonObject& event : program.traceSoFar()) {
            seen += text(event.value(QStringLiteral("path"))) == "gpio48/value" &&
                    text(event.value(QStringLiteral("data"))) == "0";
        }
        if (seen >= holds) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

void expectDspHeldOffDuringTransfersAndReleased(const RunResult& run)
{
    for (const QJsonObject& message : run.spiMessages()) {
        EXPECT_EQ(text(message.value(QStringLiteral("gpio48"))), "0")
            << "SPI message " << text(message.value(QStringLiteral("index"))) << " went out with line 48 at "
            << text(message.value(QStringLiteral("gpio48")));
    }
    for (const QJsonObject& write : run.gpioWrites("gpio48/value")) {
        const std::string data = text(write.value(QStringLiteral("data")));
        EXPECT_TRUE(data == "0" || data == "1") << "line 48's value written as " << data;
    }
    // The summary lists line 48's electrical level changes as [t, level].
    const QJsonArray levels =
        run.summary[QStringLiteral("gpio")][QStringLiteral("lines")][QStringLiteral("48")].toArray();
    ASSERT_FALSE(levels.empty()) << "line 48 was never driven\n" << run.describe();
    EXPECT_EQ(integer(levels.last()[1]), 1) << "line 48 was left at 0: the DSP cannot boot";
}

void expectHardwareUntouched(const RunResult& run)
{
    for (const char* ev : {"spi_open", "spi_ioctl", "spi_msg", "gpio_open", "gpio_write", "melody_open", "sleep"}) {
        EXPECT_TRUE(run.events(ev).empty()) << ev << " events in a run that must not touch the board";
    }
    EXPECT_EQ(run.log, "") << "nothing reached the hardware, so nothing is logged";
}

void expectSuccessfulRun(const RunResult& run)
{
    EXPECT_EQ(run.status, 0) << run.describe();
    EXPECT_EQ(run.plainOutLines(), std::vector<std::string>{"Waiting till DSP is started..."}) << run.describe();
    const std::string waiting = "Waiting till DSP is started...\n";
    EXPECT_EQ(run.out.substr(run.out.size() - std::min(run.out.size(), waiting.size())), waiting)
        << "the waiting line comes after every log record";
    EXPECT_EQ(run.err, "");
    // The 5-second pause comes last, once the DSP is released.
    const int pause = findEvent(run, lastRelease(run), "sleep", "us", "5000000");
    ASSERT_GT(pause, 0) << run.describe();
    EXPECT_TRUE(run.trace[static_cast<std::size_t>(pause)].value(QStringLiteral("virtual")).toBool());
    EXPECT_EQ(findEvent(run, pause + 1, "sleep"), -1);
    EXPECT_EQ(run.violationsTotal(), 0) << run.describe();
    expectDspHeldOffDuringTransfersAndReleased(run);
}

void expectFailedRun(const RunResult& run)
{
    EXPECT_EQ(run.status, 1) << run.describe();
    EXPECT_TRUE(run.plainOutLines().empty()) << run.describe();
    EXPECT_EQ(run.err, "") << "the driver's log explains a failure, not the terminal";
    EXPECT_EQ(findEvent(run, 0, "sleep", "us", "5000000"), -1) << "no DSP start pause after a failure";
    expectDspHeldOffDuringTransfersAndReleased(run);
}

}  // namespace boardtest
