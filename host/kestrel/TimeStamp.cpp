#include "kestrel/TimeStamp.h"

#include <cmath>
#include <istream>
#include <ostream>
#include <time.h>

namespace Kestrel {

namespace {

TimeStamp readClock(clockid_t clock)
{
    timespec now;
    clock_gettime(clock, &now);
    // Nanoseconds to ticks: ns * 2^24 / 10^9, exact in 64 bits since ns < 10^9 < 2^30.
    const int64_t fraction = (int64_t(now.tv_nsec) << 24) / 1000000000;
    return TimeStamp(int64_t(now.tv_sec) * TimeStamp::TicksPerSecond + fraction);
}

} // namespace

TimeStamp TimeStamp::currentTime()
{
    return readClock(CLOCK_REALTIME);
}

TimeStamp TimeStamp::monotonicTime()
{
    return readClock(CLOCK_MONOTONIC);
}

TimeStamp TimeStamp::fromSeconds(double seconds)
{
    return TimeStamp(std::llround(seconds * double(TicksPerSecond)));
}

std::ostream &operator<<(std::ostream &out, const TimeStamp &ts)
{
    return out << static_cast<long long>(ts.raw());
}

std::istream &operator>>(std::istream &in, TimeStamp &ts)
{
    long long raw = 0;
    if (in >> raw)
        ts = TimeStamp(raw);
    return in;
}

} // namespace Kestrel
