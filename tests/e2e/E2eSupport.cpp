// SPDX-License-Identifier: MIT
#include "E2eSupport.h"

namespace boardtest {

namespace {

std::int64_t number(const QJsonObject& object, const char* key)
{
    return integer(object.value(QLatin1String(key)));
}

}  // namespace

std::vector<Record> records(const QJsonObject& spiMessage)
{
    std::vector<Record> result;
    for (const QJsonValue& value : spiMessage.value(QStringLiteral("records")).toArray()) {
        const QJsonObject record = value.toObject();
        Record flat;
        flat.tx = text(record.value(QStringLiteral("tx")));
        flat.rx = record.value(QStringLiteral("rx")).toBool();
        flat.len = number(record, "len");
        flat.csChange = number(record, "cs_change");
        flat.speedHz = number(record, "speed_hz");
        flat.delayUsecs = number(record, "delay_usecs");
        flat.bitsPerWord = number(record, "bits_per_word");
        result.push_back(flat);
    }
    return result;
}

MessageKind kindOf(const QJsonObject& spiMessage)
{
    const std::vector<Record> r = records(spiMessage);
    if (r.size() == 2 && r[0].tx == "05") {
        return MessageKind::Status;
    }
    if (r.size() == 2 && r[0].tx == "06") {
        return MessageKind::Erase;
    }
    if (r.size() == 3 && r[0].tx == "06") {
        return MessageKind::Program;
    }
    if (r.size() == 2 && r[0].tx.size() == 8 && r[0].tx.compare(0, 2, "03") == 0) {
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

int traceIndex(const RunResult& run, const QJsonObject& event)
{
    return run.indexOf(event);
}

int findEvent(const RunResult& run, int from, const char* ev, const char* field, const std::string& value)
{
    for (std::size_t i = static_cast<std::size_t>(std::max(from, 0)); i < run.trace.size(); ++i) {
        const QJsonObject& event = run.trace[i];
        if (event.value(QStringLiteral("ev")).toString() != QLatin1String(ev)) {
            continue;
        }
        if (field == nullptr || text(event.value(QLatin1String(field))) == value) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

void expectDspHeldOffDuringTransfersAndReleased(const RunResult& run)
{
    for (const QJsonObject& message : run.spiMessages()) {
        EXPECT_EQ(text(message.value(QStringLiteral("gpio48"))), "0")
            << "SPI message " << text(message.value(QStringLiteral("index"))) << " went out with line 48 at "
            << text(message.value(QStringLiteral("gpio48")));
    }
    const auto levels = run.lineLevels(48);
    ASSERT_FALSE(levels.empty()) << "line 48 was never driven\n" << run.describe();
    EXPECT_EQ(levels.back().second, 1) << "line 48 was left at 0: the DSP cannot boot";
    const std::vector<QJsonObject> writes = run.gpioWrites("gpio48/value");
    ASSERT_FALSE(writes.empty());
    EXPECT_EQ(text(writes.back().value(QStringLiteral("data"))), "1");
}

void expectHardwareUntouched(const RunResult& run)
{
    for (const char* ev :
         {"spi_open", "spi_ioctl", "spi_msg", "gpio_open", "gpio_write", "gpio_read", "melody_open", "melody_ioctl"}) {
        EXPECT_TRUE(run.events(ev).empty()) << ev << " events in a run that must not touch the board";
    }
    EXPECT_EQ(run.logMessages().size(), 0U) << "nothing reached the hardware, so nothing is logged\n" << run.log;
}

void expectSuccessfulRun(const RunResult& run)
{
    EXPECT_EQ(run.status, 0) << run.describe();
    EXPECT_EQ(run.plainOutLines(), std::vector<std::string>{"Waiting till DSP is started..."}) << run.describe();
    EXPECT_EQ(run.err, "");
    const std::vector<QJsonObject> sleeps = run.events("sleep");
    ASSERT_FALSE(sleeps.empty());
    const QJsonObject& last = sleeps.back();
    EXPECT_EQ(text(last.value(QStringLiteral("call"))), "sleep");
    EXPECT_EQ(integer(last.value(QStringLiteral("us"))), 5000000);
    EXPECT_EQ(text(last.value(QStringLiteral("thread"))), "main");
    EXPECT_TRUE(last.value(QStringLiteral("virtual")).toBool());
    EXPECT_GE(run.boardTimeNs(), 5000000000LL);
    EXPECT_EQ(run.violationsTotal(), 0) << run.describe();
    expectDspHeldOffDuringTransfersAndReleased(run);
}

void expectFailedRun(const RunResult& run)
{
    EXPECT_EQ(run.status, 1) << run.describe();
    EXPECT_TRUE(run.plainOutLines().empty()) << run.describe();
    EXPECT_EQ(run.err, "") << "the driver's log explains a failure, not the terminal";
    for (const QJsonObject& sleep : run.events("sleep")) {
        EXPECT_NE(integer(sleep.value(QStringLiteral("us"))), 5000000) << "no DSP start pause after a failure";
    }
    expectDspHeldOffDuringTransfersAndReleased(run);
}

bool releasePauseBetween(const RunResult& run, int from, int to)
{
    for (int i = std::max(from, 0); i < to && i < static_cast<int>(run.trace.size()); ++i) {
        const QJsonObject& event = run.trace[static_cast<std::size_t>(i)];
        if (event.value(QStringLiteral("ev")).toString() == QLatin1String("sleep") &&
            text(event.value(QStringLiteral("call"))) == "usleep" &&
            integer(event.value(QStringLiteral("us"))) == 1000) {
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
            return traceIndex(run, *it);
        }
    }
    return -1;
}

}  // namespace boardtest
