#pragma once
#include "kestrel/kestrel_export.h"

#include <cstdint>
#include <iosfwd>

namespace Kestrel {

// A point in time or a span, as a signed 64-bit count of 2^-24 seconds (about 60 ns). Points are
// measured from the Unix epoch on the wall clock, so they mean the same on both machines of a
// link; spans are plain differences. Ordered and subtractable like the integer it wraps.
class KESTREL_EXPORT TimeStamp
{
public:
    static constexpr int64_t TicksPerSecond = int64_t(1) << 24;
    static constexpr double SecondsPerTick = 5.9604644775390625e-08;   // exactly 2^-24

    constexpr TimeStamp() = default;
    constexpr explicit TimeStamp(int64_t raw) : m_value(raw) {}

    static TimeStamp currentTime();
    // A point on the monotonic clock, for measuring spans inside this process: a step of the
    // wall clock doesn't move it. Its origin is arbitrary, so it means nothing to a peer.
    static TimeStamp monotonicTime();
    static TimeStamp fromSeconds(double seconds);   // rounded to the nearest tick

    constexpr int64_t raw() const { return m_value; }
    constexpr double seconds() const { return double(m_value) * SecondsPerTick; }

    constexpr TimeStamp operator-(TimeStamp o) const { return TimeStamp(m_value - o.m_value); }
    constexpr TimeStamp operator+(TimeStamp o) const { return TimeStamp(m_value + o.m_value); }
    TimeStamp &operator-=(TimeStamp o) { m_value -= o.m_value; return *this; }
    TimeStamp &operator+=(TimeStamp o) { m_value += o.m_value; return *this; }

    constexpr bool operator==(TimeStamp o) const { return m_value == o.m_value; }
    constexpr bool operator!=(TimeStamp o) const { return m_value != o.m_value; }
    constexpr bool operator<(TimeStamp o) const { return m_value < o.m_value; }
    constexpr bool operator<=(TimeStamp o) const { return m_value <= o.m_value; }
    constexpr bool operator>(TimeStamp o) const { return m_value > o.m_value; }
    constexpr bool operator>=(TimeStamp o) const { return m_value >= o.m_value; }

private:
    int64_t m_value = 0;
};

// Text form: the raw tick count in decimal, so that a value survives a round trip exactly.
// Reading sets failbit (and leaves the value) when no integer can be read.
KESTREL_EXPORT std::ostream &operator<<(std::ostream &out, const TimeStamp &ts);
KESTREL_EXPORT std::istream &operator>>(std::istream &in, TimeStamp &ts);

} // namespace Kestrel
