#include "kestrel/TimeStamp.h"

#include <gtest/gtest.h>

#include <QDateTime>

#include <chrono>
#include <cmath>
#include <limits>
#include <sstream>
#include <string>
#include <thread>

using Kestrel::TimeStamp;

TEST(TimeStamp, TicksAreTwoToTheMinus24SecondsSinceTheEpochAndTheTextIsTheirCount)
{
    for (int64_t raw : {int64_t(0), int64_t(-16777216), std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()}) {
        std::stringstream text;
        text << TimeStamp(raw);
        EXPECT_EQ(text.str(), std::to_string(raw));
        TimeStamp back(12345);
        EXPECT_FALSE((text >> back).fail()) << raw;
        EXPECT_EQ(back.raw(), raw);
    }
    std::istringstream text("soon");
    TimeStamp value(7);
    EXPECT_TRUE((text >> value).fail());
    EXPECT_EQ(value.raw(), 7);
    const double tick = 5.9604644775390625e-08;
    EXPECT_EQ(TimeStamp(1).seconds(), tick);
    EXPECT_EQ(TimeStamp::fromSeconds(2.5).raw(), int64_t(5) << 23);
    EXPECT_EQ(TimeStamp::fromSeconds(-0.25).raw(), -(int64_t(1) << 22));
    EXPECT_EQ(TimeStamp::fromSeconds(1.4 * tick).raw(), 1);   // nearest tick
    EXPECT_EQ(TimeStamp::fromSeconds(1.6 * tick).raw(), 2);
    const TimeStamp a = TimeStamp::fromSeconds(10.0), b = TimeStamp::fromSeconds(13.5);
    EXPECT_EQ((a - b).seconds(), -3.5);
    EXPECT_EQ(a + (b - a), b);
    const double expected = double(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
    EXPECT_LT(std::fabs(TimeStamp::currentTime().seconds() - expected), 5.0);
}

TEST(TimeStamp, MonotonicTimeOnlyMovesForwardAndCountsSeconds)
{
    const TimeStamp first = TimeStamp::monotonicTime();
    const auto wallFirst = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const TimeStamp second = TimeStamp::monotonicTime();
    const double steady = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallFirst).count();
    EXPECT_GE((second - first).seconds(), 0.05);
    EXPECT_LE((second - first).seconds(), steady + 0.001);
}
