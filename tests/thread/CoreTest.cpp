// SPDX-License-Identifier: MIT
// Clock-bound time values, and sleeping through interruptions.
#include "LibcInterposers.h"
#include "thread/Sleep.h"
#include "thread/TimeValue.h"

#include <gtest/gtest.h>

#include <errno.h>

#include <climits>
#include <deque>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using interpose::Fields;
using thread::TimeValue;
using Times = std::vector<Fields>;

// The value's fields as (seconds, nanoseconds).
Fields fieldsOf(const TimeValue& value)
{
    const timespec* time = value.getTimespec();
    return {static_cast<long>(time->tv_sec), time->tv_nsec};
}

timespec at(const Fields& fields)
{
    return timespec{fields.first, fields.second};
}

// Only CLOCK_REALTIME (0) and CLOCK_MONOTONIC (1) are taken, and a value
// made "now" reads its own clock. A new value is not set; only a value with
// both fields 0 is not set, however it got there.
TEST(TimeValueTest, ConstructionKeepsTheClockAndTheGivenTime)
{
    const std::pair<clockid_t, clockid_t> clocks[] = {{0, 0}, {1, 1}, {5, 1}, {-1, 1}, {CLOCK_PROCESS_CPUTIME_ID, 1}};
    for (const auto& [requested, kept] : clocks) {
        EXPECT_EQ(kept, TimeValue(requested).getClockId()) << requested;
        EXPECT_NEAR(TimeValue::getSeconds(kept), fieldsOf(TimeValue(requested, true)).first, 60.0) << requested;
    }
    EXPECT_FALSE(TimeValue().isSet());
    EXPECT_EQ(Fields(7, 250000000), fieldsOf(TimeValue(1, timeval{7, 250000})));
    EXPECT_EQ(Fields(42, 0), fieldsOf(TimeValue(1, int32_t{42})));
    const std::pair<Fields, bool> cases[] = {{{0, 0}, false}, {{0, 1}, true}, {{1, 0}, true}, {{-1, 5}, true}};
    for (const auto& [fields, set] : cases) {
        TimeValue value(1, at(fields));
        EXPECT_EQ(fields, fieldsOf(value));
        EXPECT_EQ(set, value.isSet());
        EXPECT_NE(set, value.isZero());
        value.clear();
        EXPECT_FALSE(value.isSet());
    }
}

// Whole seconds and the truncated fraction are added, with one carry;
// negative amounts are left unnormalised. setFromNow adds to the reading.
TEST(TimeValueTest, AddAndSetFromNowCarryIntoTheSecondsAndTruncate)
{
    const std::tuple<Fields, double, Fields> cases[] = {
        {{10, 900000000}, 0.25, {11, 150000000}},   {{10, 500000000}, 0.5, {11, 0}},
        {{100, 0}, 2.75, {102, 750000000}},         {{102, 750000000}, 0.0000000019, {102, 750000001}},
        {{10, 100000000}, -0.25, {10, -150000000}}, {{10, 0}, -1.5, {9, -500000000}},
        {{100, 900000000}, 3.0, {103, 900000000}}};
    for (const auto& [base, amount, result] : cases) {
        TimeValue value(1, at(base));
        value.add(amount);
        EXPECT_EQ(result, fieldsOf(value)) << amount;
        interpose::Script script;
        script.clockReading = at(base);
        TimeValue fromNow(1);
        fromNow.setFromNow(amount);
        EXPECT_EQ(result, fieldsOf(fromNow)) << amount;
        fromNow.setNow();
        EXPECT_EQ(base, fieldsOf(fromNow));
    }
}

// Whole seconds and truncated microseconds with one borrow, clamped to
// 0 .. INT_MAX (also for unnormalised values that lie in the past).
TEST(TimeValueTest, RemainingMicrosecondsBorrowsAndClamps)
{
    const std::tuple<Fields, Fields, int> cases[] = {
        {{8, 500000999}, {10, 0}, 1500000},  {{8, 500000999}, {10, 999999999}, 2499999},
        {{8, 500000999}, {8, 500001000}, 1}, {{8, 500000000}, {8, 500000000}, 0},
        {{8, 500000000}, {8, 499999999}, 0}, {{8, 500000000}, {8, 500000999}, 0},
        {{8, 500000000}, {3, 0}, 0},         {{9, 700000000}, {10, -500000000}, 0},
        {{1000, 0}, {3000, 0}, 2000000000},  {{1000, 0}, {4000, 0}, INT_MAX}};
    for (const auto& [now, point, remaining] : cases) {
        interpose::Script script;
        script.clockReading = at(now);
        EXPECT_EQ(remaining, TimeValue(1, at(point)).remainingMicroseconds()) << point.first << "." << point.second;
    }
}

// compare() is 1 when a is earlier; the operators agree with it and ignore
// the clock ids.
TEST(TimeValueTest, CompareAndOperatorsOrderSecondsThenNanoseconds)
{
    const std::tuple<Fields, Fields, int> cases[] = {{{3, 5}, {3, 5}, 0},          {{3, 5}, {3, 6}, 1},
                                                     {{3, 6}, {3, 5}, -1},         {{2, 999999999}, {3, 0}, 1},
                                                     {{4, 0}, {3, 999999999}, -1}, {{-1, 5}, {0, 0}, 1}};
    for (const auto& [first, second, compared] : cases) {
        EXPECT_EQ(compared, TimeValue::compare(at(first), at(second)));
        const TimeValue a(CLOCK_REALTIME, at(first));
        const TimeValue b(CLOCK_MONOTONIC, at(second));
        EXPECT_EQ(compared == 1, a < b);
        EXPECT_EQ(compared == -1, a > b);
        EXPECT_EQ(compared == 0, a == b);
    }
    // The other value is read under its own lock, also while another thread
    // moves it (a ThreadSanitizer build reports the race otherwise).
    TimeValue moving(1, int32_t{1});
    std::thread mover([&] {
        for (int i = 0; i < 1000; ++i) {
            moving.add(1.0);
        }
    });
    const TimeValue fixed(1, int32_t{1000});
    for (int i = 0; i < 1000; ++i) {
        static_cast<void>(fixed < moving);
    }
    mover.join();
}

// Seconds are the nanoseconds divided by 1000.0 three times (which rounds
// differently from one division by 1e9 for this reading); the reading is
// handed out, as truncated microseconds for a timeval.
TEST(TimeValueTest, GetTimeDividesThreeTimesAndHandsTheReadingOut)
{
    interpose::Script script;
    script.clockReading = timespec{2, 32412251};
    const double expected = 2.0 + 32412251.0 / 1000.0 / 1000.0 / 1000.0;
    timespec asTimespec{};
    timeval asTimeval{};
    EXPECT_EQ(expected, TimeValue::getSeconds(1));
    EXPECT_EQ(expected, TimeValue::getTime(1, &asTimespec));
    EXPECT_EQ(expected, TimeValue::getTime(0, &asTimeval));
    EXPECT_EQ(expected, TimeValue::getTime(1, static_cast<timeval*>(nullptr)));
    EXPECT_EQ((std::vector<Fields>{{2, 32412251}, {2, 32412}}),
              (std::vector<Fields>{{asTimespec.tv_sec, asTimespec.tv_nsec}, {asTimeval.tv_sec, asTimeval.tv_usec}}));
}

// The request is split into seconds and nanoseconds; an interrupted sleep
// goes on with the remaining time, any other failure ends it.
TEST(SleepTest, SleepMicrosecondsSplitsTheTimeAndGoesOnAfterInterruptionsOnly)
{
    const interpose::SleepOutcome done{0, 0, {}};
    const std::tuple<unsigned, std::deque<interpose::SleepOutcome>, int, Times> cases[] = {
        {0, {done}, 0, {{0, 0}}},
        {999999, {done}, 0, {{0, 999999000}}},
        {1000000, {done}, 0, {{1, 0}}},
        {4294967295u, {done}, 0, {{4294, 967295000}}},
        {500000, {{-1, EINTR, {0, 123000}}, {-1, EINTR, {1, 5}}, done}, 0, {{0, 500000000}, {0, 123000}, {1, 5}}},
        {1, {{-1, EINTR, {0, 700}}, {-1, EINVAL, {}}, done}, -1, {{0, 1000}, {0, 700}}},
        {2500000, {{0, EINTR, {0, 9}}, done}, 0, {{2, 500000000}}}};
    for (const auto& [microseconds, outcomes, result, requests] : cases) {
        interpose::Script script;
        script.sleeps = outcomes;
        EXPECT_EQ(result, thread::sleepMicroseconds(microseconds)) << microseconds;
        EXPECT_EQ(requests, script.sleepRequests) << microseconds;
    }
}

}  // namespace
