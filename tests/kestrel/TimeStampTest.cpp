#include "kestrel/TimeStamp.h"

#include <gtest/gtest.h>

#include <QDateTime>

#include <cmath>
#include <limits>
#include <sstream>

using Kestrel::TimeStamp;

TEST(TimeStamp, TextRoundTripIsExact)
{
    for (int64_t raw : {int64_t(0), int64_t(1), int64_t(-1), int64_t(1) << 24, int64_t(28531234567890123),
                        std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()}) {
        std::stringstream text;
        text << TimeStamp(raw);
        TimeStamp back(12345);
        text >> back;
        EXPECT_FALSE(text.fail()) << raw;
        EXPECT_EQ(back.raw(), raw);
    }
}

TEST(TimeStamp, TextIsTheRawCount)
{
    std::ostringstream text;
    text << TimeStamp(-16777216);
    EXPECT_EQ(text.str(), "-16777216");
}

TEST(TimeStamp, UnreadableTextFailsAndKeepsTheValue)
{
    std::istringstream text("soon");
    TimeStamp value(7);
    text >> value;
    EXPECT_TRUE(text.fail());
    EXPECT_EQ(value.raw(), 7);
}

TEST(TimeStamp, SecondsConversion)
{
    EXPECT_EQ(TimeStamp(int64_t(1) << 24).seconds(), 1.0);
    EXPECT_EQ(TimeStamp(-(int64_t(3) << 23)).seconds(), -1.5);
    EXPECT_EQ(TimeStamp(1).seconds(), 5.9604644775390625e-08);
    EXPECT_EQ(TimeStamp::fromSeconds(2.5).raw(), int64_t(5) << 23);
    EXPECT_EQ(TimeStamp::fromSeconds(-0.25).raw(), -(int64_t(1) << 22));
    // Nearest tick: 1.4 and 1.6 ticks.
    EXPECT_EQ(TimeStamp::fromSeconds(1.4 * 5.9604644775390625e-08).raw(), 1);
    EXPECT_EQ(TimeStamp::fromSeconds(1.6 * 5.9604644775390625e-08).raw(), 2);
}

TEST(TimeStamp, DifferencesAreSpans)
{
    const TimeStamp a = TimeStamp::fromSeconds(10.0);
    const TimeStamp b = TimeStamp::fromSeconds(13.5);
    EXPECT_EQ((b - a).seconds(), 3.5);
    EXPECT_EQ((a - b).seconds(), -3.5);
    EXPECT_LT(a, b);
    EXPECT_EQ(a + (b - a), b);
}

TEST(TimeStamp, CurrentTimeIsWallClockFromTheEpoch)
{
    const double expected = double(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
    const double now = TimeStamp::currentTime().seconds();
    EXPECT_LT(std::fabs(now - expected), 5.0);
    const TimeStamp first = TimeStamp::currentTime();
    EXPECT_LE(first, TimeStamp::currentTime());
}
