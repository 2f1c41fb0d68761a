// SPDX-License-Identifier: MIT
#include "LibcInterposers.h"
#include "thread/TimeValue.h"

#include <gtest/gtest.h>

#include <climits>
#include <thread>
#include <utility>

namespace {

using thread::TimeValue;

timespec at(long seconds, long nanoseconds)
{
    timespec time{};
    time.tv_sec = seconds;
    time.tv_nsec = nanoseconds;
    return time;
}

// The value's fields as (seconds, nanoseconds).
std::pair<long, long> fieldsOf(const TimeValue& value)
{
    const timespec* time = value.getTimespec();
    return {static_cast<long>(time->tv_sec), time->tv_nsec};
}

using Fields = std::pair<long, long>;

// ---- construction and clocks -------------------------------------------------

TEST(TimeValueClockTest, AcceptsOnlyRealtimeAndMonotonicClockIds)
{
    EXPECT_EQ(CLOCK_MONOTONIC, TimeValue().getClockId());
    EXPECT_EQ(CLOCK_REALTIME, TimeValue(0).getClockId());
    EXPECT_EQ(CLOCK_MONOTONIC, TimeValue(1).getClockId());
    EXPECT_EQ(CLOCK_MONOTONIC, TimeValue(5).getClockId());
    EXPECT_EQ(CLOCK_MONOTONIC, TimeValue(-1).getClockId());
    EXPECT_EQ(CLOCK_MONOTONIC, TimeValue(CLOCK_PROCESS_CPUTIME_ID, at(1, 0)).getClockId());
    EXPECT_EQ(CLOCK_MONOTONIC, TimeValue(5, timeval{1, 0}).getClockId());
    EXPECT_EQ(CLOCK_REALTIME, TimeValue(0, int32_t{3}).getClockId());
}

TEST(TimeValueClockTest, NowReadsTheValuesOwnClock)
{
    const double realtime = TimeValue::getSeconds(CLOCK_REALTIME);
    const double monotonic = TimeValue::getSeconds(CLOCK_MONOTONIC);
    ASSERT_GT(realtime - monotonic, 1.0e8) << "the two clocks must be far apart to tell them apart";

    const TimeValue wall(0, true);
    const TimeValue refused(5, true);
    EXPECT_NEAR(realtime, fieldsOf(wall).first, 60.0);
    EXPECT_NEAR(monotonic, fieldsOf(refused).first, 60.0) << "clock 5 falls back to the monotonic clock";
}

TEST(TimeValueClockTest, ConstructorsSetTheGivenTime)
{
    EXPECT_EQ(Fields(0, 0), fieldsOf(TimeValue(1, false)));
    EXPECT_EQ(Fields(10, 900000000), fieldsOf(TimeValue(1, at(10, 900000000))));
    EXPECT_EQ(Fields(7, 250000000), fieldsOf(TimeValue(1, timeval{7, 250000})));
    EXPECT_EQ(Fields(42, 0), fieldsOf(TimeValue(1, int32_t{42})));
}

TEST(TimeValueClockTest, SetNowAndConstructionWithNowTakeTheClockReading)
{
    interpose::Script script;
    script.setClockReading(at(1234, 567));
    EXPECT_EQ(Fields(1234, 567), fieldsOf(TimeValue(1, true)));
    TimeValue value(1, false);
    value.setNow();
    EXPECT_EQ(Fields(1234, 567), fieldsOf(value));
}

TEST(TimeValueClockTest, IsSetOnlyWhenEitherFieldIsNonZero)
{
    TimeValue value(1, false);
    EXPECT_FALSE(value.isSet());
    EXPECT_TRUE(value.isZero());
    value.setNow();
    EXPECT_TRUE(value.isSet());
    EXPECT_FALSE(value.isZero());
    value.clear();
    EXPECT_FALSE(value.isSet());
    EXPECT_TRUE(TimeValue(1, at(0, 1)).isSet());
    EXPECT_TRUE(TimeValue(1, int32_t{1}).isSet());
}

// ---- static clock functions --------------------------------------------------

TEST(TimeValueStaticTest, GetTimeDividesNanosecondsByAThousandThreeTimes)
{
    interpose::Script script;
    script.setClockReading(at(2, 500000000));
    EXPECT_EQ(2.5, TimeValue::getTime(1));
    EXPECT_EQ(2.5, TimeValue::getSeconds(1));

    // A reading whose three divisions round differently from one division
    // by 10^9.
    script.setClockReading(at(2, 32412251));
    const double threeDivisions = 2.0 + 32412251.0 / 1000.0 / 1000.0 / 1000.0;
    const double oneDivision = 2.0 + 32412251.0 / 1.0e9;
    ASSERT_NE(threeDivisions, oneDivision);
    EXPECT_EQ(threeDivisions, TimeValue::getTime(1));
}

TEST(TimeValueStaticTest, GetTimeHandsTheReadingOut)
{
    interpose::Script script;
    script.setClockReading(at(2, 999999999));
    timespec asTimespec{};
    TimeValue::getTime(0, &asTimespec);
    EXPECT_EQ(2, asTimespec.tv_sec);
    EXPECT_EQ(999999999, asTimespec.tv_nsec);
    timeval asTimeval{};
    TimeValue::getTime(0, &asTimeval);
    EXPECT_EQ(2, asTimeval.tv_sec);
    EXPECT_EQ(999999, asTimeval.tv_usec) << "microseconds are truncated, not rounded";
    EXPECT_EQ(2.0 + 999999999.0 / 1000.0 / 1000.0 / 1000.0, TimeValue::getTime(0, static_cast<timeval*>(nullptr)));
}

TEST(TimeValueStaticTest, ConvertsBetweenTimespecAndTimeval)
{
    timeval asTimeval{};
    TimeValue::toTimeval(at(5, 123456789), asTimeval);
    EXPECT_EQ(5, asTimeval.tv_sec);
    EXPECT_EQ(123456, asTimeval.tv_usec);
    timespec asTimespec{};
    TimeValue::toTimespec(timeval{6, 654321}, asTimespec);
    EXPECT_EQ(6, asTimespec.tv_sec);
    EXPECT_EQ(654321000, asTimespec.tv_nsec);
}

TEST(TimeValueStaticTest, CompareTellsEarlierLaterAndEqual)
{
    EXPECT_EQ(0, TimeValue::compare(at(3, 5), at(3, 5)));
    EXPECT_EQ(1, TimeValue::compare(at(3, 5), at(3, 6)));
    EXPECT_EQ(-1, TimeValue::compare(at(3, 6), at(3, 5)));
    EXPECT_EQ(1, TimeValue::compare(at(2, 999999999), at(3, 0))) << "seconds decide first";
    EXPECT_EQ(-1, TimeValue::compare(at(4, 0), at(3, 999999999)));
}

// ---- arithmetic ------------------------------------------------------------------

TEST(TimeValueArithmeticTest, AddCarriesIntoTheSeconds)
{
    TimeValue value(1, at(10, 900000000));
    value.add(0.25);
    EXPECT_EQ(Fields(11, 150000000), fieldsOf(value));

    TimeValue half(1, at(10, 500000000));
    half.add(0.5);
    EXPECT_EQ(Fields(11, 0), fieldsOf(half));
}

TEST(TimeValueArithmeticTest, AddSplitsWholeSecondsAndTruncatesTheFraction)
{
    TimeValue value(1, int32_t{100});
    value.add(2.75);
    EXPECT_EQ(Fields(102, 750000000), fieldsOf(value));
    value.add(0.0000000019);  // 1.9 ns
    EXPECT_EQ(Fields(102, 750000001), fieldsOf(value));
}

TEST(TimeValueArithmeticTest, NegativeAmountsAreNotNormalised)
{
    TimeValue value(1, at(10, 100000000));
    value.add(-0.25);
    EXPECT_EQ(Fields(10, -150000000), fieldsOf(value));

    TimeValue other(1, int32_t{10});
    other.add(-1.5);
    EXPECT_EQ(Fields(9, -500000000), fieldsOf(other));
}

TEST(TimeValueArithmeticTest, SetFromNowAddsToTheClockReading)
{
    interpose::Script script;
    script.setClockReading(at(100, 900000000));
    TimeValue value(1, false);
    value.setFromNow(0.25);
    EXPECT_EQ(Fields(101, 150000000), fieldsOf(value));
    value.setFromNow(3.0);
    EXPECT_EQ(Fields(103, 900000000), fieldsOf(value));
}

// ---- remaining time --------------------------------------------------------------

TEST(TimeValueRemainingTest, BorrowsAMillionMicrosecondsWhenNeeded)
{
    interpose::Script script;
    script.setClockReading(at(8, 500000999));
    EXPECT_EQ(1500000, TimeValue(1, int32_t{10}).remainingMicroseconds());
    EXPECT_EQ(2499999, TimeValue(1, at(10, 999999999)).remainingMicroseconds());
    EXPECT_EQ(1, TimeValue(1, at(8, 500001000)).remainingMicroseconds())
        << "both nanosecond counts are truncated to microseconds first";
}

TEST(TimeValueRemainingTest, PastOrPresentPointsHaveNoneLeft)
{
    interpose::Script script;
    script.setClockReading(at(8, 500000000));
    EXPECT_EQ(0, TimeValue(1, at(8, 500000000)).remainingMicroseconds());
    EXPECT_EQ(0, TimeValue(1, at(8, 499999999)).remainingMicroseconds());
    EXPECT_EQ(0, TimeValue(1, at(8, 500000999)).remainingMicroseconds())
        << "later by 999 ns, which is no whole microsecond";
    EXPECT_EQ(0, TimeValue(1, int32_t{3}).remainingMicroseconds());
}

TEST(TimeValueRemainingTest, NeverNegativeForUnnormalisedValues)
{
    interpose::Script script;
    script.setClockReading(at(9, 700000000));
    // 10 s - 0.5 s lies before now although its seconds are later.
    EXPECT_EQ(0, TimeValue(1, at(10, -500000000)).remainingMicroseconds());
}

TEST(TimeValueRemainingTest, FarDeadlinesAreCappedAtTheLargestInt)
{
    interpose::Script script;
    script.setClockReading(at(1000, 0));
    EXPECT_EQ(2000000000, TimeValue(1, int32_t{3000}).remainingMicroseconds());
    EXPECT_EQ(INT_MAX, TimeValue(1, int32_t{4000}).remainingMicroseconds());
}

// ---- comparisons -------------------------------------------------------------------

// A comparison holds its own value's lock while it takes the other's, so
// each pair of objects here is compared in one order only.
TEST(TimeValueCompareTest, OperatorsCompareSecondsThenNanosecondsIgnoringTheClock)
{
    const TimeValue early(1, at(5, 999999999));
    const TimeValue late(1, at(6, 0));
    EXPECT_TRUE(early < late);
    EXPECT_FALSE(early > late);
    EXPECT_FALSE(early == late);

    const TimeValue laterFirst(1, at(6, 0));
    const TimeValue earlierSecond(1, at(5, 999999999));
    EXPECT_FALSE(laterFirst < earlierSecond);
    EXPECT_TRUE(laterFirst > earlierSecond);

    const TimeValue onMonotonic(1, at(6, 0));
    const TimeValue onRealtime(0, at(6, 0));
    EXPECT_TRUE(onMonotonic == onRealtime);
    EXPECT_FALSE(onMonotonic < onRealtime);
    EXPECT_FALSE(onMonotonic > onRealtime);

    const TimeValue nanosecondsLater(1, at(6, 1));
    const TimeValue nanosecondsEarlier(1, at(6, 0));
    EXPECT_TRUE(nanosecondsLater > nanosecondsEarlier);
    EXPECT_TRUE(late == late);
}

TEST(TimeValueCompareTest, ComparesSafelyWhileAnotherThreadMovesTheOtherValue)
{
    TimeValue fixed(1, int32_t{1000});
    TimeValue moving(1, int32_t{1});
    std::thread mover([&] {
        for (int i = 0; i < 1000; ++i) {
            moving.add(1.0);
        }
    });
    // Each comparison reads the other value under its lock (ThreadSanitizer
    // reports it otherwise), always in the same order: a comparison holds its
    // own value's lock while it takes the other's.
    for (int i = 0; i < 1000; ++i) {
        static_cast<void>(fixed < moving);
        static_cast<void>(fixed == moving);
    }
    mover.join();
    EXPECT_TRUE(fixed < moving);
    EXPECT_FALSE(fixed == moving);
    EXPECT_EQ(Fields(1001, 0), fieldsOf(moving));
}

}  // namespace
